#include "flow_key.h"

namespace corvane_host {

namespace {

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
