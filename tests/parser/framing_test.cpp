// Payload entry: session framing, signatures, reassembly of compound messages and continuation
// segments of single messages.
#include "parser_harness.h"

namespace smb2test {
namespace {

constexpr uint32_t kTree = 3;
constexpr uint64_t kFileA = 0xA0A0, kFileB = 0xB0B0;

// An unrelated chain CLOSE(A) + WRITE(B) whose session message is exactly `total` bytes.
Bytes write_close_chain(size_t total) {
    auto chain = [](size_t data) {
        return compound({request(CLOSE, 40, kTree, request_body(CLOSE, kFileA)),
                         request(WRITE, 41, kTree, write_request_body(kFileB, Bytes(data, 0x5a)))});
    };
    const size_t base = chain(0).size() + 4;
    Bytes framed = session(chain(total - base));
    EXPECT_EQ(framed.size(), total);
    return framed;
}

// A single WRITE request whose session message is `total` bytes.
Bytes single_write(size_t total, uint64_t message_id = 50) {
    return session(encode(request(WRITE, message_id, kTree,
                                  write_request_body(kFileA, Bytes(total - 4 - 64 - 48, 0x33)))));
}

TEST(Framing, PayloadWithoutSignature) {
    ParserHarness h;
    const Bytes seven(7, 0x42);
    EXPECT_EQ(h.parse_to_server(seven), 3);

    h.ends().server_port = 8445;  // neither port is the configured one
    EXPECT_EQ(h.parse_to_server(seven), 1);

    ParserHarness all_ports(0);
    EXPECT_EQ(all_ports.parse_to_server(Bytes(100, 0)), 1);
    EXPECT_EQ(all_ports.rec()->version, 0);
}

TEST(Framing, HeadersTooShortForTheirSignature) {
    ParserHarness h;
    Bytes smb2 = session(encode(request(ECHO, 1, 0, request_body(ECHO))));
    smb2.resize(67);
    Bytes smb1 = smb1_message(0x72);
    const Bytes smb1_header_only(smb1.begin(), smb1.begin() + 36);
    smb1.resize(35);
    for (auto [payload, expected] : {std::pair{smb2, -1}, {smb1, -1}, {smb1_header_only, 0}}) {
        EXPECT_EQ(h.parse_to_server(payload), expected) << payload.size();
    }
}

TEST(Framing, Smb1RecordsItsCommandCode) {
    ParserHarness h;
    EXPECT_EQ(h.parse_to_server(smb1_message(0x72)), 0);
    EXPECT_EQ(h.rec()->version, 1);
    EXPECT_EQ(h.rec()->commands[0], 0x72u);
    EXPECT_EQ(h.rec()->commands[1], kCmdLow);
    EXPECT_EQ(h.rec()->is_response, 0xff);
    const uint8_t folded[4] = {0x72, 0, 0, 0};
    EXPECT_EQ(h.hash(), corvaneexp_crc64(folded, 4, kSeed));
}

TEST(Framing, TransformHeaderMarksEncryptedTraffic) {
    ParserHarness h;
    EXPECT_EQ(h.parse_to_client(transform_message(300)), 0);
    EXPECT_EQ(h.rec()->version, 2);
    EXPECT_EQ(h.rec()->commands[0], 0x800000ffu);
    EXPECT_EQ(h.hash(), kSeed);
}

TEST(Framing, SessionLengthDecidesWhetherTheMessageIsComplete) {
    ParserHarness h;
    const Bytes whole = single_write(260);
    ASSERT_EQ(Bytes(whole.begin(), whole.begin() + 4), (Bytes{0, 0, 1, 0}));
    EXPECT_EQ(h.parse_to_server(whole), 0);
    EXPECT_EQ(h.parse_to_server(Bytes(whole.begin(), whole.begin() + 200)), 5);

    // A length word whose +4 wraps gives a tiny total: complete at once.
    Bytes wrapped = whole;
    wrapped[0] = wrapped[1] = wrapped[2] = 0xff;
    wrapped[3] = 0xfd;
    EXPECT_EQ(h.parse_to_server(wrapped), 0);
}

TEST(Reassembly, CompoundOverThreeSegmentsCarriesTheEarlierCounters) {
    ParserHarness h;
    const auto segments = split(write_close_chain(8192), {1500, 3000});
    ASSERT_EQ(segments.size(), 3u);
    const uint64_t counters[3] = {1000, 20000, 300000};
    for (size_t i = 0; i < 3; ++i) {
        Packet p = h.to_server(segments[i]);
        p.counters() = {7, counters[i]};
        const int32_t r = h.parse(p);
        if (i < 2) {
            EXPECT_EQ(r, 2);
            EXPECT_EQ(p.counters().packets, 7u);
            EXPECT_EQ(h.hash(), kSeed);
            continue;
        }
        EXPECT_EQ(r, 0);
        EXPECT_EQ(p.counters().packets, 7u + 2);
        EXPECT_EQ(p.counters().bytes, 300000u + 1000 + 20000);
        EXPECT_EQ(h.rec()->file_id, kFileA);
        EXPECT_EQ(h.rec()->message_id, 40u);
        EXPECT_EQ(h.hash(), fold_tree_file(kSeed, kTree, kFileA));
        EXPECT_EQ(h.message2_file(41), kFileB);
    }
    // The entry is gone: a further segment finds nothing.
    EXPECT_EQ(h.parse_to_server(Bytes(10, 1)), 3);
}

TEST(Reassembly, CompoundResponseIsKeyedToTheClient) {
    ParserHarness h;
    ASSERT_EQ(h.send(request(READ, 60, kTree, request_body(READ, kFileA))), 0);
    const Bytes chain =
        session(compound({response(READ, 60, kTree, read_response_body(Bytes(2000, 1))),
                          response(ECHO, 61, 0, response_body(ECHO))}));
    const auto segments = split_even(chain, 3);
    int32_t results[3];
    for (size_t i = 0; i < 3; ++i) {
        results[i] = h.parse_to_client(segments[i]);
    }
    EXPECT_EQ(results[0], 2);
    EXPECT_EQ(results[1], 2);
    EXPECT_EQ(results[2], 0);
    EXPECT_EQ(h.rec()->file_id, kFileA);
    EXPECT_EQ(h.rec()->is_response, 1);
}

TEST(Reassembly, CompoundAbove8192IsNotBuffered) {
    ParserHarness h;
    const auto segments = split(write_close_chain(8193), {1400, 4000, 2000});
    EXPECT_EQ(h.parse_to_server(segments[0]), 5);
    EXPECT_EQ(h.rec()->file_id, kFileA);
    EXPECT_EQ(h.hash(), fold_tree_file(kSeed, kTree, kFileA));
    EXPECT_EQ(h.message2_file(41), 0u);  // the rest of the chain is never parsed
    for (size_t i = 1; i < segments.size(); ++i) {
        Packet p = h.to_server(segments[i]);
        p.counters() = {1, 999};
        EXPECT_EQ(h.parse(p), 0);
        EXPECT_EQ(h.rec()->tree_id, kTree);
        EXPECT_EQ(h.rec()->file_id, kFileA);
        EXPECT_EQ(h.rec()->version, 0);
        EXPECT_EQ(h.hash(), fold_tree_file(kSeed, kTree, kFileA));
        EXPECT_EQ(p.counters().packets, 1u);
    }
}

// Above 8192 bytes only the first command is parsed; a CREATE request there is stored (2),
// which leaves no entry behind, so the chain's next segment finds nothing (3).
TEST(Reassembly, CompoundAbove8192WithAStoredCreateFirstLeavesNoEntry) {
    ParserHarness h;
    const Bytes chain = session(compound(
        {request(CREATE, 60, kTree, create_request_body(utf16(std::string_view("big")), 1)),
         request(WRITE, 61, kTree, write_request_body(kFileB, Bytes(9000, 0x5a)))}));
    ASSERT_GT(chain.size(), 8192u);
    const auto segments = split(chain, {1400});
    EXPECT_EQ(h.parse_to_server(segments[0]), 2);
    EXPECT_NE(h.message_name(60), nullptr);
    EXPECT_EQ(h.parse_to_server(segments[1]), 3);
}

TEST(Continuation, SegmentsOfASingleMessageGetItsIdentifiers) {
    ParserHarness h;
    const auto segments = split_even(single_write(6000), 5);
    EXPECT_EQ(h.parse_to_server(segments[0]), 5);
    for (size_t i = 1; i < segments.size(); ++i) {
        EXPECT_EQ(h.parse_to_server(segments[i]), 0);
        EXPECT_EQ(h.rec()->file_id, kFileA);
        EXPECT_EQ(h.rec()->tree_id, kTree);
        EXPECT_EQ(h.hash(), fold_tree_file(kSeed, kTree, kFileA));  // as the first segment's
    }
    // The other direction has nothing pending.
    EXPECT_EQ(h.parse_to_client(Bytes(100, 0)), 3);

    // A complete message in between leaves the pending entry alone.
    ASSERT_EQ(h.send(request(ECHO, 70, 0, request_body(ECHO))), 0);
    EXPECT_EQ(h.parse_to_server(Bytes(100, 0)), 0);
    EXPECT_EQ(h.rec()->file_id, kFileA);
}

TEST(Continuation, ResponseSegmentsComeFromTheServerPort) {
    ParserHarness h;
    ASSERT_EQ(h.send(request(READ, 80, kTree, request_body(READ, kFileB))), 0);
    const Bytes rsp =
        session(encode(response(READ, 80, kTree, read_response_body(Bytes(4000, 7)))));
    const auto segments = split(rsp, {1460});
    EXPECT_EQ(h.parse_to_client(segments[0]), 5);
    EXPECT_EQ(h.parse_to_client(segments[1]), 0);
    EXPECT_EQ(h.rec()->file_id, kFileB);
}

TEST(Continuation, StoredRequestLeavesNoEntry) {
    ParserHarness h;
    Bytes create = session(
        encode(request(CREATE, 90, kTree, create_request_body(utf16(std::string_view("x")), 1))));
    create[2] = 0x10;  // claims more bytes than the payload holds
    EXPECT_EQ(h.parse_to_server(create), 2);
    EXPECT_EQ(h.parse_to_server(Bytes(50, 0)), 3);
}

TEST(Continuation, BothPortsConfiguredMeansClientToServer) {
    ParserHarness h;
    h.ends().client_port = 445;
    ASSERT_EQ(h.parse_to_server(split(single_write(3000), {1000})[0]), 5);
    // From the server, it looks like client to server too, and is keyed by its source.
    EXPECT_EQ(h.parse_to_client(Bytes(100, 0)), 3);
    EXPECT_EQ(h.parse_to_server(Bytes(100, 0)), 0);
}

TEST(Continuation, Ipv6ClientsAreKeyedByTheirLast32Bits) {
    ParserHarness h;
    const uint8_t c1[16] = {0x20, 0x01, 0x0d, 0xb8, 1, 0, 0, 0, 0, 0, 0, 0, 10, 1, 2, 3};
    h.ends().ip_version = 6;
    std::memcpy(h.ends().client.v6, c1, 16);
    h.ends().server.v6[15] = 1;
    ASSERT_EQ(h.parse_to_server(split(single_write(3000), {1000})[0]), 5);
    h.ends().client.v6[0] = 0xfd;  // another prefix, same last 32 bits
    EXPECT_EQ(h.parse_to_server(Bytes(100, 0)), 0);
    EXPECT_EQ(h.rec()->file_id, kFileA);
}

}  // namespace
}  // namespace smb2test
