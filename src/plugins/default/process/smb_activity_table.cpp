#include "smb_activity_table.h"

#include <string.h>

#include "smb_activity.h"

activitytable *activitytable_create(int32_t size) {
    auto *t = static_cast<activitytable *>(corvaneexp_malloc(sizeof(activitytable), 1));
    const int64_t count = smb::slot_count(size);
    t->slots = static_cast<pending_request *>(
        corvaneexp_malloc(size_t(count) * sizeof(pending_request), 1));
    t->size = static_cast<uint32_t>(count);
    t->shift = 64 - static_cast<uint32_t>(__builtin_ctzll(static_cast<uint64_t>(count)));
    return t;
}

void activitytable_free(activitytable *t) {
    if (!t) return;
    for (uint32_t i = 0; i < t->size; ++i)
        free(t->slots[i].rename_to);
    free(t->slots);
    free(t);
}

// The slot's rename name (of an earlier request) is freed; a rename keeps a copy of its own.
void activitytable_put_rename(pending_request &r, const uint8_t *rename_to) {
    free(r.rename_to);
    r.rename_to = nullptr;
    if (r.kind == SetInfoKind::rename && rename_to) {
        r.rename_to = static_cast<uint8_t *>(corvaneexp_malloc(SMB_NAME_SIZE, 0));
        memcpy(r.rename_to, rename_to, SMB_NAME_SIZE);
    }
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
