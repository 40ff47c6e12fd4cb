// Per-queue message table: the name and request facts of a TREE_CONNECT or CREATE request,
// kept under (client address, client port, message id) until its response arrives.
#pragma once

#include <stdint.h>

#include "smb.h"
#include "smb_table_scheme.h"

struct message_key {
    uint32_t client_addr32;
    uint16_t client_port;
    uint64_t message_id;

    bool operator==(const message_key &) const = default;
    auto packed() const { return smb::pack_le(message_id, client_addr32, client_port); }
};

struct message_record {
    message_key key;
    uint8_t name[SMB_NAME_SIZE];  // UTF-16LE from the wire, zero-filled; all zero for none
    uint8_t op;                   // 255 for a request without operation (TREE_CONNECT)
    uint32_t tree_id;
    uint32_t commands;  // command bits added by messagetable_add_command
    uint64_t linked_message_id;
};

// Owned by one queue's thread; no lock.
struct messagetable : smb::HashTable<message_record> {};

CV_EXPORT messagetable *messagetable_create(int32_t size);
CV_EXPORT void messagetable_free(messagetable *t);

// `name` points to exactly 128 bytes, or is null for a request without name.
CV_EXPORT void messagetable_insert(messagetable *t, const void *name, uint8_t op, uint32_t tree_id,
                                   uint32_t client_addr32, uint16_t client_port,
                                   uint64_t message_id);

// The record's 128-byte name, its four fields written through the non-null pointers; null
// (nothing written) when the key is not present.
CV_EXPORT const uint8_t *messagetable_get_name(messagetable *t, uint32_t client_addr32,
                                               uint16_t client_port, uint64_t message_id,
                                               uint8_t *op, uint32_t *tree_id, uint32_t *commands,
                                               uint64_t *linked_message_id);

// ORs `commands` into the record's and replaces its linked message id; no record is made for a
// missing key.
CV_EXPORT void messagetable_add_command(messagetable *t, uint32_t client_addr32,
                                        uint16_t client_port, uint64_t message_id,
                                        uint32_t commands, uint64_t linked_message_id);
