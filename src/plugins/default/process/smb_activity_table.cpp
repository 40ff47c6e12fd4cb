#include "smb_activity_table.h"

#include <string.h>

#include "smb_activity.h"
#include "utils_alloc.h"

activitytable *activitytable_create(int32_t size) {
    auto *t = static_cast<activitytable *>(corvaneexp_malloc(sizeof(activitytable), 1));
    const int64_t count = smb::slot_count(size);
    t->slots = static_cast<pending_request *>(
        cv::alloc::allocate_zeroed(size_t(count) * sizeof(pending_request)));
    t->size = static_cast<uint32_t>(count);
    // Two slots to a bucket: one bit fewer picks the bucket.
    t->shift = 65 - static_cast<uint32_t>(__builtin_ctzll(static_cast<uint64_t>(count)));
    return t;
}

void activitytable_free(activitytable *t) {
    if (!t) return;
    if (t->renames) {
        for (uint32_t i = 0; i < t->size; ++i)
            free(t->renames[i]);
        free(t->renames);
    }
    free(t->slots);
    free(t);
}

// The slot's rename name (of an earlier request) is freed; a rename keeps a copy of its own.
void activitytable_put_rename(activitytable *t, uint32_t index, const PendingSetInfo &set_info) {
    if (t->renames) {
        free(t->renames[index]);
        t->renames[index] = nullptr;
    }
    if (set_info.kind != SetInfoKind::rename || !set_info.rename_to) return;
    if (!t->renames)
        t->renames =
            static_cast<uint8_t **>(cv::alloc::allocate_zeroed(t->size * sizeof(uint8_t *)));
    auto *name = static_cast<uint8_t *>(cv::alloc::allocate_uninitialised(SMB_NAME_SIZE));
    memcpy(name, set_info.rename_to, SMB_NAME_SIZE);
    t->renames[index] = name;
}

conntable *conntable_create(int32_t size) {
    return smb::create_table<conntable>(size);
}

void conntable_free(conntable *t) {
    smb::free_table(t);
}

namespace {

conn_record &record_for(conntable *t, const conn_key &key) {
    bool evicted;
    conn_record &r = t->claim(key, evicted);
    if (evicted) ++t->dropped;
    return r;
}

}  // namespace

void conn_record::release() {
    smb_activity_free(parked);
    parked = nullptr;
}

void conntable_park(conntable *t, uint32_t client_addr32, uint16_t client_port,
                    smb_activity &counters) {
    smb_activity_park(record_for(t, {client_addr32, client_port}).parked, counters);
}

void conntable_note(conntable *t, uint32_t client_addr32, uint16_t client_port, uint16_t dialect,
                    uint8_t security) {
    conn_record *r = &record_for(t, {client_addr32, client_port});
    if (dialect) r->dialect = dialect;
    r->security |= security;
}

conn_record *conntable_find(conntable *t, uint32_t client_addr32, uint16_t client_port) {
    return t->find({client_addr32, client_port});
}
