// The flow hash of every packet of one SMB conversation, computed from the identifier bytes
// that each message must fold in, spelled out byte by byte.
#include "parser_harness.h"

namespace smb2test {
namespace {

uint64_t crc(std::initializer_list<uint8_t> bytes, uint64_t seed) {
    const std::vector<uint8_t> b(bytes);
    return corvaneexp_crc64(b.data(), int32_t(b.size()), seed);
}

struct Step {
    const char *what;
    Bytes payload;
    bool to_server;
    uint64_t seed;  // the host's flow hash of the packet
    int32_t result;
    uint64_t expected;  // the flow hash after parsing
};

TEST(FlowHash, ExactValuesOverAConversation) {
    constexpr uint32_t tree = 0x04030201;
    constexpr uint64_t file = 0x1817161514131211;
    const Bytes share = utf16(std::string_view("\\\\srv\\share"));
    const Bytes name = utf16(std::string_view("dir\\file.bin"));
    const uint64_t s1 = 0x1111111111111111, s2 = 0x2222222222222222;

    // tree id, then tree id and file id, little-endian
    const std::initializer_list<uint8_t> tree_bytes = {0x01, 0x02, 0x03, 0x04};
    const std::initializer_list<uint8_t> tree_file = {0x01, 0x02, 0x03, 0x04, 0x11, 0x12,
                                                      0x13, 0x14, 0x15, 0x16, 0x17, 0x18};
    const std::initializer_list<uint8_t> tree_no_file = {0x01, 0x02, 0x03, 0x04, 0, 0,
                                                         0,    0,    0,    0,    0, 0};

    const Bytes big_write =
        session(encode(request(WRITE, 9, tree, write_request_body(file, Bytes(3000, 1)))));
    const auto write_segments = split(big_write, {1000});

    std::vector<Step> steps;
    auto add = [&](const char *what, Bytes payload, bool to_server, uint64_t seed, int32_t result,
                   uint64_t expected) {
        steps.push_back({what, std::move(payload), to_server, seed, result, expected});
    };
    add("negotiate", session(encode(request(NEGOTIATE, 0, 0, request_body(NEGOTIATE)))), true, s1,
        0, s1);
    add("tree connect request",
        session(encode(request(TREE_CONNECT, 1, 0, tree_connect_request_body(share)))), true, s1, 2,
        s1);
    add("tree connect response",
        session(encode(response(TREE_CONNECT, 1, tree, tree_connect_response_body()))), false, s2,
        0, crc(tree_bytes, s2));
    add("create request",
        session(encode(request(CREATE, 2, tree, create_request_body(name, FILE_OPEN_IF)))), true,
        s1, 2, s1);
    add("create response",
        session(encode(response(CREATE, 2, tree, create_response_body(FILE_CREATED, 0, file)))),
        false, s2, 0, crc(tree_file, s2));
    add("read request", session(encode(request(READ, 3, tree, request_body(READ, file)))), true, s1,
        0, crc(tree_file, s1));
    add("read response", session(encode(response(READ, 3, tree, read_response_body({9})))), false,
        s2, 0, crc(tree_file, s2));
    add("failed create",
        session(encode(
            response(CREATE, 0x0807060504030201, tree, response_body(ECHO), kStatusAccessDenied))),
        false, s2, 0, crc({0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08}, crc(tree_no_file, s2)));
    add("first segment of a write", write_segments[0], true, s1, 5, crc(tree_file, s1));
    add("second segment of a write", write_segments[1], true, s1, 0, crc(tree_file, s1));
    add("smb1", smb1_message(0x25), true, s1, 0, crc({0x25, 0, 0, 0}, s1));
    add("encrypted", transform_message(100), false, s2, 0, s2);
    add("tree disconnect",
        session(encode(request(TREE_DISCONNECT, 10, tree, request_body(TREE_DISCONNECT)))), true,
        s1, 0, crc(tree_bytes, s1));
    add("too short", Bytes(session(encode(request(READ, 11, tree, Bytes(48, 0))))), true, s1, -1,
        s1);

    ParserHarness h;
    for (const Step &s : steps) {
        Packet p = s.to_server ? h.to_server(s.payload) : h.to_client(s.payload);
        p.pkt().flow_hash = s.seed;
        Record rec;
        EXPECT_EQ(h.parse(p, rec), s.result) << s.what;
        EXPECT_EQ(p.pkt().flow_hash, s.expected) << s.what;
    }
}

}  // namespace
}  // namespace smb2test
