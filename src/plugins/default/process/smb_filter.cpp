// The queue filter: picks the packets worth parsing, runs the parser on them and leaves the
// packet's SMB record in its slot.
#include <stdlib.h>
#include <string.h>

#include "smb.h"
#include "smb_activity.h"
#include "smb_parser.h"
#include "smb_tcp_seen.h"

namespace {

constexpr uint8_t kTcp = 6;

// The parser keeps a record only for these results.
bool keeps_record(int32_t result) {
    return result == SMB_PARSE_OK || result == SMB_PARSE_CONTINUED;
}

// An SMB header right behind the 4-byte session header ('S' 'M' 'B' after the protocol byte).
bool looks_like_smb(const uint8_t *payload, size_t length) {
    return length > 7 && payload[5] == 'S' && payload[6] == 'M' && payload[7] == 'B';
}

// The filter's two parse steps, the plain ones and those that keep activity counters beside
// the record (activity=1), chosen once per packet.
struct Plain {
    static void note_segment(host_packet *, smb_queue_ctx *, size_t) {}

    // Parses into a record allocated up front: for payloads that almost surely carry SMB.
    static bool parse_in_place(host_packet *pkt, smb_queue_ctx *q, const uint8_t *payload,
                               host_slot *slot) {
        smb_flow_data *rec = smb_record_new();
        if (keeps_record(smb_parse_packet(pkt, rec, q, payload))) {
            *slot = rec;
            return true;
        }
        host_slot discarded = rec;
        smb_record_free(&discarded);
        return false;
    }

    // Parses into a record on the stack and allocates only for a kept result, so that the
    // many packets without SMB cost no allocation.
    static bool parse_on_stack(host_packet *pkt, smb_queue_ctx *q, const uint8_t *payload,
                               host_slot *slot) {
        smb_flow_data local;
        smb_record_init(&local);
        const bool keep = keeps_record(smb_parse_packet(pkt, &local, q, payload));
        if (keep) {
            // The heap record takes over the names that the parser may have attached.
            *slot = smb_record_move_to_heap(&local);
        } else if (local.file_name || local.tree_name) [[unlikely]] {
            smb_name_free(local.file_name);
            smb_name_free(local.tree_name);
        }
        return keep;
    }
};

// A dropped record's counters are parked with the connection (smb_park_activity). A
// retransmitted segment is parsed as any other, but its messages are not counted again.
struct Counting {
    // Most dropped records counted nothing: their counters are still all zero.
    static void park(host_packet *pkt, smb_flow_data *rec, smb_queue_ctx *q) {
        if (rec->activity && rec->activity->counted) smb_park_activity(pkt, rec, q);
    }

    static void note_segment(host_packet *pkt, smb_queue_ctx *q, size_t payload_length) {
        q->repeat_segment =
            q->tcp_seen && smb_tcp_repeat(q->tcp_seen, pkt, static_cast<uint32_t>(payload_length));
    }

    static bool parse_in_place(host_packet *pkt, smb_queue_ctx *q, const uint8_t *payload,
                               host_slot *slot) {
        smb_flow_data *rec = smb_record_new_with_activity();
        if (keeps_record(smb_parse_packet(pkt, rec, q, payload))) {
            *slot = rec;
            return true;
        }
        park(pkt, rec, q);
        host_slot discarded = rec;
        smb_record_free(&discarded);
        return false;
    }

    static bool parse_on_stack(host_packet *pkt, smb_queue_ctx *q, const uint8_t *payload,
                               host_slot *slot) {
        smb_record_block local;
        smb_record_init(&local.rec);
        local.activity = smb_activity{};
        local.rec.activity = &local.activity;
        const bool keep = keeps_record(smb_parse_packet(pkt, &local.rec, q, payload));
        if (keep) {
            *slot = smb_record_move_to_heap(&local.rec);
        } else {
            park(pkt, &local.rec, q);
            // Most packets without a header own nothing: no names, no remote calls, their
            // counters in `local` and without a rename target.
            if (local.rec.file_name || local.rec.tree_name || local.rec.who ||
                local.rec.activity != &local.activity || local.activity.rename_to) [[unlikely]]
                smb_record_release(&local.rec);
        }
        return keep;
    }
};

template <typename Steps>
int filter(smb_queue_ctx *q, host_packet *pkt, host_slot *pkt_slot) {
    const uint8_t *payload = pkt->data + pkt->payload_offset;
    const size_t payload_length = pkt->length - pkt->payload_offset;

    if (q->port == 0) {
        // No port filtering: a packet counts as SMB once the parser made a record for it.
        Steps::note_segment(pkt, q, payload_length);
        if (Steps::parse_on_stack(pkt, q, payload, pkt_slot))
            pkt->flags |= HOST_FLAG_SMB_PORT | HOST_FLAG_SMB_RECORD;
        return 0;
    }
    if (pkt->src_port != q->port && pkt->dst_port != q->port) return 0;
    pkt->flags |= HOST_FLAG_SMB_PORT;
    Steps::note_segment(pkt, q, payload_length);
    const bool kept = looks_like_smb(payload, payload_length)
                          ? Steps::parse_in_place(pkt, q, payload, pkt_slot)
                          : Steps::parse_on_stack(pkt, q, payload, pkt_slot);
    if (kept) pkt->flags |= HOST_FLAG_SMB_RECORD;
    return 0;
}

// Whether the packet is a TCP segment to look at (clearing its slot then): IPv4 fragments are
// not reassembled, so they are not looked at.
[[gnu::always_inline]] inline bool worth_a_look(const host_packet *pkt, host_slot *pkt_slot) {
    if (pkt->ip_version == 4 && pkt->ipv4_aux16 != 0) return false;
    *pkt_slot = nullptr;
    return pkt->payload_offset <= pkt->length && pkt->protocol == kTcp;
}

// The two filters, each out of line with the frame and registers its own steps need (the
// counting one keeps its retransmission check in line and a larger record on the stack); the
// hook only picks one. They take the hook's arguments as they come (and are not cloned), so
// that the hook's jump passes them on untouched.
template <typename Steps>
[[gnu::noinline, gnu::noclone]] int filter_entry(void *queue_ctx, host_packet *pkt, void *,
                                                 host_slot *pkt_slot) {
    auto *q = static_cast<smb_queue_ctx *>(queue_ctx);
    return worth_a_look(pkt, pkt_slot) ? filter<Steps>(q, pkt, pkt_slot) : 0;
}

}  // namespace

int process_smb_filter(void *queue_ctx, host_packet *pkt, void *unused, host_slot *pkt_slot) {
    return static_cast<smb_queue_ctx *>(queue_ctx)->activity
               ? filter_entry<Counting>(queue_ctx, pkt, unused, pkt_slot)
               : filter_entry<Plain>(queue_ctx, pkt, unused, pkt_slot);
}
