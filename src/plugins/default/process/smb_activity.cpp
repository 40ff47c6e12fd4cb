// The activity block of a record: allocation, copy and merge.
#include "smb_activity.h"

#include <stdlib.h>
#include <string.h>

#include "utils_alloc.h"

smb_activity *smb_activity_of(smb_flow_data *rec) {
    if (!rec->activity)
        rec->activity = static_cast<smb_activity *>(corvaneexp_malloc(sizeof(smb_activity), 0));
    return rec->activity;
}

smb_activity *smb_activity_copy(const smb_activity *a) {
    if (!a) return nullptr;
    auto *copy = static_cast<smb_activity *>(corvaneexp_malloc(sizeof(smb_activity), 0));
    *copy = *a;
    return copy;
}

void smb_activity_merge(smb_activity *into, const smb_activity *from) {
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
    if (from->errors) into->last_error = from->last_error;
    if (from->dialect) into->dialect = from->dialect;
    if (from->has_rename) {
        into->has_rename = 1;
        memcpy(into->rename_to, from->rename_to, sizeof into->rename_to);
    }
}

void smb_activity_take(smb_flow_data *into, smb_flow_data *from) {
    if (!from->activity) return;
    if (!into->activity) {
        into->activity = from->activity;
    } else {
        smb_activity_merge(into->activity, from->activity);
        free(from->activity);
    }
    from->activity = nullptr;
}
