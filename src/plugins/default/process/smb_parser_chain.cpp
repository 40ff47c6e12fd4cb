// Compound chains longer than the reassembly bound (activity=1). Such a chain is not buffered:
// its first message is parsed from the first segment, and its later segments only carry the
// first message's identifiers. For the activity counters every message of the chain counts
// all the same: the cursor of the chain's connection and direction follows the NextCommand
// offsets through the segments as they arrive, and counts each message once its header and
// fixed part are in (gathered from two segments when they straddle a boundary). A header that
// is not where the chain says, as after a lost segment, ends the walk.
#include <string.h>

#include <algorithm>

#include "smb_activity_table.h"
#include "smb_parser_internal.h"

namespace smb::parser {

namespace {

constexpr uint32_t kHead = chain_cursor::kHead;
constexpr uint8_t kProtocolId[4] = {0xFE, 'S', 'M', 'B'};

class ChainWalk {
  public:
    ChainWalk(const host_packet *pkt, smb_flow_data *rec, smb_queue_ctx *q, chain_cursor &c)
        : pkt_(pkt), rec_(rec), q_(q), c_(c) {}

    // The segment holding the chain's SMB2 bytes from c.seen on.
    void feed(const uint8_t *data, uint32_t length) {
        const uint32_t start = c_.seen;
        const uint32_t end = length < c_.total - start ? start + length : c_.total;
        while (c_.active && c_.next < end) {
            if (c_.held == 0 && c_.next >= start) {
                if (!from_segment(data + (c_.next - start), end - c_.next)) break;
            } else if (!gather(data, start, end)) {
                break;
            }
        }
        c_.seen = end;
        if (c_.seen >= c_.total) c_.active = 0;
    }

  private:
    // A message that starts in the segment: counted in place when its header and fixed part
    // are there, else its start is kept. False when the segment is used up.
    bool from_segment(const uint8_t *m, uint32_t in_segment) {
        if (in_segment >= SMB2_HEADER_SIZE) {
            const uint32_t need = needed(m);
            if (in_segment >= need) {
                count_and_step(m, std::min(in_segment, length_of(m)));
                return true;
            }
        }
        const uint32_t keep = std::min(in_segment, kHead);
        memcpy(c_.head, m, keep);
        c_.held = keep;
        return false;
    }

    // More bytes of a message whose start is held. False when the segment is used up.
    bool gather(const uint8_t *data, uint32_t start, uint32_t end) {
        const uint32_t at = c_.next + c_.held;  // stream offset of the next byte wanted
        if (at < start || at >= end || c_.held >= kHead) {
            c_.active = 0;  // the bytes do not follow on: a segment is missing
            return false;
        }
        const uint32_t take = std::min(kHead - c_.held, end - at);
        memcpy(c_.head + c_.held, data + (at - start), take);
        c_.held += take;
        if (c_.held >= SMB2_HEADER_SIZE && c_.held >= needed(c_.head)) {
            count_and_step(c_.head, std::min(c_.held, length_of(c_.head)));
            return true;
        }
        return at + take < end;
    }

    // The message's length: to the next header, or to the end of the chain.
    uint32_t length_of(const uint8_t *m) const {
        const uint32_t next = Smb2Message(m, SMB2_HEADER_SIZE).next_command();
        return next != 0 ? next : c_.total - c_.next;
    }

    // Its header and what counting reads behind it (the start of a longer message).
    uint32_t needed(const uint8_t *m) const { return std::min(length_of(m), kHead); }

    void count_and_step(const uint8_t *m, uint32_t bytes) {
        const Smb2Message msg(m, bytes);
        if (memcmp(m, kProtocolId, sizeof kProtocolId) != 0 || msg.is_response() != c_.direction) {
            c_.active = 0;
            return;
        }
        count_activity(pkt_, rec_, q_, msg);
        const uint32_t next = msg.next_command();
        c_.held = 0;
        if (next < SMB2_HEADER_SIZE || uint64_t{c_.next} + next + SMB2_HEADER_SIZE > c_.total) {
            c_.active = 0;  // the last message, or a NextCommand that leaves the chain
            return;
        }
        c_.next += next;
    }

    const host_packet *pkt_;
    smb_flow_data *rec_;
    smb_queue_ctx *q_;
    chain_cursor &c_;
};

}  // namespace

void follow_chain(const host_packet *pkt, smb_flow_data *rec, smb_queue_ctx *q, ConnKey key,
                  uint8_t direction, const uint8_t *hdr, uint32_t available, uint32_t total) {
    if (!q->chaintable) return;
    const Smb2Message first(hdr, available);
    chain_cursor &c = q->chaintable->slot(key.addr, key.port, direction);
    const bool same =
        c.client_addr32 == key.addr && c.client_port == key.port && c.direction == direction;
    if (c.active && !same) ++q->chaintable->dropped;
    c.active = 0;
    const uint32_t next = first.next_command();
    // A single message, or a chain whose second header would lie outside it.
    if (next < SMB2_HEADER_SIZE || uint64_t{next} + SMB2_HEADER_SIZE > total) return;
    c.client_addr32 = key.addr;
    c.client_port = key.port;
    c.direction = direction;
    c.active = 1;
    c.total = total;
    c.seen = 0;
    c.next = next;
    c.held = 0;
    ChainWalk(pkt, rec, q, c).feed(hdr, available);
}

void continue_chain(const host_packet *pkt, smb_flow_data *rec, smb_queue_ctx *q, ConnKey key,
                    uint8_t direction, const ByteReader &payload) {
    if (!q->chaintable) return;
    chain_cursor &c = q->chaintable->slot(key.addr, key.port, direction);
    if (!c.active || c.client_addr32 != key.addr || c.client_port != key.port ||
        c.direction != direction)
        return;
    ChainWalk(pkt, rec, q, c).feed(payload.data(), static_cast<uint32_t>(payload.size()));
}

}  // namespace smb::parser
