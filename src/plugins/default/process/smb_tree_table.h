// Shared tree table: the share path of every tree id granted on a connection, and command
// masks parked for the first post-processing that resolves the tree.
#pragma once

#include <pthread.h>
#include <stdint.h>

#include "smb.h"
#include "smb_table_scheme.h"

struct tree_key {
    uint32_t client_addr32;
    uint16_t client_port;
    uint32_t tree_id;

    bool operator==(const tree_key &) const = default;
    auto packed() const { return smb::pack_le(tree_id, client_addr32, client_port); }
};

struct tree_record {
    tree_key key;
    uint8_t name[SMB_NAME_SIZE];   // share path, UTF-16LE, zero-filled; all zero for none
    uint32_t pending_commands[2];  // request and response masks, handed out once
};

// Shared by all queues: hold `lock` (smb::SpinGuard) around every call.
struct treetable : smb::HashTable<tree_record> {
    pthread_spinlock_t lock;
};

CV_EXPORT treetable *treetable_create(int32_t size);
CV_EXPORT void treetable_free(treetable *t);

// `name` points to exactly 128 bytes or is null; `pending_commands` to two masks or is null.
// Returns an smb::InsertOutcome (0 created, 1 key already present and kept, 2 replaced another
// key).
CV_EXPORT int treetable_insert(treetable *t, const void *name, const uint32_t *pending_commands,
                               uint32_t client_addr32, uint16_t client_port, uint32_t tree_id);

// The record's 128-byte path, or null when the key is not present. With `pending_commands`
// not null, the two parked masks are moved out to it (left zero in the record).
CV_EXPORT const uint8_t *treetable_get_tree(treetable *t, uint32_t client_addr32,
                                            uint16_t client_port, uint32_t tree_id,
                                            uint32_t *pending_commands);
