// Hooks that work on records already made: moving a packet's record into its flow or merging it
// there, handing the host deep copies, and freeing records that the host drops. None of them
// takes a lock: the records in a queue's slots belong to that queue.
#include "smb.h"
#include "smb_activity.h"
#include "smb_who.h"

namespace {

// A flow that has seen this many packets without a single SMB record is not SMB traffic the
// plug-in can follow; the host stops offering its packets to the update hook.
constexpr uint64_t kPacketsBeforeGivingUp = 10;

smb_flow_data *record_of(host_slot *slot) {
    return static_cast<smb_flow_data *>(*slot);
}

void *attach_or_give_up(smb_queue_ctx *q, host_flow_record *flow, host_slot *pkt_slot,
                        host_slot *flow_slot) {
    if (smb_flow_data *rec = record_of(pkt_slot)) {
        *flow_slot = rec;
        *pkt_slot = nullptr;
        flow->flags |= HOST_FLAG_SMB_RECORD;
        return rec;
    }
    if (flow->dir_counters[0].packets + flow->dir_counters[1].packets > kPacketsBeforeGivingUp)
        return corvane_hook_update_remove(flow, q->queue_id, process_smb_update);
    return nullptr;
}

// Only the command bits (and a delete learned from SET_INFO) of later packets reach the flow's
// record; identifiers, names and the operation code stay those of the flow's first record.
// The packet's activity counters (activity=1 only) are added whatever the version.
void merge(smb_flow_data *flow_rec, smb_flow_data *pkt_rec, bool first_direction,
           const host_flow_record *flow) {
    // Most packet records counted nothing: counters of their own allocation that no count
    // marked are all zero and need no call.
    if (const smb_activity *a = pkt_rec->activity;
        a && (a->counted || !smb_activity_is_inline(pkt_rec)))
        smb_activity_take(flow_rec, pkt_rec);
    // Both are only ever set with activity=1: the default run makes no call here.
    if (pkt_rec->session_id || pkt_rec->who) smb_who_take(flow_rec, pkt_rec);
    flow_rec->security |= pkt_rec->security;
    if (pkt_rec->version == SMB_VERSION_1) {
        // SMB1 carries one command per message: the first answer from the other side is the
        // flow's response command, as long as the flow has not counted that side yet.
        const int other_block = (flow->flags & HOST_FLAG_DIRECTION) ? 0 : 1;
        if (!first_direction && flow->dir_counters[other_block].packets == 0)
            flow_rec->commands[1] = pkt_rec->commands[0];
        return;
    }
    flow_rec->commands[first_direction ? 0 : 1] |= pkt_rec->commands[0];
    if ((pkt_rec->commands[0] | pkt_rec->commands[1]) & SMB_CMD_SET_INFO)
        flow_rec->op |= pkt_rec->op & SMB_OP_DELETE;
}

}  // namespace

void *process_smb_update(void *queue_ctx, host_packet *pkt, host_flow_record *flow,
                         host_slot *pkt_slot, host_slot *flow_slot) {
    smb_flow_data *flow_rec = record_of(flow_slot);
    if (!flow_rec)
        return attach_or_give_up(static_cast<smb_queue_ctx *>(queue_ctx), flow, pkt_slot,
                                 flow_slot);
    if (smb_flow_data *pkt_rec = record_of(pkt_slot))
        merge(flow_rec, pkt_rec, pkt->dst_port == flow->dst_port, flow);
    return flow_rec;
}

void process_smb_release(void *, void *, host_slot *src, void *, host_slot *dst, int copy) {
    if (copy && *src) *dst = smb_record_copy(record_of(src));
}

void process_smb_callback(void *, host_slot *slot) {
    smb_record_free(slot);
}
