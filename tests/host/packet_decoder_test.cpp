// Frames of every link type down to the TCP payload; trailers, options, extension headers,
// fragments, truncation and oversize datagrams.
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <cstring>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "packet_builder.h"
#include "packet_decoder.h"

namespace {

using namespace testnet;
using corvane_host::decode_frame;
using corvane_host::DecodedPacket;
using corvane_host::DecodeStatus;

const Bytes kPayload = {'h', 'e', 'l', 'l', 'o'};

TcpSpec segment(bool v6) {
    TcpSpec s;
    s.src = v6 ? ipv6("2001:db8::1") : ipv4(10, 0, 0, 1);
    s.dst = v6 ? ipv6("2001:db8::2") : ipv4(10, 0, 0, 2);
    s.sport = 49152;
    s.dport = 445;
    s.flags = PSH | ACK;
    s.payload = kPayload;
    return s;
}

struct LinkCase {
    const char *name;
    int file_link;  // as in the builder
    int dlt;        // as libpcap reports it
    int vlans;
    friend void PrintTo(const LinkCase &c, std::ostream *os) { *os << c.name; }
};

class DecodeLink : public testing::TestWithParam<std::tuple<LinkCase, bool>> {};

TEST_P(DecodeLink, FindsAddressesPortsAndPayloadWithoutTrailer) {
    const auto &[link, v6] = GetParam();
    const Bytes ip = tcp_datagram(segment(v6));
    const Bytes f = frame(link.file_link, ip, link.vlans, link.file_link == kEthernet ? 6 : 0);
    DecodedPacket d;
    ASSERT_EQ(decode_frame(link.dlt, f.data(), f.size(), d), DecodeStatus::Ok) << link.name;
    const host_packet &p = d.pkt;
    EXPECT_EQ(p.ip_version, v6 ? 6 : 4);
    EXPECT_EQ(p.protocol, 6);
    EXPECT_EQ(p.src_port, 49152);
    EXPECT_EQ(p.dst_port, 445);
    EXPECT_EQ(p.tcp_flags, PSH | ACK);
    EXPECT_EQ(p.length, ip.size()) << "the trailer is not part of the packet";
    EXPECT_EQ(d.ip_bytes, ip.size());
    EXPECT_EQ(p.payload_offset, (v6 ? 40 : 20) + 20);
    EXPECT_EQ(Bytes(p.data + p.payload_offset, p.data + p.length), kPayload);
    EXPECT_EQ(p.ipv4_aux16, 0);
    if (v6) {
        EXPECT_EQ(0, memcmp(p.src_addr.v6, segment(true).src.bytes.data(), 16));
        EXPECT_EQ(0, memcmp(p.dst_addr.v6, segment(true).dst.bytes.data(), 16));
    } else {
        EXPECT_EQ(p.src_addr.v4, htonl(0x0a000001));
        EXPECT_EQ(p.dst_addr.v4, htonl(0x0a000002));
    }
}

// Every link type with both IP versions, except where the link type names the other version.
std::vector<std::tuple<LinkCase, bool>> link_cases() {
    std::vector<std::tuple<LinkCase, bool>> out;
    for (const LinkCase &c :
         {LinkCase{"ethernet", kEthernet, 1, 0}, LinkCase{"ethernet+vlan", kEthernet, 1, 1},
          LinkCase{"ethernet+qinq", kEthernet, 1, 2}, LinkCase{"sll", kSll, 113, 0},
          LinkCase{"sll2", kSll2, 276, 0}, LinkCase{"null", kNull, 0, 0},
          LinkCase{"loop", kLoop, 108, 0}, LinkCase{"raw", kRaw, 12, 0},
          LinkCase{"ipv4", kIpv4, 228, 0}, LinkCase{"ipv6", kIpv6, 229, 0}})
        for (bool v6 : {false, true})
            if (c.dlt != (v6 ? corvane_host::kLinkIpv4 : corvane_host::kLinkIpv6))
                out.emplace_back(c, v6);
    return out;
}

INSTANTIATE_TEST_SUITE_P(Links, DecodeLink, testing::ValuesIn(link_cases()), [](const auto &info) {
    std::string n = std::get<0>(info.param).name;
    for (char &c : n)
        if (c == '+') c = '_';
    return n + (std::get<1>(info.param) ? "_v6" : "_v4");
});

// Frames whose transport header is found elsewhere than right after a plain IP header, or not
// at all: the payload offset counts from the IP header.
TEST(Decode, OptionsExtensionHeadersAndFragments) {
    Bytes null_be = {0, 0, 0, 2};  // BSD loopback written big-endian
    const Bytes plain = tcp_datagram(segment(false));
    null_be.insert(null_be.end(), plain.begin(), plain.end());
    TcpSpec options = segment(false), hop = segment(true), fragment = segment(true);
    options.tcp_options = {1, 1, 8, 10, 0, 0, 0, 1, 0, 0, 0, 2};  // NOP NOP timestamps
    hop.ipv6_ext = {0, 0, 1, 4, 0, 0, 0, 0};                      // hop-by-hop, PadN
    fragment.ipv6_ext = {0, 0, 0, 1, 0, 0, 0, 7};  // turned into a fragment header below
    Bytes v6_fragment = tcp_datagram(fragment), first = plain, later = plain;
    v6_fragment[6] = 44;
    v6_fragment[40] = 6;
    first[6] = 0x20;  // MF, offset 0
    later[6] = 0x00;  // offset 100 (in 8-byte units)
    later[7] = 100;
    const struct {
        const char *what;
        int dlt;
        Bytes frame;
        uint8_t protocol;
        uint16_t dst_port, payload_offset, ipv4_aux16;
    } cases[] = {
        {"null link, big-endian", 0, null_be, 6, 445, 40, 0},
        {"TCP options", 1, frame(kEthernet, tcp_datagram(options)), 6, 445, 20 + 32, 0},
        {"IPv6 hop-by-hop", 1, frame(kEthernet, tcp_datagram(hop)), 6, 445, 40 + 8 + 20, 0},
        {"IPv6 fragment", 229, v6_fragment, 44, 0, 0, 0},
        {"first IPv4 fragment", 228, first, 6, 445, 40, 0x2000},
        {"later IPv4 fragment: no transport header", 228, later, 6, 0, 20, 100},
    };
    for (const auto &c : cases) {
        DecodedPacket d;
        ASSERT_EQ(decode_frame(c.dlt, c.frame.data(), c.frame.size(), d), DecodeStatus::Ok)
            << c.what;
        EXPECT_EQ(d.pkt.protocol, c.protocol) << c.what;
        EXPECT_EQ(d.pkt.dst_port, c.dst_port) << c.what;
        if (c.payload_offset) {  // 0: not looked at
            EXPECT_EQ(d.pkt.payload_offset, c.payload_offset) << c.what;
        }
        EXPECT_EQ(d.pkt.ipv4_aux16, c.ipv4_aux16) << c.what;
    }
}

TEST(Decode, OversizeDatagramIsCapped) {
    TcpSpec s = segment(false);
    s.payload.assign(70000, 'x');
    Bytes ip = tcp_datagram(s);
    ip[2] = ip[3] = 0;  // segmentation offload leaves the length field empty
    DecodedPacket d;
    ASSERT_EQ(decode_frame(228, ip.data(), ip.size(), d), DecodeStatus::Ok);
    EXPECT_TRUE(d.capped);
    EXPECT_EQ(d.pkt.length, 65535);
    EXPECT_EQ(d.ip_bytes, ip.size());
    EXPECT_EQ(d.pkt.payload_offset, 40);
}

TEST(Decode, SnapLengthCutsPayloadButNotCounts) {
    TcpSpec s = segment(false);
    s.payload.assign(1000, 'x');
    const Bytes ip = tcp_datagram(s);
    DecodedPacket d;
    ASSERT_EQ(decode_frame(228, ip.data(), 96, d), DecodeStatus::Ok);
    EXPECT_EQ(d.pkt.length, 96);
    EXPECT_EQ(d.ip_bytes, ip.size());
    EXPECT_EQ(d.pkt.payload_offset, 40);
    ASSERT_EQ(decode_frame(228, ip.data(), 30, d), DecodeStatus::Ok) << "TCP header cut";
    EXPECT_EQ(d.pkt.dst_port, 445);
    EXPECT_EQ(d.pkt.payload_offset, d.pkt.length);
}

TEST(Decode, BadAndForeignFrames) {
    struct Case {
        const char *what;
        int dlt;
        Bytes frame;
        DecodeStatus status;
    };
    Bytes arp(42, 0);
    arp[12] = 0x08;
    arp[13] = 0x06;
    Bytes bad_ihl = tcp_datagram(segment(false));
    bad_ihl[0] = 0x44;
    Bytes short_total = tcp_datagram(segment(false));
    short_total[2] = 0;
    short_total[3] = 10;
    Bytes v6_short = tcp_datagram(segment(true));
    v6_short.resize(30);
    const Case cases[] = {
        {"arp", 1, arp, DecodeStatus::NotIp},
        {"short ethernet", 1, Bytes(10, 0), DecodeStatus::Truncated},
        {"vlan tag cut", 1, Bytes{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x81, 0, 0},
         DecodeStatus::Truncated},
        {"ihl below 5", 228, bad_ihl, DecodeStatus::Malformed},
        {"total length below header", 228, short_total, DecodeStatus::Malformed},
        {"ipv6 header cut", 229, v6_short, DecodeStatus::Truncated},
        {"raw, version 5", 12, Bytes{0x50, 0, 0, 0}, DecodeStatus::NotIp},
        {"unknown link", 147, tcp_datagram(segment(false)), DecodeStatus::NotIp},
        {"loop, unknown family", 108, Bytes{0, 0, 0, 7, 0x45}, DecodeStatus::NotIp},
    };
    for (const Case &c : cases) {
        DecodedPacket d;
        EXPECT_EQ(decode_frame(c.dlt, c.frame.data(), c.frame.size(), d), c.status) << c.what;
    }
}

// Plain Ethernet with IPv4 TCP and UDP has a shorter path through the decoder: every variant of
// those headers and every cut of the frame decodes as the same datagram does without a link
// layer, which takes the general path.
TEST(Decode, EthernetIpv4MatchesRawIpv4) {
    const Bytes tcp = tcp_datagram(segment(false));
    const Bytes udp = udp_datagram(ipv4(10, 0, 0, 1), ipv4(10, 0, 0, 2), 5353, 137, kPayload);
    struct Edit {
        size_t at;
        uint8_t value;
    };
    const std::vector<std::vector<Edit>> edits = {
        {},
        {{0, 0x46}},             // IPv4 options
        {{0, 0x44}},             // header length below 20
        {{2, 0}, {3, 0}},        // length field left empty (offload)
        {{2, 0}, {3, 30}},       // datagram shorter than its headers
        {{2, 0x05}, {3, 0xdc}},  // longer than captured
        {{6, 0x20}},             // first fragment
        {{6, 0x00}, {7, 3}},     // later fragment
        {{9, 1}},                // ICMP: no ports
        {{9, 132}},              // SCTP
        {{32, 0x00}},            // TCP data offset 0 (bogus); UDP: a payload byte
        {{32, 0xf0}},            // TCP data offset 60, past the end
    };
    for (const Bytes *base : {&tcp, &udp})
        for (const auto &edit : edits) {
            Bytes ip = *base;
            for (const Edit &e : edit)
                ip[e.at] = e.value;
            const Bytes eth = frame(kEthernet, ip, 0, 4);
            for (size_t cut = 14; cut <= eth.size(); ++cut) {
                DecodedPacket via_eth, via_raw;
                const DecodeStatus s_eth = decode_frame(1, eth.data(), cut, via_eth);
                const DecodeStatus s_raw = decode_frame(228, eth.data() + 14, cut - 14, via_raw);
                const std::string what = "protocol " + std::to_string(base[0][9]) + ", edit " +
                                         std::to_string(&edit - edits.data()) + ", cut " +
                                         std::to_string(cut);
                ASSERT_EQ(s_eth, s_raw) << what;
                if (s_eth != DecodeStatus::Ok) continue;
                EXPECT_EQ(via_eth.pkt.data, via_raw.pkt.data) << what;
                EXPECT_EQ(memcmp(&via_eth, &via_raw, sizeof via_eth), 0) << what;
            }
        }
}

}  // namespace
