// Tables of the opt-in activity fields.
//
// The per-queue activity table keeps, under (client address, client port, message id), the
// capture time of every SMB2 request until its final response arrives, and what a SET_INFO
// request asked for (a rename with its new name, or a delete), whose outcome only the response
// tells. The shared connection table keeps, under (client address, client port), the dialect
// and security facts that the NEGOTIATE exchange and SMB1 messages give the whole connection.
//
// Both follow the one-slot scheme of smb_table_scheme.h. A request that another request pushes
// out of its slot before its response came, and a connection pushed out by another, are
// counted as dropped.
#pragma once

#include <pthread.h>
#include <stdint.h>

#include "smb.h"
#include "smb_activity.h"
#include "smb_table_scheme.h"

enum class SetInfoKind : uint8_t { none = 0, rename = 1, remove = 2 };

// One request waiting for its final response, kept in its slot: 24 bytes, no allocation. A
// rename's new name, which few requests have, waits beside the table (activitytable::renames).
struct pending_request {
    uint64_t message_id;
    uint64_t request_ns;
    uint32_t client_addr32;
    uint16_t client_port;
    uint8_t pending;  // 1 until the final response took it
    SetInfoKind kind;

    bool is(uint32_t addr, uint16_t port, uint64_t id) const {
        return message_id == id && client_addr32 == addr && client_port == port;
    }
};
static_assert(sizeof(pending_request) == 24);

// Owned by one queue's thread; no lock. Every request of the queue is put and every final
// response takes, so the table is an array of records found by a multiplicative hash, which is
// cheaper than the CRC of the shared tables, with no chaining or ageing. A key may sit in
// either of the two slots of its bucket (adjacent, mostly on one cache line): a request pushes
// out another only when both slots hold requests still pending, and then the older one, so
// that the table loses far fewer requests than one slot per key would at twice the size. The
// array is zeroed by the system (calloc), so that its pages cost memory only once keys land on
// them.
struct activitytable {
    pending_request *slots;
    // The rename names of the slots (128 bytes of UTF-16LE each, owned, or null), made on the
    // first rename and, being zeroed by the system too, only touched where renames land.
    uint8_t **renames;
    uint32_t size;     // slots: a power of two, as smb::slot_count gives it
    uint32_t shift;    // 64 - log2(size / 2): the hash bits that pick a bucket
    uint64_t dropped;  // pending requests pushed out before their response

    // The first of the bucket's two slots.
    uint32_t bucket_of(uint32_t addr, uint16_t port, uint64_t id) const {
        const uint64_t conn = (uint64_t{addr} << 16) | port;
        const uint64_t h = (id + conn * 0x9E3779B97F4A7C15ull) * 0xD6E8FEB86659FD93ull;
        return static_cast<uint32_t>(h >> shift) * 2;
    }
};

// A SET_INFO request's part of a pending request.
struct PendingSetInfo {
    SetInfoKind kind = SetInfoKind::none;
    const uint8_t *rename_to = nullptr;  // 128 bytes, for a rename
};

activitytable *activitytable_create(int32_t size);
void activitytable_free(activitytable *t);

// Remembers a request (a repeat of the key replaces it: a request id is used once per
// connection).
void activitytable_put_rename(activitytable *t, uint32_t index, const PendingSetInfo &set_info);
inline void activitytable_put(activitytable *t, uint32_t client_addr32, uint16_t client_port,
                              uint64_t message_id, uint64_t request_ns,
                              const PendingSetInfo &set_info) {
    const uint32_t first = t->bucket_of(client_addr32, client_port, message_id);
    pending_request *const b = t->slots + first;
    // The bucket's 48 bytes may span two pages (see touch_for_write).
    smb::touch_for_write(&b[0]);
    smb::touch_for_write(&b[1].kind);
    // The key's own slot; else one without a pending request (the first); else the older.
    uint32_t way;
    if (b[0].is(client_addr32, client_port, message_id))
        way = 0;
    else if (b[1].is(client_addr32, client_port, message_id))
        way = 1;
    else if (!b[0].pending)
        way = 0;
    else if (!b[1].pending)
        way = 1;
    else {
        way = b[1].request_ns < b[0].request_ns ? 1 : 0;
        ++t->dropped;
    }
    const uint32_t index = first + way;
    pending_request &r = t->slots[index];
    r.message_id = message_id;
    r.request_ns = request_ns;
    r.client_addr32 = client_addr32;
    r.client_port = client_port;
    r.pending = 1;
    r.kind = set_info.kind;
    if ((t->renames && t->renames[index]) || set_info.kind == SetInfoKind::rename) [[unlikely]]
        activitytable_put_rename(t, index, set_info);
}

// What a final response takes from its request.
struct TakenRequest {
    bool found = false;
    uint64_t request_ns = 0;
    SetInfoKind kind = SetInfoKind::none;
    uint8_t *rename_to = nullptr;  // 128 bytes or null, now owned by the caller
};
// Takes the pending request of `message_id` (found is false when there is none); the record
// stays in its slot but is no longer pending.
inline bool activitytable_take(activitytable *t, uint32_t client_addr32, uint16_t client_port,
                               uint64_t message_id, TakenRequest &out) {
    uint32_t index = t->bucket_of(client_addr32, client_port, message_id);
    if (!t->slots[index].is(client_addr32, client_port, message_id)) ++index;
    pending_request &r = t->slots[index];
    if (!r.pending || !r.is(client_addr32, client_port, message_id)) return out.found = false;
    r.pending = 0;
    out.found = true;
    out.request_ns = r.request_ns;
    out.kind = r.kind;
    // Only a rename request leaves a name in its slot (a put of another request frees any).
    if (r.kind == SetInfoKind::rename && t->renames) [[unlikely]] {
        out.rename_to = t->renames[index];
        t->renames[index] = nullptr;
    }
    return true;
}

struct conn_key {
    uint32_t client_addr32;
    uint16_t client_port;

    bool operator==(const conn_key &) const = default;
    auto packed() const { return smb::pack_le(client_addr32, client_port); }
    // Looked up for every NEGOTIATE, SMB1 message and parked response: a multiplicative hash,
    // its high bits folded down to the slot bits.
    uint32_t hash() const {
        const uint64_t h = ((uint64_t{client_addr32} << 16) | client_port) * 0x9E3779B97F4A7C15ull;
        return static_cast<uint32_t>(h >> 32) ^ static_cast<uint32_t>(h >> 17);
    }
};

struct conn_record {
    conn_key key;
    uint16_t dialect;  // 0 while not known
    uint8_t security;  // SMB_SEC_SIGNING_REQUIRED and SMB_SEC_SMB1
    // Counters of messages whose packet left no record (a response that the parser refuses
    // after counting it), owned, or null: handed to the next record of the connection.
    smb_activity *parked;
    uint64_t used;  // the table's stamp

    void release();
};

// Shared by all queues: hold `lock` (smb::SpinGuard) around every call.
struct conntable : smb::BucketTable<conn_record> {
    pthread_spinlock_t lock;
    uint64_t dropped;  // connections pushed out by another one (with their parked counters)
};

conntable *conntable_create(int32_t size);
void conntable_free(conntable *t);

// Sets the dialect (when not 0) and ORs `security` into the connection's record.
void conntable_note(conntable *t, uint32_t client_addr32, uint16_t client_port, uint16_t dialect,
                    uint8_t security);

// Adds `counters` to the connection's parked counters (making its record when needed); a
// rename target moves over.
void conntable_park(conntable *t, uint32_t client_addr32, uint16_t client_port,
                    smb_activity &counters);

// The connection's record, or null.
conn_record *conntable_find(conntable *t, uint32_t client_addr32, uint16_t client_port);

// A compound chain longer than the reassembly bound, followed through its later segments so
// that every message of it counts (activity=1): the offset of the next header not yet counted
// and, when a header and fixed part straddle two segments, the bytes of it seen so far.
struct chain_cursor {
    static constexpr uint32_t kHead = 384;  // a header and any fixed part that counting reads

    uint32_t client_addr32;
    uint16_t client_port;
    uint8_t direction;  // 0 client to server, 1 server to client
    uint8_t active;
    uint32_t total;  // SMB2 bytes of the session message
    uint32_t seen;   // SMB2 bytes of it that the segments so far held
    uint32_t next;   // offset of the next header not yet counted
    uint32_t held;   // bytes of that message gathered in head
    uint8_t head[kHead];
};

// Per queue (both directions of a connection go to one queue), made with activity=1; one slot
// per key, the newest chain wins.
struct chaintable {
    static constexpr uint32_t kSlots = 256;
    chain_cursor slots[kSlots];
    uint64_t dropped;  // chains pushed out by another before their end

    chain_cursor &slot(uint32_t addr, uint16_t port, uint8_t direction) {
        const uint64_t h =
            ((uint64_t{addr} << 17) | (uint64_t{port} << 1) | direction) * 0x9E3779B97F4A7C15ull;
        return slots[h >> 56];
    }
};
