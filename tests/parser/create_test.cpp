// TREE_CONNECT and CREATE: name capture, request/response correlation, operation codes.
#include "parser_harness.h"

namespace smb2test {
namespace {

constexpr uint32_t kTree = 5;
constexpr uint64_t kFile = 0xF00DF00D0000002Aull;

// `length` bytes of distinct non-surrogate units, with a high surrogate at `surrogate_at`.
Bytes name_bytes(size_t length, std::optional<size_t> surrogate_at = {}) {
    Bytes b(length);
    for (size_t i = 0; i < length; ++i)
        b[i] = uint8_t(i % 2 ? 0x00 : 0x41 + (i / 2) % 26);
    if (surrogate_at) {
        b[*surrogate_at] = 0x3d;
        b[*surrogate_at + 1] = 0xd8;  // U+D83D
        b[*surrogate_at + 2] = 0x00;
        b[*surrogate_at + 3] = 0xde;  // U+DE00
    }
    return b;
}

Name slice(const Bytes &b, size_t from, size_t to) {
    return name_of(Bytes(b.begin() + from, b.begin() + to));
}

struct CaptureCase {
    size_t length;
    std::optional<size_t> surrogate_at;
    size_t keep_from, keep_to;  // kept bytes of the input
};

// Each case's input, copied by `copy` over a buffer of 0xcc, keeps bytes [keep_from, keep_to)
// with zeros behind them.
void expect_kept(void (*copy)(const uint8_t *, uint16_t, uint8_t *),
                 std::initializer_list<CaptureCase> cases) {
    for (const auto &c : cases) {
        const Bytes in = name_bytes(c.length, c.surrogate_at);
        Name out;
        out.fill(0xcc);
        copy(in.data(), uint16_t(in.size()), out.data());
        EXPECT_EQ(out, slice(in, c.keep_from, c.keep_to)) << c.length;
    }
}

// clang-format off
TEST(NameCapture, HeadKeepsTheBeginning) {
    expect_kept(smb2_copy_name_head, {
        {1, {}, 0, 1},      {126, {}, 0, 126},  {127, {}, 0, 127},
        {128, {}, 0, 126},  {130, {}, 0, 126},  {130, 124, 0, 124},  // 63rd unit is high half
        {130, 122, 0, 126}, {128, 124, 0, 124}, {127, 122, 0, 127},
    });
}

TEST(NameCapture, TailKeepsTheEnd) {
    expect_kept(smb2_copy_name_tail, {
        {1, {}, 0, 1},       {126, {}, 0, 126}, {127, {}, 0, 127}, {128, {}, 2, 128},
        {130, {}, 4, 130},   {200, {}, 74, 200},
        {200, 72, 76, 200},  // the unit 128 bytes before the end is a high half
        {130, 2, 6, 130},    {128, 0, 4, 128},
        {200, 74, 74, 200},  // pair kept whole
    });
}
// clang-format on

TEST(TreeConnect, PathTravelsFromRequestToTreeTable) {
    ParserHarness h;
    const Bytes path = name_bytes(130, 124);  // \\server\share... cut before the pair
    EXPECT_EQ(h.send(request(TREE_CONNECT, 2, 0, tree_connect_request_body(path))), 2);
    EXPECT_EQ(h.hash(), kSeed);
    uint8_t op = 0;
    uint32_t tree = 99;
    EXPECT_EQ(name_of(h.message_name(2, &op, &tree)), slice(path, 0, 124));
    EXPECT_EQ(op, 255);
    EXPECT_EQ(tree, 0u);
    EXPECT_EQ(h.send(response(TREE_CONNECT, 2, kTree, tree_connect_response_body())), 0);
    EXPECT_EQ(h.rec()->commands[0], kCmdLow | 0x800);
    EXPECT_EQ(h.rec()->commands[1], kCmdLow | 0x800);
    EXPECT_EQ(h.hash(), fold_tree(kSeed, kTree));
    uint32_t pending[2] = {1, 1};
    EXPECT_EQ(name_of(h.tree_name(kTree, pending)), slice(path, 0, 124));
    EXPECT_EQ(pending[1], 0u);  // a message of its own parks no masks
}

TEST(TreeConnect, EmptyPathIsStoredButNeverReachesTheTreeTable) {
    ParserHarness h;
    EXPECT_EQ(h.send(request(TREE_CONNECT, 2, 0, tree_connect_request_body({}))), 2);
    EXPECT_EQ(name_of(h.message_name(2)), Name{});
    EXPECT_EQ(h.send(response(TREE_CONNECT, 2, kTree, tree_connect_response_body())), 0);
    EXPECT_EQ(h.tree_name(kTree), nullptr);
    EXPECT_EQ(h.hash(), fold_tree(kSeed, kTree));
    EXPECT_EQ(h.rec()->commands[1], kCmdLow | 0x800);
}

TEST(TreeConnect, PathMustFitTheBody) {
    ParserHarness h;
    Bytes body = tree_connect_request_body(name_bytes(20));  // 28 bytes
    EXPECT_EQ(h.send(request(TREE_CONNECT, 3, 0, Bytes(body.begin(), body.end() - 1))), -1);
    EXPECT_EQ(h.message_name(3), nullptr);
    EXPECT_EQ(h.send(request(TREE_CONNECT, 3, 0, body)), 2);
    // PathLength 0 still needs the nine bytes of the fixed part.
    Bytes empty = tree_connect_request_body({});
    empty.pop_back();
    EXPECT_EQ(h.send(request(TREE_CONNECT, 4, 0, empty)), -1);
}

TEST(Create, RequestIsStoredWithItsOperation) {
    ParserHarness h;
    const Bytes name = name_bytes(200);
    EXPECT_EQ(h.send(request(CREATE, 10, kTree,
                             create_request_body(name, FILE_OPEN_IF, kFileDeleteOnClose))),
              2);
    EXPECT_EQ(h.rec()->op, 0x43);
    uint8_t op = 0;
    uint32_t tree = 0;
    EXPECT_EQ(name_of(h.message_name(10, &op, &tree)), slice(name, 74, 200));
    EXPECT_EQ(op, 0x43);
    EXPECT_EQ(tree, kTree);
}

TEST(Create, RequestTooShortStoresNothing) {
    ParserHarness h;
    Bytes body = create_request_body(name_bytes(10), FILE_OVERWRITE, kFileDeleteOnClose);
    EXPECT_EQ(h.send(request(CREATE, 11, kTree, Bytes(body.begin(), body.end() - 1))), -1);
    EXPECT_EQ(h.rec()->op, 0x44);  // the fixed part was there
    EXPECT_EQ(h.message_name(11), nullptr);
    EXPECT_EQ(h.send(request(CREATE, 12, kTree, Bytes(body.begin(), body.begin() + 56))), -1);
    EXPECT_EQ(h.rec()->op, 0x3f);
}

struct FailureCase {
    std::optional<uint32_t> disposition;  // none: the request was never seen
    uint32_t options;
    uint8_t op;
};

TEST(Create, FailureCodes) {
    // clang-format off
    const FailureCase cases[] = {
        {{}, 0, 0xbf}, {FILE_SUPERSEDE, 0, 0x80}, {FILE_OPEN, 0, 0x81}, {FILE_CREATE, 0, 0x82},
        {FILE_OPEN_IF, 0, 0x84}, {FILE_OVERWRITE, 0, 0x83}, {FILE_OVERWRITE_IF, 0, 0x85},
        {FILE_SUPERSEDE, kFileDeleteOnClose, 0xc0}, {FILE_OPEN_IF, kFileDeleteOnClose, 0xc4},
        {FILE_OVERWRITE, kFileDeleteOnClose, 0xc3},
        {FILE_OVERWRITE_IF, kFileDeleteOnClose | kFileNonDirectory, 0xc5},
    };
    // clang-format on
    for (const auto &c : cases) {
        ParserHarness h;
        if (c.disposition) {
            ASSERT_EQ(h.send(request(CREATE, 20, kTree,
                                     create_request_body(utf16(std::string_view("a.txt")),
                                                         *c.disposition, c.options))),
                      2);
        }
        EXPECT_EQ(
            h.send(response(CREATE, 20, kTree, response_body(ECHO), kStatusObjectNameNotFound)), 0);
        EXPECT_EQ(h.rec()->op, c.op) << std::hex << int(c.op);
        EXPECT_EQ(h.rec()->commands[1], kCmdLow | 0x2000);
        EXPECT_EQ(h.rec()->file_id, 0u);
        EXPECT_EQ(h.hash(), fold_message(fold_tree_file(kSeed, kTree, 0), 20));
        if (c.disposition) {
            ASSERT_NE(h.rec()->file_name, nullptr);
            EXPECT_EQ(name_of(h.rec()->file_name), name_of(utf16(std::string_view("a.txt"))));
        } else {
            EXPECT_EQ(h.rec()->file_name, nullptr);
        }
    }
}

TEST(Create, SuccessFilesTheNameWithTypeAndOperation) {
    struct Case {
        uint32_t options, action, attributes;
        uint8_t op, type;
    };
    const Case cases[] = {
        {0, FILE_OPENED, kAttributeArchive, 0x01, 2},
        {kFileDeleteOnClose, FILE_OPENED, kAttributeArchive, 0x41, 2},
        {0, FILE_CREATED, kAttributeDirectory, 0x02, 1},
        {kFileDeleteOnClose, FILE_OVERWRITTEN, kAttributeDirectory | 0x20, 0x43, 1},
    };
    const Bytes name = utf16(std::string_view("dir\\a.txt"));
    for (const auto &c : cases) {
        ParserHarness h;
        ASSERT_EQ(
            h.send(request(CREATE, 30, kTree, create_request_body(name, FILE_OPEN_IF, c.options))),
            2);
        ASSERT_EQ(h.send(response(CREATE, 30, kTree,
                                  create_response_body(c.action, c.attributes, kFile))),
                  0);
        EXPECT_EQ(h.rec()->op, c.op);
        EXPECT_EQ(h.rec()->file_type, c.type);
        EXPECT_EQ(h.rec()->file_id, kFile);
        EXPECT_EQ(h.rec()->commands[1], kCmdLow | 0x2000);
        EXPECT_EQ(h.hash(), fold_tree_file(kSeed, kTree, kFile));
        const auto f = h.file(kFile);
        ASSERT_TRUE(f.found);
        EXPECT_EQ(f.name, name_of(name));
        EXPECT_EQ(f.op, c.op);
        EXPECT_EQ(f.type, c.type);
        EXPECT_EQ(f.name_empty, 0);
        EXPECT_EQ(f.pending[1], 0u);
    }
}

TEST(Create, SuccessWithoutNameMarksTheShareRoot) {
    ParserHarness h;
    ASSERT_EQ(h.send(request(CREATE, 31, kTree, create_request_body({}, FILE_OPEN))), 2);
    ASSERT_EQ(h.send(response(CREATE, 31, kTree,
                              create_response_body(FILE_OPENED, kAttributeDirectory, kFile))),
              0);
    const auto f = h.file(kFile);
    ASSERT_TRUE(f.found);
    EXPECT_EQ(f.name_empty, 1);
}

TEST(Create, SuccessForAnUnknownRequestLeavesTheFileTableAlone) {
    ParserHarness h;
    ASSERT_EQ(h.send(response(CREATE, 32, kTree,
                              create_response_body(FILE_CREATED, kAttributeArchive, kFile))),
              0);
    EXPECT_EQ(h.rec()->op, 0x02);
    EXPECT_EQ(h.rec()->file_type, 2);
    EXPECT_EQ(h.rec()->commands[1], kCmdLow | 0x2000);
    EXPECT_FALSE(h.file(kFile).found);
}

// A response without create contexts has an 88-byte body: taken only with short-create when it
// ends the message (alone, or last in a chain); 87 bytes are malformed either way. A message
// with others behind it in a chain measures its body to the end of the chain.
TEST(Create, ShortResponseBodyIsTakenOnlyWithTheOptIn) {
    enum class Where { alone, first_of_related_chain, later_in_unrelated_chain };
    struct Case {
        Where where;
        size_t body;
        uint32_t short_create;
        bool named;
    };
    const Case cases[] = {
        {Where::alone, 89, 0, true},
        {Where::alone, 88, 0, false},
        {Where::alone, 88, 1, true},
        {Where::alone, 87, 1, false},
        {Where::first_of_related_chain, 88, 0, true},
        {Where::first_of_related_chain, 88, 1, true},
        {Where::later_in_unrelated_chain, 88, 0, false},
        {Where::later_in_unrelated_chain, 88, 1, true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(testing::Message() << "case " << (&c - cases));
        ParserHarness h;
        h.q().short_create = c.short_create;
        const Message open =
            request(CREATE, 40, kTree, create_request_body(name_bytes(3), FILE_OPEN));
        Bytes body = create_response_body(FILE_OPENED, kAttributeArchive, kFile);
        body.resize(c.body);
        const Message granted = response(CREATE, 40, kTree, body);
        switch (c.where) {
            case Where::alone:
                ASSERT_EQ(h.send(open), 2);
                EXPECT_EQ(h.send(granted), c.named ? 0 : -1);
                break;
            case Where::first_of_related_chain: {
                Message read = request(READ, 41, kTree, request_body(READ, ~0ull));
                read.header.flags |= kRelated;
                ASSERT_EQ(h.send(compound({open, read})), 2);
                Message data = response(READ, 41, kTree, read_response_body({1, 2}));
                data.header.flags |= kRelated;
                h.send(compound({granted, data}));
                EXPECT_EQ(h.message2_file(41) == kFile, c.named);
                break;
            }
            case Where::later_in_unrelated_chain:
                ASSERT_EQ(h.send(compound({request(ECHO, 39, 0, request_body(ECHO)), open})), 0);
                h.send(compound({response(ECHO, 39, 0, response_body(ECHO)), granted}));
                break;
        }
        EXPECT_EQ(h.file(kFile).found, c.named);
    }
}

TEST(Create, LinkedMessageIdsGetTheNewFileId) {
    struct Case {
        uint64_t mid, linked;
        std::vector<uint64_t> entries;
    };
    const Case cases[] = {
        {40, 43, {41, 42, 43}},
        {40, 47, {41, 42, 43, 44, 45, 46, 47}},
        {40, 48, {}},
        {40, 40, {}},
        {40, 0, {}},
        {40, 39, {}},
        {~0ull, 2, {0, 1, 2}},  // ids wrap
    };
    for (const auto &c : cases) {
        ParserHarness h;
        ASSERT_EQ(h.send(request(CREATE, c.mid, kTree,
                                 create_request_body(utf16(std::string_view("f")), FILE_OPEN))),
                  2);
        messagetable_add_command(h.q().messagetable, h.client(), h.client_port(), c.mid, 0x000160ff,
                                 c.linked);
        ASSERT_EQ(
            h.send(response(CREATE, c.mid, kTree, create_response_body(FILE_OPENED, 0, kFile))), 0);
        EXPECT_EQ(h.rec()->commands[1], kCmdLow | 0x000160ff | 0x2000);
        for (uint64_t m = c.mid - 2; m != c.mid + 10; ++m) {
            const bool expected =
                std::find(c.entries.begin(), c.entries.end(), m) != c.entries.end();
            EXPECT_EQ(h.message2_file(m), expected ? kFile : 0) << c.linked << " " << m;
        }
    }
}

TEST(Create, AsyncResponseTakesTheTreeIdOfItsRequest) {
    ParserHarness h;
    ASSERT_EQ(h.send(request(CREATE, 50, kTree,
                             create_request_body(utf16(std::string_view("x")), FILE_CREATE))),
              2);
    ASSERT_EQ(
        h.send(async_response(CREATE, 50, 0x77, create_response_body(FILE_CREATED, 0, kFile))), 0);
    EXPECT_EQ(h.rec()->tree_id, kTree);
    EXPECT_EQ(h.hash(), fold_tree_file(kSeed, kTree, kFile));

    // A synchronous response keeps its own TreeId; the stored request is found again.
    ASSERT_EQ(h.send(response(CREATE, 50, 8, create_response_body(FILE_CREATED, 0, kFile))), 0);
    EXPECT_EQ(h.rec()->tree_id, 8u);
    ASSERT_EQ(h.send(async_response(CREATE, 50, 0x77, response_body(ECHO), kStatusAccessDenied)),
              0);
    EXPECT_EQ(h.rec()->tree_id, kTree);
    EXPECT_EQ(h.rec()->op, 0x82);
}

}  // namespace
}  // namespace smb2test
