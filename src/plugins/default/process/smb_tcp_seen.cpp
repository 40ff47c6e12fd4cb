#include "smb_tcp_seen.h"

namespace {

constexpr uint8_t kTcp = 6;

uint32_t be32(const uint8_t *p) {
    return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}

// a < b in serial-number arithmetic.
bool before(uint32_t a, uint32_t b) {
    return static_cast<int32_t>(a - b) < 0;
}

// Offset of the TCP header behind an IPv6 header and the extension headers that RFC 8200
// chains in front of it; 0 when there is none to be found. Out of line: most traffic is IPv4.
[[gnu::noinline]] size_t tcp_offset_v6(const host_packet *pkt) {
    const uint8_t *d = pkt->data;
    const size_t n = pkt->length;
    if (!d || n < 40) return 0;
    uint8_t next = d[6];
    size_t off = 40;
    for (int hops = 0; next != kTcp && hops < 8; ++hops) {
        if (off + 8 > n) return 0;
        switch (next) {
            case 0:   // hop-by-hop options
            case 43:  // routing
            case 60:  // destination options
                next = d[off];
                off += (size_t{d[off + 1]} + 1) * 8;
                break;
            case 44:  // fragment
                next = d[off];
                off += 8;
                break;
            case 51:  // authentication header
                next = d[off];
                off += (size_t{d[off + 1]} + 2) * 4;
                break;
            default:
                return 0;
        }
    }
    return next == kTcp ? off : 0;
}

// Offset of the TCP header: after the IPv4 header (its IHL), or after the IPv6 headers; 0 when
// there is none to be found.
[[gnu::always_inline]] inline size_t tcp_offset(const host_packet *pkt) {
    if (pkt->ip_version != 4) return pkt->ip_version == 6 ? tcp_offset_v6(pkt) : 0;
    const uint8_t *d = pkt->data;
    if (!d || pkt->length < 20 || (d[0] >> 4) != 4 || d[9] != kTcp) return 0;
    return size_t{d[0] & 15u} * 4;
}

// An IPv6 sender's address folded to one word.
[[gnu::noinline]] uint32_t address_hash_v6(const host_packet *pkt) {
    uint32_t h = 0;
    for (int i = 0; i < 16; i += 4)
        h ^= be32(pkt->src_addr.v6 + i) * (0x9E3779B1u + i);
    return h;
}

// The direction as its slot names it (tcp_seen_direction::key).
[[gnu::always_inline]] inline uint64_t key_of(const host_packet *pkt) {
    const uint32_t h = pkt->ip_version == 4   ? pkt->src_addr.v4
                       : pkt->ip_version == 6 ? address_hash_v6(pkt)
                                              : 0;
    return uint64_t{h} << 32 | uint32_t{pkt->src_port} << 16 | pkt->dst_port;
}

[[gnu::always_inline]] inline tcp_seen_direction &slot_of(tcp_seen_table *t, uint64_t key) {
    static_assert(tcp_seen_table::kSlots == 4096, "the top 12 bits of the product pick the slot");
    return t->slots[(key * 0x9E3779B97F4A7C15ull) >> 52];
}

[[gnu::noinline]] void add_hole(tcp_seen_direction &d, uint32_t begin, uint32_t end) {
    if (d.holes == tcp_seen_direction::kHoles) {
        // No room: the oldest hole is forgotten (a late segment filling it is then taken for
        // a repeat, the rarer mistake than counting every repeat).
        for (int i = 1; i < d.holes; ++i) {
            d.hole_begin[i - 1] = d.hole_begin[i];
            d.hole_end[i - 1] = d.hole_end[i];
        }
        --d.holes;
    }
    d.hole_begin[d.holes] = begin;
    d.hole_end[d.holes] = end;
    ++d.holes;
}

void remove_hole(tcp_seen_direction &d, int i) {
    for (int j = i + 1; j < d.holes; ++j) {
        d.hole_begin[j - 1] = d.hole_begin[j];
        d.hole_end[j - 1] = d.hole_end[j];
    }
    --d.holes;
}

// Takes [begin, end) out of the holes; true when any of it was in one.
[[gnu::noinline]] bool fill_holes(tcp_seen_direction &d, uint32_t begin, uint32_t end) {
    bool filled = false;
    for (int i = 0; i < d.holes;) {
        const uint32_t hb = d.hole_begin[i], he = d.hole_end[i];
        if (!before(begin, he) || !before(hb, end)) {
            ++i;  // no overlap
            continue;
        }
        filled = true;
        const bool keeps_front = before(hb, begin), keeps_back = before(end, he);
        if (keeps_front && keeps_back) {
            d.hole_end[i] = begin;
            add_hole(d, end, he);
            ++i;
        } else if (keeps_front) {
            d.hole_end[i++] = begin;
        } else if (keeps_back) {
            d.hole_begin[i++] = end;
        } else {
            remove_hole(d, i);
        }
    }
    return filled;
}

// The TCP header at `off` (0: none found), when it ends where the payload begins.
[[gnu::always_inline]] inline bool segment_at(const host_packet *pkt, size_t off,
                                              tcp_segment &out) {
    if (off == 0 || off + 20 > pkt->length) return false;
    const uint8_t *tcp = pkt->data + off;
    if (off + static_cast<size_t>(tcp[12] >> 4) * 4 != pkt->payload_offset) return false;
    out.seq = be32(tcp + 4);
    out.syn = tcp[13] & 0x02;
    return true;
}

[[gnu::always_inline]] inline bool segment_of(const host_packet *pkt, tcp_segment &out) {
    return segment_at(pkt, tcp_offset(pkt), out);
}

// Whether the segment is the next one in order of a direction that has nothing missing below
// it: most segments are, and for them noting the bytes is moving `next`.
[[gnu::always_inline]] inline bool in_order(const tcp_seen_direction &d, uint64_t key,
                                            const tcp_segment &segment) {
    return d.key == key && d.used && d.holes == 0 && !segment.syn && segment.seq == d.next;
}

// Every other segment (and the in-order ones too, for callers without the shortcut).
[[gnu::noinline]] bool seen_before(tcp_seen_direction &d, uint64_t key, tcp_segment segment,
                                   uint32_t length) {
    const bool same = d.used && d.key == key;
    if (length == 0) {
        if (segment.syn && same) d.used = 0;
        return false;
    }
    const uint32_t seq = segment.seq + (segment.syn ? 1 : 0);  // a SYN takes a number itself
    const uint32_t end = seq + length;
    if (same && d.holes == 0 && seq == d.next && !segment.syn) {
        d.next = end;
        return false;
    }
    // More than 1 GiB behind what was seen is no retransmission but another stream on the
    // same addresses and ports whose start was not captured. A SYN starts the direction over
    // (a new connection on the same ports).
    constexpr uint32_t kFarBehind = 1u << 30;
    if (!same || segment.syn || before(end, d.next - kFarBehind)) {
        d.key = key;
        d.used = 1;
        d.holes = 0;
        d.next = end;
        return false;
    }
    if (before(d.next, end)) {
        // New bytes at the top; a jump past `next` leaves a hole for a late segment.
        if (before(d.next, seq))
            add_hole(d, d.next, seq);
        else
            fill_holes(d, seq, d.next);
        d.next = end;
        return false;
    }
    return !fill_holes(d, seq, end);
}

// Most segments without payload are bare acknowledgements: they neither bring bytes nor start
// a direction over.
[[gnu::always_inline]] inline bool brings_nothing(const tcp_segment &segment, uint32_t length) {
    return length == 0 && !segment.syn;
}

// A packet that is not IPv4; out of line, so that the IPv4 path below calls nothing but in its
// tail and needs no stack frame.
[[gnu::noinline]] bool repeat_other(tcp_seen_table *t, const host_packet *pkt, uint32_t length) {
    tcp_segment segment;
    if (!segment_of(pkt, segment) || brings_nothing(segment, length)) return false;
    const uint64_t key = key_of(pkt);
    return seen_before(slot_of(t, key), key, segment, length);
}

}  // namespace

bool smb_tcp_segment(const host_packet *pkt, tcp_segment &out) {
    return segment_of(pkt, out);
}

bool smb_tcp_seen_before(tcp_seen_table *t, const host_packet *pkt, const tcp_segment &segment,
                         uint32_t length) {
    if (brings_nothing(segment, length)) return false;
    const uint64_t key = key_of(pkt);
    return seen_before(slot_of(t, key), key, segment, length);
}

// The packets that the inline smb_tcp_repeat does not settle; the in-order case of IPv4 (with
// options, say) stays in line here too.
bool smb_tcp_repeat_general(tcp_seen_table *t, const host_packet *pkt, uint32_t length) {
    if (pkt->ip_version != 4) [[unlikely]]
        return repeat_other(t, pkt, length);
    tcp_segment segment;
    if (!segment_at(pkt, tcp_offset(pkt), segment) || brings_nothing(segment, length)) return false;
    const uint64_t key =
        uint64_t{pkt->src_addr.v4} << 32 | uint32_t{pkt->src_port} << 16 | pkt->dst_port;
    tcp_seen_direction &d = slot_of(t, key);
    if (in_order(d, key, segment)) [[likely]] {
        d.next = segment.seq + length;
        return false;
    }
    return seen_before(d, key, segment, length);
}
