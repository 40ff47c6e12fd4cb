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
    Packet to_port = h.to_server(seven);
    Record rec;
    EXPECT_EQ(h.parse(to_port, rec), 3);

    h.ends().server_port = 8445;  // neither port is the configured one
    Packet elsewhere = h.to_server(seven);
    EXPECT_EQ(h.parse(elsewhere, rec), 1);

    ParserHarness all_ports(0);
    Packet any = all_ports.to_server(Bytes(100, 0));
    EXPECT_EQ(all_ports.parse(any, rec), 1);
    EXPECT_EQ(rec->version, 0);
}

TEST(Framing, HeadersTooShortForTheirSignature) {
    ParserHarness h;
    Bytes smb2 = session(encode(request(ECHO, 1, 0, request_body(ECHO))));
    smb2.resize(67);
    Bytes smb1 = smb1_message(0x72);
    const Bytes smb1_header_only(smb1.begin(), smb1.begin() + 36);
    smb1.resize(35);
    for (auto [payload, expected] : {std::pair{smb2, -1}, {smb1, -1}, {smb1_header_only, 0}}) {
        Packet p = h.to_server(payload);
        Record rec;
        EXPECT_EQ(h.parse(p, rec), expected) << payload.size();
    }
}

TEST(Framing, Smb1RecordsItsCommandCode) {
    ParserHarness h;
    Packet p = h.to_server(smb1_message(0x72));
    Record rec;
    EXPECT_EQ(h.parse(p, rec), 0);
    EXPECT_EQ(rec->version, 1);
    EXPECT_EQ(rec->commands[0], 0x72u);
    EXPECT_EQ(rec->commands[1], kCmdLow);
    EXPECT_EQ(rec->is_response, 0xff);
    const uint8_t folded[4] = {0x72, 0, 0, 0};
    EXPECT_EQ(p.pkt().flow_hash, corvaneexp_crc64(folded, 4, kSeed));
}

TEST(Framing, TransformHeaderMarksEncryptedTraffic) {
    ParserHarness h;
    Packet p = h.to_client(transform_message(300));
    Record rec;
    EXPECT_EQ(h.parse(p, rec), 0);
    EXPECT_EQ(rec->version, 2);
    EXPECT_EQ(rec->commands[0], 0x800000ffu);
    EXPECT_EQ(p.pkt().flow_hash, kSeed);
}

TEST(Framing, SessionLengthDecidesWhetherTheMessageIsComplete) {
    ParserHarness h;
    const Bytes whole = single_write(260);
    ASSERT_EQ(Bytes(whole.begin(), whole.begin() + 4), (Bytes{0, 0, 1, 0}));
    Packet complete = h.to_server(whole);
    Record rec;
    EXPECT_EQ(h.parse(complete, rec), 0);
    Packet first = h.to_server(Bytes(whole.begin(), whole.begin() + 200));
    EXPECT_EQ(h.parse(first, rec), 5);

    // A length word whose +4 wraps gives a tiny total: complete at once.
    Bytes wrapped = whole;
    wrapped[0] = wrapped[1] = wrapped[2] = 0xff;
    wrapped[3] = 0xfd;
    Packet w = h.to_server(wrapped);
    EXPECT_EQ(h.parse(w, rec), 0);
}

TEST(Reassembly, CompoundOverThreeSegmentsCarriesTheEarlierCounters) {
    ParserHarness h;
    const auto segments = split(write_close_chain(8192), {1500, 3000});
    ASSERT_EQ(segments.size(), 3u);
    const uint64_t counters[3] = {1000, 20000, 300000};
    for (size_t i = 0; i < 3; ++i) {
        Packet p = h.to_server(segments[i]);
        p.counters() = {7, counters[i]};
        Record rec;
        const int32_t r = h.parse(p, rec);
        if (i < 2) {
            EXPECT_EQ(r, 2);
            EXPECT_EQ(p.counters().packets, 7u);
            EXPECT_EQ(p.pkt().flow_hash, kSeed);
            continue;
        }
        EXPECT_EQ(r, 0);
        EXPECT_EQ(p.counters().packets, 7u + 2);
        EXPECT_EQ(p.counters().bytes, 300000u + 1000 + 20000);
        EXPECT_EQ(rec->file_id, kFileA);
        EXPECT_EQ(rec->message_id, 40u);
        EXPECT_EQ(p.pkt().flow_hash, fold_tree_file(kSeed, kTree, kFileA));
        EXPECT_EQ(h.message2_file(41), kFileB);
    }
    // The entry is gone: a further segment finds nothing.
    Packet after = h.to_server(Bytes(10, 1));
    Record rec;
    EXPECT_EQ(h.parse(after, rec), 3);
}

TEST(Reassembly, CompoundResponseIsKeyedToTheClient) {
    ParserHarness h;
    ASSERT_EQ(h.send(request(READ, 60, kTree, request_body(READ, kFileA))), 0);
    const Bytes chain =
        session(compound({response(READ, 60, kTree, read_response_body(Bytes(2000, 1))),
                          response(ECHO, 61, 0, response_body(ECHO))}));
    const auto segments = split_even(chain, 3);
    int32_t results[3];
    Record last;
    for (size_t i = 0; i < 3; ++i) {
        Packet p = h.to_client(segments[i]);
        Record rec;
        results[i] = h.parse(p, i == 2 ? last : rec);
    }
    EXPECT_EQ(results[0], 2);
    EXPECT_EQ(results[1], 2);
    EXPECT_EQ(results[2], 0);
    EXPECT_EQ(last->file_id, kFileA);
    EXPECT_EQ(last->is_response, 1);
}

TEST(Reassembly, CompoundAbove8192IsNotBuffered) {
    ParserHarness h;
    const auto segments = split(write_close_chain(8193), {1400, 4000, 2000});
    Packet first = h.to_server(segments[0]);
    Record r0;
    EXPECT_EQ(h.parse(first, r0), 5);
    EXPECT_EQ(r0->file_id, kFileA);
    EXPECT_EQ(first.pkt().flow_hash, fold_tree_file(kSeed, kTree, kFileA));
    EXPECT_EQ(h.message2_file(41), 0u);  // the rest of the chain is never parsed
    for (size_t i = 1; i < segments.size(); ++i) {
        Packet p = h.to_server(segments[i]);
        p.counters() = {1, 999};
        Record rec;
        EXPECT_EQ(h.parse(p, rec), 0);
        EXPECT_EQ(rec->tree_id, kTree);
        EXPECT_EQ(rec->file_id, kFileA);
        EXPECT_EQ(rec->version, 0);
        EXPECT_EQ(p.pkt().flow_hash, fold_tree_file(kSeed, kTree, kFileA));
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
    Packet first = h.to_server(segments[0]);
    Record r0;
    EXPECT_EQ(h.parse(first, r0), 2);
    EXPECT_NE(h.message_name(60), nullptr);
    Packet second = h.to_server(segments[1]);
    Record r1;
    EXPECT_EQ(h.parse(second, r1), 3);
}

TEST(Continuation, SegmentsOfASingleMessageGetItsIdentifiers) {
    ParserHarness h;
    const auto segments = split_even(single_write(6000), 5);
    Packet first = h.to_server(segments[0]);
    Record r0;
    EXPECT_EQ(h.parse(first, r0), 5);
    for (size_t i = 1; i < segments.size(); ++i) {
        Packet p = h.to_server(segments[i]);
        Record rec;
        EXPECT_EQ(h.parse(p, rec), 0);
        EXPECT_EQ(rec->file_id, kFileA);
        EXPECT_EQ(rec->tree_id, kTree);
    }
    // The other direction has nothing pending.
    Packet back = h.to_client(Bytes(100, 0));
    Record rec;
    EXPECT_EQ(h.parse(back, rec), 3);

    // A complete message in between leaves the pending entry alone.
    ASSERT_EQ(h.send(request(ECHO, 70, 0, request_body(ECHO))), 0);
    Packet later = h.to_server(Bytes(100, 0));
    EXPECT_EQ(h.parse(later, rec), 0);
    EXPECT_EQ(rec->file_id, kFileA);
}

TEST(Continuation, ResponseSegmentsComeFromTheServerPort) {
    ParserHarness h;
    ASSERT_EQ(h.send(request(READ, 80, kTree, request_body(READ, kFileB))), 0);
    const Bytes rsp =
        session(encode(response(READ, 80, kTree, read_response_body(Bytes(4000, 7)))));
    const auto segments = split(rsp, {1460});
    Packet first = h.to_client(segments[0]);
    Record r0;
    EXPECT_EQ(h.parse(first, r0), 5);
    Packet second = h.to_client(segments[1]);
    Record r1;
    EXPECT_EQ(h.parse(second, r1), 0);
    EXPECT_EQ(r1->file_id, kFileB);
}

TEST(Continuation, StoredRequestLeavesNoEntry) {
    ParserHarness h;
    Bytes create = session(
        encode(request(CREATE, 90, kTree, create_request_body(utf16(std::string_view("x")), 1))));
    create[2] = 0x10;  // claims more bytes than the payload holds
    Packet p = h.to_server(create);
    Record rec;
    EXPECT_EQ(h.parse(p, rec), 2);
    Packet next = h.to_server(Bytes(50, 0));
    EXPECT_EQ(h.parse(next, rec), 3);
}

TEST(Continuation, BothPortsConfiguredMeansClientToServer) {
    ParserHarness h;
    h.ends().client_port = 445;
    Packet first = h.to_server(split(single_write(3000), {1000})[0]);
    Record rec;
    ASSERT_EQ(h.parse(first, rec), 5);
    Packet from_server = h.to_client(Bytes(100, 0));  // looks like client to server, keyed by src
    EXPECT_EQ(h.parse(from_server, rec), 3);
    Packet from_client = h.to_server(Bytes(100, 0));
    EXPECT_EQ(h.parse(from_client, rec), 0);
}

TEST(Continuation, Ipv6ClientsAreKeyedByTheirLast32Bits) {
    ParserHarness h;
    const uint8_t c1[16] = {0x20, 0x01, 0x0d, 0xb8, 1, 0, 0, 0, 0, 0, 0, 0, 10, 1, 2, 3};
    h.ends().ip_version = 6;
    std::memcpy(h.ends().client.v6, c1, 16);
    h.ends().server.v6[15] = 1;
    Packet first = h.to_server(split(single_write(3000), {1000})[0]);
    Record rec;
    ASSERT_EQ(h.parse(first, rec), 5);
    h.ends().client.v6[0] = 0xfd;  // another prefix, same last 32 bits
    Packet other = h.to_server(Bytes(100, 0));
    EXPECT_EQ(h.parse(other, rec), 0);
    EXPECT_EQ(rec->file_id, kFileA);
}

}  // namespace
}  // namespace smb2test
