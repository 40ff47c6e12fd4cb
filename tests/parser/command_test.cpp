// Single SMB2 messages: prologue, dispatch, commands on an open file, oplock breaks.
#include "parser_harness.h"

namespace smb2test {
namespace {

constexpr uint32_t kTree = 7;
constexpr uint64_t kFile = 0x1122334455667788ull;

struct FileCommandCase {
    uint16_t command;
    size_t file_id_offset;
    size_t min_body;
};

void PrintTo(const FileCommandCase &c, std::ostream *os) {
    *os << "command " << c.command << ", FileId at " << c.file_id_offset << ", body " << c.min_body;
}

// FileId offsets and the shortest bodies that hold what the parser reads.
const FileCommandCase kFileCommands[] = {
    {CLOSE, 8, 24},       {FLUSH, 8, 24},     {READ, 16, 49},           {WRITE, 16, 49},
    {LOCK, 8, 48},        {IOCTL, 8, 56},     {QUERY_DIRECTORY, 8, 33}, {CHANGE_NOTIFY, 8, 32},
    {QUERY_INFO, 24, 40}, {SET_INFO, 16, 33},
};

class FileCommand : public ::testing::TestWithParam<FileCommandCase> {};

TEST_P(FileCommand, RequestNeedsItsMinimumBodyAndResponseFindsTheFileId) {
    const auto c = GetParam();
    ASSERT_EQ(request_file_id_offset(c.command), c.file_id_offset);
    Bytes body(c.min_body, 0);
    for (size_t i = 0; i < 8; ++i)
        body[c.file_id_offset + i] = uint8_t(kFile >> (8 * i));

    ParserHarness h;
    Bytes short_body(body.begin(), body.end() - 1);
    EXPECT_EQ(h.send(request(c.command, 40, kTree, short_body)), -1);
    EXPECT_EQ(h.hash(), kSeed);
    EXPECT_EQ(h.message2_file(40), 0u);
    ASSERT_EQ(h.send(request(c.command, 41, kTree, body)), 0);
    EXPECT_EQ(h.rec()->file_id, kFile);
    EXPECT_EQ(h.rec()->commands[0], kCmdLow | bit(c.command));
    EXPECT_EQ(h.hash(), fold_tree_file(kSeed, kTree, kFile));
    uint32_t tree = 0;
    EXPECT_EQ(h.message2_file(41, &tree), kFile);
    EXPECT_EQ(tree, kTree);

    // The response repeats no file id: its body is not read.
    ASSERT_EQ(h.send(response(c.command, 41, kTree, Bytes{})), 0);
    EXPECT_EQ(h.rec()->file_id, kFile);
    EXPECT_EQ(h.rec()->is_response, 1);
    EXPECT_EQ(h.rec()->op, SMB_OP_INVALID);
    EXPECT_EQ(h.hash(), fold_tree_file(kSeed, kTree, kFile));
}

INSTANTIATE_TEST_SUITE_P(AllFileCommands, FileCommand, ::testing::ValuesIn(kFileCommands),
                         [](const auto &info) { return std::to_string(info.param.command); });

TEST(Command, CodeAbove18OnlyRunsThePrologue) {
    for (uint32_t flags : {0u, kResponse}) {
        ParserHarness h;
        Message m = request(19, 77, kTree, request_body(CLOSE, kFile), flags);
        EXPECT_EQ(h.send(m), 1);
        EXPECT_EQ(h.rec()->version, 2);
        EXPECT_EQ(h.rec()->is_response, flags & kResponse);
        EXPECT_EQ(h.rec()->message_id, 77u);
        EXPECT_EQ(h.rec()->tree_id, kTree);
        EXPECT_EQ(h.rec()->commands[0], kCmdLow);
        EXPECT_EQ(h.rec()->commands[1], kCmdLow);
        EXPECT_EQ(h.hash(), kSeed);
    }
}

// Session-level commands set their bit and fold nothing; TREE_DISCONNECT folds its tree id.
TEST(Command, CommandsWithoutAFileSetTheirBitAndStoreNothing) {
    for (uint16_t command : {NEGOTIATE, SESSION_SETUP, LOGOFF, CANCEL, ECHO, TREE_DISCONNECT}) {
        for (bool is_response : {false, true}) {
            ParserHarness h;
            Message m = is_response ? response(command, 3, kTree, response_body(command))
                                    : request(command, 3, kTree, request_body(command));
            EXPECT_EQ(h.send(m), 0) << command;
            EXPECT_EQ(h.rec()->commands[0], kCmdLow | bit(command));
            EXPECT_EQ(h.rec()->file_id, 0u);
            EXPECT_EQ(h.hash(), command == TREE_DISCONNECT ? fold_tree(kSeed, kTree) : kSeed);
            EXPECT_EQ(h.message_name(3), nullptr);
            EXPECT_EQ(h.message2_file(3), 0u);
        }
    }
}

TEST(Command, AsyncResponseTakesTheTreeIdOfItsRequest) {
    ParserHarness h;
    ASSERT_EQ(h.send(request(READ, 50, kTree, request_body(READ, kFile))), 0);
    EXPECT_EQ(h.send(async_response(READ, 50, 0xabcdef, read_response_body({1, 2}))), 0);
    EXPECT_EQ(h.rec()->tree_id, kTree);
    EXPECT_EQ(h.rec()->file_id, kFile);
    EXPECT_EQ(h.hash(), fold_tree_file(kSeed, kTree, kFile));

    // A synchronous response keeps the TreeId of its own header.
    EXPECT_EQ(h.send(response(READ, 50, 99, read_response_body({}))), 0);
    EXPECT_EQ(h.rec()->tree_id, 99u);
    EXPECT_EQ(h.rec()->file_id, kFile);
}

// A response whose request was not seen on this connection (another client port) has file id 0.
TEST(Command, ResponseToAnUnseenRequestHasFileIdZero) {
    ParserHarness h;
    ASSERT_EQ(h.send(request(CLOSE, 61, kTree, request_body(CLOSE, kFile))), 0);
    h.ends().client_port += 1;
    EXPECT_EQ(h.send(response(CLOSE, 61, kTree, response_body(CLOSE))), 0);
    EXPECT_EQ(h.rec()->file_id, 0u);
    EXPECT_EQ(h.hash(), fold_tree_file(kSeed, kTree, 0));
}

struct SetInfoCase {
    uint8_t info_type, info_class, pending;
    uint8_t delete_requested;
};

TEST(Command, SetInfoDeleteTest) {
    const SetInfoCase cases[] = {
        {1, 13, 1, 1},  // FileDispositionInformation, DeletePending
        {1, 13, 0, 0},  // disposition cleared
        {2, 13, 1, 0},  // file system information
        {1, 10, 1, 0},  // FileRenameInformation
        {1, 64, 1, 0},  // FileDispositionInformationEx is not looked at
    };
    for (const auto &c : cases) {
        ParserHarness h;
        ASSERT_EQ(h.send(request(SET_INFO, 70, kTree,
                                 set_info_request_body(kFile, c.info_type, c.info_class,
                                                       Bytes{c.pending, 0, 0, 0}))),
                  0);
        uint8_t del = 0xee;
        EXPECT_EQ(h.message2_file(70, nullptr, &del), kFile);
        EXPECT_EQ(del, c.delete_requested);
        EXPECT_EQ(h.rec()->op, c.delete_requested ? 0x7f : 0x3f);
    }
}

TEST(Command, ResponseToADeleteRecordsItsOutcome) {
    const std::pair<uint32_t, uint8_t> cases[] = {
        {kStatusSuccess, 0x7f}, {kStatusAccessDenied, 0xff}, {0x00000100, 0xff}};
    for (auto [status, op] : cases) {
        ParserHarness h;
        ASSERT_EQ(h.send(request(SET_INFO, 71, kTree, set_disposition_body(kFile, true))), 0);
        EXPECT_EQ(h.send(response(SET_INFO, 71, kTree, response_body(SET_INFO), status)), 0);
        EXPECT_EQ(h.rec()->op, op) << std::hex << status;
    }
}

TEST(Command, OplockBreakTakesAMissingTreeIdFromTheFileTable) {
    ParserHarness h;
    {
        smb::SpinGuard g(h.q().filetable->lock);
        filetable_insert(h.q().filetable, nullptr, 0, 2, 1, nullptr, 33, h.client(),
                         h.client_port(), kFile);
    }
    // Server notification: message id all ones, TreeId 0.
    EXPECT_EQ(h.send(response(OPLOCK_BREAK, ~0ull, 0, response_body(OPLOCK_BREAK, kFile))), 0);
    EXPECT_EQ(h.rec()->file_id, kFile);
    EXPECT_EQ(h.rec()->tree_id, 33u);
    EXPECT_EQ(h.hash(), fold_tree_file(kSeed, 33, kFile));
    EXPECT_EQ(h.send(response(OPLOCK_BREAK, ~0ull, 5, response_body(OPLOCK_BREAK, kFile))), 0);
    EXPECT_EQ(h.rec()->tree_id, 5u);

    // The acknowledgment reads the file id but asks no table.
    EXPECT_EQ(h.send(request(OPLOCK_BREAK, 80, 0, request_body(OPLOCK_BREAK, kFile))), 0);
    EXPECT_EQ(h.rec()->file_id, kFile);
    EXPECT_EQ(h.rec()->tree_id, 0u);
    EXPECT_EQ(h.message2_file(80), 0u);

    Bytes short_body = request_body(OPLOCK_BREAK, kFile);
    short_body.pop_back();
    EXPECT_EQ(h.send(response(OPLOCK_BREAK, 81, 0, short_body)), -1);
}

}  // namespace
}  // namespace smb2test
