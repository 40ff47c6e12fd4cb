// Retransmitted TCP segments, for the opt-in activity counters (activity=1).
//
// A segment sent again carries SMB messages that were counted when it first passed; counting
// them again would give a WRITE or an error twice. Per direction of a connection the table
// keeps the sequence number after the highest payload byte seen and the holes below it that a
// capture taken out of order left (a later segment seen before an earlier one); a segment all
// of whose bytes lie below that number and in no hole was seen before. Sequence numbers are
// compared in serial-number arithmetic (RFC 1982), so a connection may wrap them.
//
// Per queue (both directions of a connection go to one queue), no lock. One slot per
// direction, found by hash of its addresses and ports; the newest direction takes a slot, and a
// direction whose slot was taken simply starts over (its next retransmission is counted, as without
// the table).
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "host_interface.h"

struct tcp_seen_direction {
    static constexpr int kHoles = 3;
    // The direction: the sender's address in the high half (IPv4, or IPv6 folded to 32 bits,
    // so that two IPv6 senders whose folds and ports agree would share a slot's bytes: a risk
    // of one in 2^32 per pair, for a slot of 40 bytes rather than 52), source and destination
    // port in the low half.
    uint64_t key;
    uint32_t next;  // sequence number after the highest payload byte seen
    uint8_t used;
    uint8_t holes;  // how many of hole_begin/hole_end are in use
    uint32_t hole_begin[kHoles];
    uint32_t hole_end[kHoles];
};
static_assert(sizeof(tcp_seen_direction) == 40);

struct tcp_seen_table {
    static constexpr uint32_t kSlots = 4096;
    tcp_seen_direction slots[kSlots];
};

// What the TCP header says of a packet's payload.
struct tcp_segment {
    uint32_t seq;  // the sequence number of its first byte
    bool syn;
};

// The TCP header of a packet; false when the headers before the payload are not an IP and a
// TCP header that end where the payload begins.
bool smb_tcp_segment(const host_packet *pkt, tcp_segment &out);

// Whether the packet's payload of `length` bytes was all seen before in its direction; notes
// its bytes otherwise. A SYN starts the direction over (a new connection on the same ports).
bool smb_tcp_seen_before(tcp_seen_table *t, const host_packet *pkt, const tcp_segment &segment,
                         uint32_t length);

// Both steps for one packet with a payload of `length` bytes, as the filter takes them: false
// when the headers do not frame the payload. The common case stays in line in the caller: an
// IPv4 header of 20 bytes, a TCP header that ends where the payload begins, and a segment that
// is the next one in order of its direction (or a bare acknowledgement); the general function
// below takes every other packet, with the same outcome.
bool smb_tcp_repeat_general(tcp_seen_table *t, const host_packet *pkt, uint32_t length);

inline bool smb_tcp_repeat(tcp_seen_table *t, const host_packet *pkt, uint32_t length) {
    const uint8_t *d = pkt->data;
    // Version 4, IHL 5, TCP; the TCP header's 20 bytes are there and its data offset leads to
    // the payload.
    if (pkt->ip_version != 4 || !d || pkt->length < 40 || d[0] != 0x45 || d[9] != 6 ||
        20 + (d[32] >> 4) * 4 != pkt->payload_offset) [[unlikely]]
        return smb_tcp_repeat_general(t, pkt, length);
    const bool syn = d[33] & 0x02;
    if (length == 0 && !syn) return false;  // a bare acknowledgement
    const uint32_t seq =
        uint32_t{d[24]} << 24 | uint32_t{d[25]} << 16 | uint32_t{d[26]} << 8 | d[27];
    const uint64_t key =
        uint64_t{pkt->src_addr.v4} << 32 | uint32_t{pkt->src_port} << 16 | pkt->dst_port;
    static_assert(tcp_seen_table::kSlots == 4096, "the top 12 bits of the product pick the slot");
    tcp_seen_direction &s = t->slots[(key * 0x9E3779B97F4A7C15ull) >> 52];
    if (s.key == key && s.used && s.holes == 0 && !syn && seq == s.next) [[likely]] {
        s.next = seq + length;
        return false;
    }
    return smb_tcp_repeat_general(t, pkt, length);
}
