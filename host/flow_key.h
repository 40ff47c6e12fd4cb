// Keys of the flow cache. A connection is named by its 5-tuple with the two endpoints in a
// fixed order (the lower address and port first), so both directions give the same key and
// the same hash; a flow record is named by its connection and the packet's flow hash as the
// plug-ins' filter hooks left it.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>

#include "host_interface.h"

namespace corvane_host {

inline bool same_words(const std::array<uint8_t, 16> &x, const std::array<uint8_t, 16> &y) {
    uint64_t a[2], b[2];
    memcpy(a, x.data(), 16);
    memcpy(b, y.data(), 16);
    return ((a[0] ^ b[0]) | (a[1] ^ b[1])) == 0;
}

struct ConnKey {
    std::array<uint8_t, 16> addr_a{};  // the lower endpoint
    std::array<uint8_t, 16> addr_b{};
    uint16_t port_a = 0;
    uint16_t port_b = 0;
    uint8_t ip_version = 0;
    uint8_t protocol = 0;
    uint16_t reserved = 0;  // always 0: ports to here are one word (tuple_word)
    uint64_t digest = 0;    // conn_hash of the fields above, when set (conn_key_of)

    // The ports, IP version and protocol as one word. oriented_key stores them with one
    // write of this word: read back as a word right after four narrower writes, they would
    // wait for those writes to reach the cache (no store forwarding across several stores).
    uint64_t tuple_word() const {
        uint64_t w;
        memcpy(&w, &port_a, sizeof w);
        return w;
    }
    void set_tuple_word(uint64_t w) { memcpy(&port_a, &w, sizeof w); }

    // The endpoints and protocol, the addresses as two words each (the defaulted comparison
    // calls memcmp for each address); the digest follows from them and is not compared, so
    // that a key without it finds its entry.
    bool operator==(const ConnKey &o) const {
        return tuple_word() == o.tuple_word() && same_words(addr_a, o.addr_a) &&
               same_words(addr_b, o.addr_b);
    }
};

static_assert(offsetof(ConnKey, port_b) == offsetof(ConnKey, port_a) + 2 &&
                  offsetof(ConnKey, ip_version) == offsetof(ConnKey, port_a) + 4 &&
                  offsetof(ConnKey, protocol) == offsetof(ConnKey, port_a) + 5 &&
                  offsetof(ConnKey, reserved) == offsetof(ConnKey, port_a) + 6,
              "the tuple word covers the ports, version, protocol and reserved bytes");
static_assert(std::endian::native == std::endian::little, "tuple word layout");

struct FlowKey {
    ConnKey conn;
    uint64_t hash = 0;

    bool operator==(const FlowKey &) const = default;
};

namespace detail {

inline std::array<uint8_t, 16> addr_bytes(const host_addr &addr, uint8_t ip_version) {
    std::array<uint8_t, 16> out{};
    if (ip_version == 4)
        memcpy(out.data(), &addr.v4, 4);
    else
        memcpy(out.data(), addr.v6, 16);
    return out;
}

inline uint64_t load_be64(const uint8_t *p) {
    uint64_t v;
    memcpy(&v, p, 8);
    return __builtin_bswap64(v);
}

// memcmp's order of two addresses (as big-endian numbers), without calling it.
inline int compare_addr(const std::array<uint8_t, 16> &x, const std::array<uint8_t, 16> &y) {
    const uint64_t x0 = load_be64(x.data()), y0 = load_be64(y.data());
    if (x0 != y0) return x0 < y0 ? -1 : 1;
    const uint64_t x1 = load_be64(x.data() + 8), y1 = load_be64(y.data() + 8);
    return x1 < y1 ? -1 : x1 > y1 ? 1 : 0;
}

}  // namespace detail

// The packet's connection key without its digest; `from_a` tells whether the packet's source
// is endpoint a. Inline: every packet makes one.
inline ConnKey oriented_key(const host_packet &pkt, bool &from_a) {
    ConnKey key;
    const auto src = detail::addr_bytes(pkt.src_addr, pkt.ip_version);
    const auto dst = detail::addr_bytes(pkt.dst_addr, pkt.ip_version);
    const int cmp = detail::compare_addr(src, dst);
    from_a = cmp < 0 || (cmp == 0 && pkt.src_port <= pkt.dst_port);
    key.addr_a = from_a ? src : dst;
    key.addr_b = from_a ? dst : src;
    const uint64_t port_a = from_a ? pkt.src_port : pkt.dst_port;
    const uint64_t port_b = from_a ? pkt.dst_port : pkt.src_port;
    key.set_tuple_word(port_a | port_b << 16 | uint64_t{pkt.ip_version} << 32 |
                       uint64_t{pkt.protocol} << 40);
    return key;
}

// The same with its digest.
ConnKey conn_key_of(const host_packet &pkt, bool &from_a);

// A 64-bit hash of the connection key's endpoints and protocol: the same for both directions
// of a connection. Keys made by conn_key_of carry it as their digest.
uint64_t conn_hash(const ConnKey &key);

// A hash of the endpoints for the connection table, a few multiplications where the digest
// takes five rounds of mixing: the table finds a connection's entry with it for every packet,
// and the entry keeps the digest, made once.
struct ConnKeyHash {
    size_t operator()(const ConnKey &k) const {
        uint64_t w[4];
        memcpy(w, k.addr_a.data(), 16);
        memcpy(w + 2, k.addr_b.data(), 16);
        const uint64_t rest = uint64_t{k.port_a} << 32 | uint64_t{k.port_b} << 16 |
                              uint64_t{k.ip_version} << 8 | k.protocol;
        const uint64_t h = (w[0] ^ rest) * 0x9e3779b97f4a7c15ull ^ w[1] * 0xc2b2ae3d27d4eb4full ^
                           w[2] * 0x165667b19e3779f9ull ^ (w[3] + rest) * 0xd6e8feb86659fd93ull;
        return h ^ (h >> 29);
    }
};

struct FlowKeyHash {
    size_t operator()(const FlowKey &k) const {
        return k.conn.digest ^ (k.hash * 0x9e3779b97f4a7c15ull);
    }
};

}  // namespace corvane_host
