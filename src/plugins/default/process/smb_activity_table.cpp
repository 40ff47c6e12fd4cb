#include "smb_activity_table.h"

#include <string.h>

#include "smb_activity.h"

activitytable *activitytable_create(int32_t size) {
    return smb::create_table<activitytable>(size);
}

void activitytable_free(activitytable *t) {
    smb::free_table(t);
}

void activitytable_put(activitytable *t, uint32_t client_addr32, uint16_t client_port,
                       uint64_t message_id, uint64_t request_ns, const PendingSetInfo &set_info) {
    const activity_key key{client_addr32, client_port, message_id};
    const activity_record *old = t->slot(key);
    if (old && old->pending && !(old->key == key)) ++t->dropped;
    // A request id is used once per connection: a repeat replaces the old entry.
    activity_record &r = t->replace(key);
    r.request_ns = request_ns;
    r.pending = 1;
    r.kind = set_info.kind;
    if (set_info.kind == SetInfoKind::rename && set_info.rename_to) {
        r.rename_to = static_cast<uint8_t *>(corvaneexp_malloc(SMB_NAME_SIZE, 0));
        memcpy(r.rename_to, set_info.rename_to, SMB_NAME_SIZE);
    }
}

bool activitytable_take(activitytable *t, uint32_t client_addr32, uint16_t client_port,
                        uint64_t message_id, TakenRequest &out) {
    activity_record *r = t->find({client_addr32, client_port, message_id});
    if (!r || !r->pending) return out.found = false;
    r->pending = 0;
    out.found = true;
    out.request_ns = r->request_ns;
    out.kind = r->kind;
    if (r->rename_to)
        memcpy(out.rename_to, r->rename_to, SMB_NAME_SIZE);
    else
        memset(out.rename_to, 0, SMB_NAME_SIZE);
    r->release();
    return true;
}

conntable *conntable_create(int32_t size) {
    return smb::create_table<conntable>(size);
}

void conntable_free(conntable *t) {
    smb::free_table(t);
}

namespace {

conn_record &record_for(conntable *t, const conn_key &key) {
    if (conn_record *r = t->find(key)) return *r;
    if (t->slot(key)) ++t->dropped;
    return t->replace(key);
}

}  // namespace

void conntable_park(conntable *t, uint32_t client_addr32, uint16_t client_port,
                    const smb_activity &counters) {
    conn_record &r = record_for(t, {client_addr32, client_port});
    if (!r.parked) r.parked = static_cast<smb_activity *>(corvaneexp_malloc(sizeof counters, 0));
    smb_activity_merge(r.parked, &counters);
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
