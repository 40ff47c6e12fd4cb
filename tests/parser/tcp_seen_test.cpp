// Retransmitted TCP segments, as the activity counters must tell them from new data: in order,
// out of order (a later segment captured first), across the sequence-number wrap, a new
// connection on the same ports (SYN) or one whose start was not captured, and the headers a
// sequence number is read from.
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "smb_tcp_seen.h"

namespace {

struct Step {
    uint32_t seq;
    uint32_t length;
    bool syn;
    bool repeat;  // expected
};

host_packet packet_from(uint16_t src_port, uint8_t ip_version = 4) {
    host_packet p{};
    p.ip_version = ip_version;
    p.protocol = 6;
    if (ip_version == 4) {
        p.src_addr.v4 = 0x0200a8c0;
        p.dst_addr.v4 = 0x0100a8c0;
    } else {
        p.src_addr.v6[0] = 0xfd;
        p.src_addr.v6[15] = 2;
        p.dst_addr.v6[0] = 0xfd;
        p.dst_addr.v6[15] = 1;
    }
    p.src_port = src_port;
    p.dst_port = 445;
    return p;
}

struct Sequence {
    const char *name;
    std::vector<Step> steps;
};

class TcpSeen : public testing::TestWithParam<Sequence> {};

// Asks one of the two entry points: the one given the segment, or the one that reads it from
// the packet's IP and TCP headers (its own path for IPv4).
bool repeat_of(bool from_headers, tcp_seen_table *t, const host_packet &pkt, const Step &s) {
    if (!from_headers) return smb_tcp_seen_before(t, &pkt, {s.seq, s.syn}, s.length);
    std::vector<uint8_t> b;
    if (pkt.ip_version == 4) {
        b = {0x45, 0, 0, 0, 0, 0, 0, 0, 64, 6};
        b.resize(20);
    } else {
        b.assign(40, 0);
        b[0] = 0x60;
        b[6] = 6;
    }
    const uint8_t seq[4] = {uint8_t(s.seq >> 24), uint8_t(s.seq >> 16), uint8_t(s.seq >> 8),
                            uint8_t(s.seq)};
    b.insert(b.end(), {0xc3, 0x50, 0x01, 0xbd});
    b.insert(b.end(), seq, seq + 4);
    b.insert(b.end(), {0, 0, 0, 0, 0x50, uint8_t(s.syn ? 0x02 : 0x18), 0, 0, 0, 0, 0, 0});
    host_packet p = pkt;
    p.data = b.data();
    p.length = p.payload_offset = static_cast<uint16_t>(b.size());
    return smb_tcp_repeat(t, &p, s.length);
}

TEST_P(TcpSeen, TellsRepeatsFromNewBytes) {
    for (const bool from_headers : {false, true}) {
        for (const uint8_t ip_version : {4, 6}) {
            auto table = std::make_unique<tcp_seen_table>();
            const host_packet pkt = packet_from(50000, ip_version);
            // The other direction and another connection interleave without effect.
            host_packet other = packet_from(50001, ip_version);
            uint32_t other_seq = 5;
            size_t i = 0;
            for (const Step &s : GetParam().steps) {
                EXPECT_EQ(repeat_of(from_headers, table.get(), pkt, s), s.repeat)
                    << "IPv" << int{ip_version} << (from_headers ? " from headers" : "") << " step "
                    << i++;
                EXPECT_FALSE(
                    repeat_of(from_headers, table.get(), other, {other_seq, 10, false, false}));
                other_seq += 10;
            }
        }
    }
}

// Senders that differ only in their address keep directions of their own, IPv4 and IPv6 alike.
TEST(TcpSeenKey, TheSenderAddressTellsDirectionsApart) {
    for (const uint8_t ip_version : {4, 6}) {
        auto table = std::make_unique<tcp_seen_table>();
        const host_packet a = packet_from(50000, ip_version);
        host_packet b = a;
        if (ip_version == 4)
            b.src_addr.v4 = 0x0300a8c0;
        else
            b.src_addr.v6[15] = 3;
        EXPECT_FALSE(smb_tcp_seen_before(table.get(), &a, {0, false}, 100));
        // b's bytes at the same sequence numbers are new, and noting them leaves a's alone.
        EXPECT_FALSE(smb_tcp_seen_before(table.get(), &b, {0, false}, 100)) << int{ip_version};
        EXPECT_TRUE(smb_tcp_seen_before(table.get(), &a, {0, false}, 100)) << int{ip_version};
        EXPECT_TRUE(smb_tcp_seen_before(table.get(), &b, {0, false}, 100)) << int{ip_version};
    }
}

constexpr uint32_t kTop = 0xffffff00u;  // 256 bytes before the wrap

// clang-format off
INSTANTIATE_TEST_SUITE_P(Sequences, TcpSeen, testing::Values(
    Sequence{"in_order", {{0, 100, false, false}, {100, 100, false, false},
                          {0, 100, false, true}, {100, 100, false, true}, {200, 1, false, false}}},
    Sequence{"partial_overlap_brings_new_bytes", {{0, 100, false, false}, {50, 100, false, false},
                                                  {50, 100, false, true}}},
    Sequence{"late_segment_fills_its_hole", {{0, 100, false, false}, {200, 100, false, false},
                                             {100, 100, false, false}, {100, 100, false, true},
                                             {200, 100, false, true}}},
    Sequence{"hole_filled_in_two_halves", {{0, 100, false, false}, {300, 10, false, false},
                                           {150, 50, false, false}, {100, 50, false, false},
                                           {200, 100, false, false}, {120, 10, false, true}}},
    Sequence{"empty_segments_are_never_repeats", {{0, 100, false, false}, {100, 0, false, false},
                                                  {50, 0, false, false}}},
    Sequence{"wrap", {{kTop, 200, false, false}, {kTop + 200, 100, false, false},
                      {kTop, 200, false, true}, {kTop + 200, 100, false, true}}},
    Sequence{"syn_starts_over", {{1000, 100, false, false}, {10, 0, true, false},
                                 {11, 100, false, false}, {11, 100, false, true}}},
    Sequence{"far_behind_is_another_stream", {{0x80000000u, 100, false, false},
                                              {0x10, 100, false, false}, {0x10, 100, false, true}}}),
    [](const auto &info) { return std::string(info.param.name); });
// clang-format on

// The sequence number comes from the TCP header that ends where the payload begins, after an
// IPv4 header with options or IPv6 extension headers; anything else gives none.
TEST(TcpSegment, ReadsTheSequenceBehindIpAndExtensionHeaders) {
    auto tcp_header = [](std::vector<uint8_t> &b, uint32_t seq, uint8_t flags) {
        const uint8_t h[20] = {0xc3,
                               0x50,
                               0x01,
                               0xbd,
                               uint8_t(seq >> 24),
                               uint8_t(seq >> 16),
                               uint8_t(seq >> 8),
                               uint8_t(seq),
                               0,
                               0,
                               0,
                               0,
                               0x50,
                               flags};
        b.insert(b.end(), h, h + 20);
        b.insert(b.end(), {'p', 'a', 'y'});
    };
    struct Case {
        const char *what;
        std::vector<uint8_t> bytes;
        uint8_t ip_version;
        uint16_t payload_offset;
        bool found;
        uint32_t seq;
        bool syn;
    };
    std::vector<Case> cases;
    {
        std::vector<uint8_t> b = {0x46, 0, 0, 0, 0, 0, 0, 0, 64, 6};  // IHL 6: 4 option bytes
        b.resize(24);
        tcp_header(b, 0x01020304, 0x18);
        cases.push_back({"ipv4 with options", b, 4, 44, true, 0x01020304, false});
        cases.push_back({"payload elsewhere", b, 4, 40, false, 0, false});
        b[9] = 17;
        cases.push_back({"not tcp", b, 4, 44, false, 0, false});
    }
    {
        std::vector<uint8_t> b = {0x45, 0, 0, 0, 0, 0, 0, 0, 64, 6};  // no options
        b.resize(20);
        tcp_header(b, 0x0a0b0c0d, 0x18);
        cases.push_back({"ipv4 without options", b, 4, 40, true, 0x0a0b0c0d, false});
        cases.push_back({"ipv4 without options, payload elsewhere", b, 4, 44, false, 0, false});
        std::vector<uint8_t> cut(b.begin(), b.begin() + 39);
        cases.push_back(
            {"ipv4 without options, cut inside the tcp header", cut, 4, 40, false, 0, false});
        b[33] = 0x02;
        cases.push_back({"ipv4 without options, syn", b, 4, 40, true, 0x0a0b0c0d, true});
        b[9] = 17;
        cases.push_back({"ipv4 without options, not tcp", b, 4, 40, false, 0, false});
    }
    {
        std::vector<uint8_t> b(40, 0);
        b[0] = 0x60;
        b[6] = 0;  // hop-by-hop options, 8 bytes, then TCP
        b.insert(b.end(), {6, 0, 0, 0, 0, 0, 0, 0});
        tcp_header(b, 0xfffffff0u, 0x02);
        cases.push_back({"ipv6 hop-by-hop", b, 6, 68, true, 0xfffffff0u, true});
        std::vector<uint8_t> cut(b.begin(), b.begin() + 50);
        cases.push_back({"cut inside the tcp header", cut, 6, 68, false, 0, false});
        b[40] = 59;  // no next header
        cases.push_back({"no tcp header", b, 6, 68, false, 0, false});
    }
    for (const Case &c : cases) {
        host_packet p{};
        p.data = c.bytes.data();
        p.length = static_cast<uint16_t>(c.bytes.size());
        p.payload_offset = c.payload_offset;
        p.ip_version = c.ip_version;
        tcp_segment s{};
        EXPECT_EQ(smb_tcp_segment(&p, s), c.found) << c.what;
        // The filter's entry point reads the same headers: a segment sent twice is a repeat the
        // second time (a SYN starts its direction over instead), and a packet whose headers
        // give no segment never is.
        auto table = std::make_unique<tcp_seen_table>();
        EXPECT_FALSE(smb_tcp_repeat(table.get(), &p, 3)) << c.what;
        EXPECT_EQ(smb_tcp_repeat(table.get(), &p, 3), c.found && !c.syn) << c.what;
        if (!c.found) continue;
        EXPECT_EQ(s.seq, c.seq) << c.what;
        EXPECT_EQ(s.syn, c.syn) << c.what;
    }
}

}  // namespace
