// Connection keys: both directions of a connection give one key, its endpoints in memcmp's
// order of the addresses (then the ports), and one digest, whose values the plug-in's flow
// hashes start from and the order of export falls back on.
#include "flow_key.h"

#include <gtest/gtest.h>

#include <random>

namespace {

using corvane_host::ConnKey;

host_packet packet(uint8_t version, const uint8_t *src, const uint8_t *dst, uint16_t sport,
                   uint16_t dport) {
    host_packet p{};
    p.ip_version = version;
    p.protocol = 6;
    memcpy(version == 4 ? static_cast<void *>(&p.src_addr.v4) : p.src_addr.v6, src,
           version == 4 ? 4 : 16);
    memcpy(version == 4 ? static_cast<void *>(&p.dst_addr.v4) : p.dst_addr.v6, dst,
           version == 4 ? 4 : 16);
    p.src_port = sport;
    p.dst_port = dport;
    return p;
}

// Random address pairs that often share a prefix, so that the order is decided in either
// half of an IPv6 address, or only by the ports.
TEST(ConnKey, BothDirectionsGiveOneKeyOrderedAsMemcmpOrdersTheAddresses) {
    std::mt19937 rng(11);
    for (int i = 0; i < 4000; ++i) {
        const uint8_t version = i % 2 ? 6 : 4;
        const size_t len = version == 4 ? 4 : 16;
        uint8_t src[16], dst[16];
        for (size_t b = 0; b < len; ++b)
            src[b] = dst[b] = static_cast<uint8_t>(rng());
        if (i % 5) dst[rng() % len] ^= static_cast<uint8_t>(1 + rng() % 255);
        const auto sport = static_cast<uint16_t>(rng() % 4),
                   dport = static_cast<uint16_t>(rng() % 4);
        bool from_a, back_from_a;
        const ConnKey k =
            corvane_host::conn_key_of(packet(version, src, dst, sport, dport), from_a);
        const ConnKey back =
            corvane_host::conn_key_of(packet(version, dst, src, dport, sport), back_from_a);
        const int cmp = memcmp(src, dst, len);
        ASSERT_EQ(from_a, cmp < 0 || (cmp == 0 && sport <= dport)) << i;
        ASSERT_TRUE(k == back) << i;
        ASSERT_EQ(k.digest, back.digest) << i;
        ASSERT_EQ(from_a != back_from_a, cmp != 0 || sport != dport) << i;
        ASSERT_EQ(memcmp(k.addr_a.data(), from_a ? src : dst, len), 0) << i;
        ASSERT_EQ(k.port_a, from_a ? sport : dport) << i;
        bool oriented_from_a;
        const ConnKey plain =
            corvane_host::oriented_key(packet(version, src, dst, sport, dport), oriented_from_a);
        ASSERT_EQ(oriented_from_a, from_a);
        ASSERT_TRUE(plain == k) << "the digest is not part of a key's identity";
        ASSERT_EQ(corvane_host::conn_hash(plain), k.digest);
    }
}

TEST(ConnKey, DigestValuesStay) {
    const uint8_t client[4] = {10, 0, 0, 2}, server[4] = {172, 16, 0, 1};
    bool from_a;
    EXPECT_EQ(corvane_host::conn_key_of(packet(4, client, server, 55120, 445), from_a).digest,
              511980542855043678ull);
    uint8_t v6a[16] = {0xfd, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, v6b[16] = {0xfd};
    v6b[15] = 2;
    EXPECT_EQ(corvane_host::conn_key_of(packet(6, v6a, v6b, 49152, 445), from_a).digest,
              14038795781040471099ull);
}

}  // namespace
