// The activity counters of a record: allocation, copy, merge and release.
#include "smb_activity.h"

#include <stdlib.h>
#include <string.h>

#include "utils_alloc.h"

smb_activity *smb_activity_alloc(smb_flow_data *rec) {
    rec->activity = smb_activity_block_new();
    return rec->activity;
}

void smb_activity_copy_into(smb_activity *into, const smb_activity &from) {
    *into = from;
    if (from.rename_to) {
        into->rename_to = static_cast<uint8_t *>(corvaneexp_malloc(SMB_NAME_SIZE, 0));
        memcpy(into->rename_to, from.rename_to, SMB_NAME_SIZE);
    }
}

smb_activity *smb_activity_copy(const smb_activity *a) {
    if (!a) return nullptr;
    smb_activity *copy = smb_activity_block_new();
    smb_activity_copy_into(copy, *a);
    return copy;
}

void smb_activity_release(smb_activity *a) {
    free(a->rename_to);
    a->rename_to = nullptr;
}

namespace {

// Out of line: renames are rare, and the call to free would cost every merge a stack frame.
[[gnu::noinline]] void move_rename(smb_activity *into, smb_activity *from) {
    free(into->rename_to);
    into->rename_to = from->rename_to;
    from->rename_to = nullptr;
}

}  // namespace

// Runs for every packet record that counted something, and for every parked one: the sums
// are laid out so that the compiler adds them a vector at a time.
void smb_activity_merge(smb_activity *into, smb_activity *from) {
    into->bytes_read += from->bytes_read;
    into->bytes_written += from->bytes_written;
    into->latency_sum_us += from->latency_sum_us;
    into->reads += from->reads;
    into->writes += from->writes;
    into->errors += from->errors;
    into->renames += from->renames;
    into->deletes += from->deletes;
    into->latency_count += from->latency_count;
    if (from->latency_max_us > into->latency_max_us) into->latency_max_us = from->latency_max_us;
    into->security |= from->security;
    into->counted |= from->counted;
    if (from->errors) into->last_error = from->last_error;
    if (from->dialect) into->dialect = from->dialect;
    if (from->rename_to) [[unlikely]]
        move_rename(into, from);
}

void smb_activity_take(smb_flow_data *into, smb_flow_data *from) {
    smb_activity *a = from->activity;
    if (!a) return;
    if (!into->activity && !smb_activity_is_inline(from)) {
        into->activity = a;
        from->activity = nullptr;
        return;
    }
    // Every count marks its block first: a block not marked is still all zero (most requests'
    // records), and clearing it again would only cost a packet's worth of stores.
    if (a->counted)
        smb_activity_merge(smb_activity_of(into), a);
    else if (smb_activity_is_inline(from))
        return;
    if (smb_activity_is_inline(from)) {
        *a = smb_activity{};
    } else {
        smb_activity_block_free(a);
        from->activity = nullptr;
    }
}

void smb_activity_drop(smb_flow_data *rec) {
    smb_activity *a = rec->activity;
    if (!a) return;
    if (smb_activity_is_inline(rec))
        smb_activity_release(a);
    else
        smb_activity_free(a);
    rec->activity = nullptr;
}

void smb_activity_park(smb_activity *&parked, smb_activity &counters) {
    if (!parked) parked = smb_activity_block_new();
    smb_activity_merge(parked, &counters);
}

void smb_activity_free(smb_activity *a) {
    if (!a) return;
    smb_activity_release(a);
    smb_activity_block_free(a);
}
