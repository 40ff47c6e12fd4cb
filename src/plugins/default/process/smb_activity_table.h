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
#include "smb_table_scheme.h"

enum class SetInfoKind : uint8_t { none = 0, rename = 1, remove = 2 };

struct activity_key {
    uint32_t client_addr32;
    uint16_t client_port;
    uint64_t message_id;

    bool operator==(const activity_key &) const = default;
    auto packed() const { return smb::pack_le(message_id, client_addr32, client_port); }
};

struct activity_record {
    activity_key key;
    uint64_t request_ns;
    uint8_t pending;  // 1 until the final response took the record
    SetInfoKind kind;
    uint8_t *rename_to;  // 128 bytes of UTF-16LE for a rename, owned, or null

    void release() {
        free(rename_to);
        rename_to = nullptr;
    }
};

// Owned by one queue's thread; no lock.
struct activitytable : smb::HashTable<activity_record> {
    uint64_t dropped;  // pending requests pushed out before their response
};

// A SET_INFO request's part of a pending request.
struct PendingSetInfo {
    SetInfoKind kind = SetInfoKind::none;
    const uint8_t *rename_to = nullptr;  // 128 bytes, for a rename
};

activitytable *activitytable_create(int32_t size);
void activitytable_free(activitytable *t);

void activitytable_put(activitytable *t, uint32_t client_addr32, uint16_t client_port,
                       uint64_t message_id, uint64_t request_ns, const PendingSetInfo &set_info);

// What a final response takes from its request.
struct TakenRequest {
    bool found = false;
    uint64_t request_ns = 0;
    SetInfoKind kind = SetInfoKind::none;
    uint8_t rename_to[SMB_NAME_SIZE];
};
// Takes the pending request of `message_id` (found is false when there is none); the record
// stays in its slot but is no longer pending.
bool activitytable_take(activitytable *t, uint32_t client_addr32, uint16_t client_port,
                        uint64_t message_id, TakenRequest &out);

struct conn_key {
    uint32_t client_addr32;
    uint16_t client_port;

    bool operator==(const conn_key &) const = default;
    auto packed() const { return smb::pack_le(client_addr32, client_port); }
};

struct conn_record {
    conn_key key;
    uint16_t dialect;  // 0 while not known
    uint8_t security;  // SMB_SEC_SIGNING_REQUIRED and SMB_SEC_SMB1
    // Counters of messages whose packet left no record (a response that the parser refuses
    // after counting it), owned, or null: handed to the next record of the connection.
    smb_activity *parked;

    void release() {
        free(parked);
        parked = nullptr;
    }
};

// Shared by all queues: hold `lock` (smb::SpinGuard) around every call.
struct conntable : smb::HashTable<conn_record> {
    pthread_spinlock_t lock;
    uint64_t dropped;  // connections pushed out by another one (with their parked counters)
};

conntable *conntable_create(int32_t size);
void conntable_free(conntable *t);

// Sets the dialect (when not 0) and ORs `security` into the connection's record.
void conntable_note(conntable *t, uint32_t client_addr32, uint16_t client_port, uint16_t dialect,
                    uint8_t security);

// Adds `counters` to the connection's parked counters (making its record when needed).
void conntable_park(conntable *t, uint32_t client_addr32, uint16_t client_port,
                    const smb_activity &counters);

// The connection's record, or null.
conn_record *conntable_find(conntable *t, uint32_t client_addr32, uint16_t client_port);
