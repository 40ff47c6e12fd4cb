// SMB2 compound chains, related and unrelated, in both directions.
#include "parser_harness.h"

namespace smb2test {
namespace {

constexpr uint32_t kTree = 5;
constexpr uint64_t kFile = 0xF1;
const Bytes kName = utf16(std::string_view("a.txt"));

Message related(Message m) {
    m.header.flags |= kRelated;
    return m;
}

// CREATE, READ, CLOSE as a client sends them: the later two name no file of their own.
Bytes create_read_close_request() {
    return compound({request(CREATE, 10, kTree, create_request_body(kName, FILE_OPEN)),
                     related(request(READ, 11, kTree, request_body(READ, ~0ull))),
                     related(request(CLOSE, 12, kTree, request_body(CLOSE, ~0ull)))});
}

Bytes create_read_close_response(uint32_t second_status = kStatusSuccess) {
    return compound(
        {response(CREATE, 10, kTree, create_response_body(FILE_OPENED, kAttributeArchive, kFile)),
         related(response(READ, 11, kTree, read_response_body({1, 2, 3}), second_status)),
         related(response(CLOSE, 12, kTree, response_body(CLOSE)))});
}

TEST(RelatedChain, RequestChainLinksItsMessagesToTheCreateAndTheResponseSpreadsTheFileId) {
    ParserHarness h;
    EXPECT_EQ(h.send(create_read_close_request()), 2);
    EXPECT_EQ(h.rec()->commands[0], 0x000160ffu);
    EXPECT_EQ(h.rec()->message_id, 12u);
    EXPECT_EQ(h.hash(), kSeed);
    uint32_t commands = 0;
    uint64_t linked = 0;
    ASSERT_NE(h.message_name(10, nullptr, nullptr, &commands, &linked), nullptr);
    EXPECT_EQ(commands, 0x000160ffu);
    EXPECT_EQ(linked, 12u);

    EXPECT_EQ(h.send(create_read_close_response()), 0);
    EXPECT_EQ(h.rec()->commands[0], 0x000160ffu);
    EXPECT_EQ(h.rec()->commands[1], 0x000160ffu);
    EXPECT_EQ(h.rec()->message_id, 12u);
    EXPECT_EQ(h.rec()->file_id, kFile);
    EXPECT_EQ(h.rec()->op, 0x01);
    EXPECT_EQ(h.hash(), fold_tree_file(kSeed, kTree, kFile));  // the first message only
    EXPECT_EQ(h.message2_file(11), kFile);
    EXPECT_EQ(h.message2_file(12), kFile);
    EXPECT_EQ(h.file(kFile).name, name_of(kName));
}

TEST(RelatedChain, DeleteInTheChainMarksTheOperation) {
    for (auto [status, op] : {std::pair{kStatusSuccess, 0x41}, {kStatusAccessDenied, 0xc1}}) {
        ParserHarness h;
        ASSERT_EQ(h.send(compound(
                      {request(CREATE, 10, kTree, create_request_body(kName, FILE_OPEN)),
                       related(request(SET_INFO, 11, kTree, set_disposition_body(~0ull, true))),
                       related(request(CLOSE, 12, kTree, request_body(CLOSE)))})),
                  2);
        EXPECT_EQ(h.rec()->op, 0x41);
        uint8_t del = 0;
        EXPECT_EQ(h.message2_file(11, nullptr, &del), 0u);  // no file id is known yet
        EXPECT_EQ(del, 1);
        ASSERT_EQ(h.send(compound(
                      {response(CREATE, 10, kTree, create_response_body(FILE_OPENED, 0, kFile)),
                       related(response(SET_INFO, 11, kTree, response_body(SET_INFO), status)),
                       related(response(CLOSE, 12, kTree, response_body(CLOSE)))})),
                  0);
        EXPECT_EQ(h.rec()->op, op);
        EXPECT_EQ(h.rec()->commands[0], kCmdLow | bit(CREATE) | bit(SET_INFO) | bit(CLOSE));
        // The linked entry did not displace the delete request's record.
        del = 0;
        EXPECT_EQ(h.message2_file(11, nullptr, &del), 0u);
        EXPECT_EQ(del, 1);
    }
}

TEST(RelatedChain, ResponsesOnTheFileAreCheckedForADeleteOnlyAfterASetInfo) {
    ParserHarness h;
    ASSERT_EQ(h.send(request(CREATE, 10, kTree, create_request_body(kName, FILE_OPEN))), 2);
    // A delete mark left under the CLOSE's message id by some earlier request.
    messagetable2_insert(h.q().messagetable2, kFile, kTree, h.client(), h.client_port(), 11, 1);
    ASSERT_EQ(
        h.send(compound({response(CREATE, 10, kTree, create_response_body(FILE_OPENED, 0, kFile)),
                         related(response(CLOSE, 11, kTree, response_body(CLOSE)))})),
        0);
    EXPECT_EQ(h.rec()->op, 0x01);
}

TEST(RelatedChain, LaterTreeConnectAndCreateParkTheirCommandBits) {
    ParserHarness h;
    const Bytes share = utf16(std::string_view("\\\\srv\\ipc$"));
    ASSERT_EQ(
        h.send(compound({request(NEGOTIATE, 1, 0, request_body(NEGOTIATE)),
                         related(request(TREE_CONNECT, 2, 0, tree_connect_request_body(share))),
                         related(request(CREATE, 3, 0, create_request_body(kName, FILE_OPEN)))})),
        0);
    ASSERT_EQ(h.send(compound({response(NEGOTIATE, 1, kTree, response_body(NEGOTIATE)),
                               related(response(TREE_CONNECT, 2, 0, tree_connect_response_body())),
                               related(response(CREATE, 3, 0,
                                                create_response_body(FILE_OPENED, 0x10, kFile)))})),
              0);
    EXPECT_EQ(h.rec()->file_type, 1);
    EXPECT_EQ(h.rec()->file_id, kFile);
    EXPECT_EQ(h.rec()->commands[0], kCmdLow | bit(NEGOTIATE) | bit(TREE_CONNECT) | bit(CREATE));
    uint32_t pending[2] = {};
    EXPECT_EQ(name_of(h.tree_name(kTree, pending)), name_of(share));  // the first's TreeId
    EXPECT_EQ(pending[1], 0x800u);
    const auto f = h.file(kFile);
    EXPECT_EQ(f.name, name_of(kName));
    EXPECT_EQ(f.pending[1], 0x2000u);
}

TEST(RelatedChain, LaterAsyncHeaderIsNotReadForTheTreeId) {
    for (bool first_async : {false, true}) {
        ParserHarness h;
        ASSERT_EQ(h.send(request(CREATE, 3, kTree, create_request_body(kName, FILE_OPEN))), 2);
        Message first = first_async ? async_response(ECHO, 2, 9, response_body(ECHO))
                                    : response(ECHO, 2, 0, response_body(ECHO));
        Message later = async_response(CREATE, 3, 9, create_response_body(FILE_OPENED, 0, kFile));
        later.header.flags |= kRelated;
        ASSERT_EQ(h.send(compound({first, later})), 0);
        EXPECT_EQ(h.rec()->tree_id, first_async ? kTree : 0u);
    }
}

// A later OPLOCK_BREAK response in a related chain gives a record that names no tree the tree
// its file was opened on.
TEST(RelatedChain, LaterOplockBreakTakesTheTreeOfTheFile) {
    for (bool with_break : {false, true}) {
        ParserHarness h;
        ASSERT_EQ(h.send(request(CREATE, 10, kTree, create_request_body(kName, FILE_OPEN))), 2);
        ASSERT_EQ(h.send(response(CREATE, 10, kTree, create_response_body(FILE_OPENED, 0, kFile))),
                  0);
        ASSERT_EQ(h.send(request(READ, 20, 0, request_body(READ, kFile))), 0);
        std::vector<Message> chain = {response(READ, 20, 0, read_response_body({1, 2, 3}))};
        if (with_break)
            chain.push_back(
                related(response(OPLOCK_BREAK, 21, 0, response_body(OPLOCK_BREAK, kFile))));
        ASSERT_EQ(h.send(compound(chain)), 0);
        EXPECT_EQ(h.rec()->file_id, kFile);
        EXPECT_EQ(h.rec()->tree_id, with_break ? kTree : 0u);
    }
}

TEST(Chains, SkippedCommandsSetNoBitAndStoreNothing) {
    for (uint32_t mode : {0u, kRelated}) {
        for (uint16_t command : {0, 1, 2, 12, 13, 19}) {
            ParserHarness h;
            Message later = request(command, 2, kTree, request_body(CLOSE, kFile), mode);
            ASSERT_EQ(h.send(compound({request(ECHO, 1, kTree, request_body(ECHO)), later})), 0);
            EXPECT_EQ(h.rec()->commands[0], kCmdLow | bit(ECHO)) << command;
            EXPECT_EQ(h.message2_file(2), 0u);
        }
        ParserHarness h;
        ASSERT_EQ(h.send(compound(
                      {request(ECHO, 1, kTree, request_body(ECHO)),
                       request(TREE_DISCONNECT, 2, kTree, request_body(TREE_DISCONNECT), mode)})),
                  0);
        EXPECT_EQ(h.rec()->commands[0], kCmdLow | bit(ECHO) | (mode ? 0x1000 : 0));
    }
}

TEST(UnrelatedChain, LaterRequestsParkTheirCommandsAndTheFirstFillsTheRecord) {
    ParserHarness h;
    EXPECT_EQ(h.send(compound({request(READ, 20, kTree, request_body(READ, 0xA)),
                               request(READ, 21, kTree, request_body(READ, 0xB))})),
              0);
    EXPECT_EQ(h.rec()->file_id, 0xAu);
    EXPECT_EQ(h.rec()->message_id, 20u);
    EXPECT_EQ(h.rec()->commands[0], kCmdLow | bit(READ));
    EXPECT_EQ(h.hash(), fold_tree_file(kSeed, kTree, 0xA));
    EXPECT_EQ(h.message2_file(20), 0xAu);
    EXPECT_EQ(h.message2_file(21), 0xBu);
    const auto b = h.file(0xB);
    ASSERT_TRUE(b.found);
    EXPECT_EQ(b.pending[0], 0x000100ffu);
    EXPECT_EQ(b.pending[1], 0u);
    EXPECT_EQ(b.op, 63);
    EXPECT_FALSE(h.file(0xA).found);
}

TEST(UnrelatedChain, LaterSetInfoResponseRecordsTheDeleteOutcome) {
    for (auto [status, flag] : {std::pair{kStatusSuccess, 0}, {kStatusAccessDenied, 1}}) {
        ParserHarness h;
        ASSERT_EQ(
            h.send(compound({request(ECHO, 30, 0, request_body(ECHO)),
                             request(SET_INFO, 31, kTree, set_disposition_body(kFile, true))})),
            0);
        ASSERT_EQ(
            h.send(compound({response(ECHO, 30, 0, response_body(ECHO)),
                             response(SET_INFO, 31, kTree, response_body(SET_INFO), status)})),
            0);
        const auto f = h.file(kFile);
        EXPECT_EQ(f.pending[0], 0x020000ffu);  // from the request walk
        EXPECT_EQ(f.pending[1], 0x020000ffu);
        EXPECT_EQ(h.delete_flag(kFile, uint8_t(flag)), 1);
        EXPECT_EQ(h.delete_flag(kFile, uint8_t(1 - flag)), 0);
    }
}

TEST(UnrelatedChain, LaterTreeConnectAndCreate) {
    ParserHarness h;
    const Bytes share = utf16(std::string_view("\\\\srv\\data"));
    ASSERT_EQ(
        h.send(compound({request(ECHO, 1, 0, request_body(ECHO)),
                         request(TREE_CONNECT, 2, 0, tree_connect_request_body(share)),
                         request(CREATE, 3, kTree,
                                 create_request_body(kName, FILE_OPEN, kFileDeleteOnClose))})),
        0);
    uint8_t op = 0;
    uint32_t tree = 0;
    ASSERT_NE(h.message_name(3, &op, &tree), nullptr);
    EXPECT_EQ(op, 0x41);
    EXPECT_EQ(tree, kTree);
    ASSERT_EQ(h.send(compound(
                  {response(ECHO, 1, 0, response_body(ECHO)),
                   response(TREE_CONNECT, 2, kTree, tree_connect_response_body()),
                   async_response(CREATE, 3, 4, create_response_body(FILE_OPENED, 0, kFile))})),
              0);
    uint32_t pending[2] = {};
    EXPECT_EQ(name_of(h.tree_name(kTree, pending)), name_of(share));
    EXPECT_EQ(pending[1], 0x800u);
    const auto f = h.file(kFile);
    EXPECT_EQ(f.name, name_of(kName));
    EXPECT_EQ(f.op, 0x41);
    EXPECT_EQ(f.type, 2);
    EXPECT_EQ(f.pending[1], 0x2000u);
    // The async response took its request's tree id.
    EXPECT_EQ(filetable_get_tree_id(h.q().filetable, h.client(), h.client_port(), kFile), kTree);
}

// NextCommand values that leave no room for the header they announce.
TEST(Chains, MalformedNextCommand) {
    struct Case {
        uint32_t mode;
        bool response;
    };
    for (const Case c :
         {Case{0, false}, Case{0, true}, Case{kRelated, false}, Case{kRelated, true}}) {
        const uint32_t dir = c.response ? kResponse : 0;
        auto msg = [&](uint16_t command, uint64_t id, uint64_t file) {
            Message m = request(command, id, kTree, request_body(command, file), dir | c.mode);
            if (c.response) m.body = response_body(command);
            return m;
        };
        // The first NextCommand points past the data: nothing is parsed.
        const uint32_t avail = uint32_t(64 + msg(CLOSE, 1, 0xA).body.size());
        for (uint32_t next : {avail - 63, avail, avail + 8, 0xFFFFFFF8u, 0x80000000u}) {
            ParserHarness h;
            Message first = msg(CLOSE, 1, 0xA);
            first.header.next_command = next;
            EXPECT_EQ(h.send(encode(first)), -1) << next;
            EXPECT_EQ(h.rec()->version, 0);
            EXPECT_EQ(h.hash(), kSeed);
            EXPECT_EQ(h.message2_file(1), 0u);
        }
        // The third message's NextCommand points past the data.
        ParserHarness h;
        Message third = msg(CLOSE, 3, 0xC);
        third.header.next_command = 4096;
        EXPECT_EQ(h.send(compound({msg(CLOSE, 1, 0xA), msg(CLOSE, 2, 0xB), third})), -1);
        if (c.mode == kRelated) {  // the first message was parsed and folded first
            EXPECT_EQ(h.rec()->version, 2);
            EXPECT_EQ(h.rec()->message_id, 3u);
            EXPECT_EQ(h.hash(), fold_tree_file(kSeed, kTree, c.response ? 0 : 0xA));
        } else {  // the later ones had their effect, the first was never parsed
            EXPECT_EQ(h.rec()->version, 0);
            EXPECT_EQ(h.hash(), kSeed);
            if (!c.response) {
                EXPECT_EQ(h.message2_file(1), 0u);
                EXPECT_EQ(h.message2_file(2), 0xBu);
                EXPECT_EQ(h.message2_file(3), 0xCu);
            } else {  // responses to requests never seen report under file id 0
                EXPECT_EQ(h.file(0).pending[1], kCmdLow | bit(CLOSE));
            }
        }
    }
}

TEST(Chains, FirstNextCommandWithoutRoomForAHeader) {
    ParserHarness h;
    Message first = request(CLOSE, 1, kTree, Bytes(6, 0));  // 70 bytes of SMB2
    first.header.next_command = 8;
    EXPECT_EQ(h.send(encode(first)), -1);
    EXPECT_EQ(h.rec()->version, 0);
}

TEST(UnrelatedChain, SessionLengthTooSmallForTheFirstMessage) {
    ParserHarness h;
    const Bytes chain = compound({request(CLOSE, 1, kTree, request_body(CLOSE, 0xA)),
                                  request(CLOSE, 2, kTree, request_body(CLOSE, 0xB))});
    EXPECT_EQ(h.parse_to_server(session_with_word(chain, 56)), -1);  // total length 60
    EXPECT_EQ(h.rec()->version, 0);
    EXPECT_EQ(h.message2_file(2), 0xBu);
    EXPECT_EQ(h.message2_file(1), 0u);
}

}  // namespace
}  // namespace smb2test
