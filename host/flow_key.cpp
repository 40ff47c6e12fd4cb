#include "flow_key.h"

namespace corvane_host {

namespace {

std::array<uint8_t, 16> addr_bytes(const host_addr &addr, uint8_t ip_version) {
    std::array<uint8_t, 16> out{};
    if (ip_version == 4)
        memcpy(out.data(), &addr.v4, 4);
    else
        memcpy(out.data(), addr.v6, 16);
    return out;
}

uint64_t load_be64(const uint8_t *p) {
    uint64_t v;
    memcpy(&v, p, 8);
    return __builtin_bswap64(v);
}

// memcmp's order of two addresses (as big-endian numbers), without calling it.
int compare_addr(const std::array<uint8_t, 16> &x, const std::array<uint8_t, 16> &y) {
    const uint64_t x0 = load_be64(x.data()), y0 = load_be64(y.data());
    if (x0 != y0) return x0 < y0 ? -1 : 1;
    const uint64_t x1 = load_be64(x.data() + 8), y1 = load_be64(y.data() + 8);
    return x1 < y1 ? -1 : x1 > y1 ? 1 : 0;
}

uint64_t mix(uint64_t h, uint64_t v) {
    h ^= v + 0x9e3779b97f4a7c15ull + (h << 6) + (h >> 2);
    h ^= h >> 31;
    h *= 0xbf58476d1ce4e5b9ull;
    h ^= h >> 27;
    return h;
}

}  // namespace

ConnKey conn_key_of(const host_packet &pkt, bool &from_a) {
    ConnKey key = oriented_key(pkt, from_a);
    key.digest = conn_hash(key);
    return key;
}

ConnKey oriented_key(const host_packet &pkt, bool &from_a) {
    ConnKey key;
    key.ip_version = pkt.ip_version;
    key.protocol = pkt.protocol;
    auto src = addr_bytes(pkt.src_addr, pkt.ip_version);
    auto dst = addr_bytes(pkt.dst_addr, pkt.ip_version);
    const int cmp = compare_addr(src, dst);
    from_a = cmp < 0 || (cmp == 0 && pkt.src_port <= pkt.dst_port);
    if (from_a) {
        key.addr_a = src;
        key.addr_b = dst;
        key.port_a = pkt.src_port;
        key.port_b = pkt.dst_port;
    } else {
        key.addr_a = dst;
        key.addr_b = src;
        key.port_a = pkt.dst_port;
        key.port_b = pkt.src_port;
    }
    return key;
}

uint64_t conn_hash(const ConnKey &key) {
    uint64_t h = 0x6a09e667f3bcc908ull;
    uint64_t w;
    for (size_t i = 0; i < 16; i += 8) {
        memcpy(&w, key.addr_a.data() + i, 8);
        h = mix(h, w);
        memcpy(&w, key.addr_b.data() + i, 8);
        h = mix(h, w);
    }
    h = mix(h, (uint64_t{key.port_a} << 32) | (uint64_t{key.port_b} << 16) |
                   (uint64_t{key.ip_version} << 8) | key.protocol);
    return h;
}

}  // namespace corvane_host
