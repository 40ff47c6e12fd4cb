// Per-queue second message table: the file id, tree id and delete mark of a request on an open
// file, kept under (client address, client port, message id) until its response arrives.
#pragma once

#include <stdint.h>

#include "smb.h"
#include "smb_table_scheme.h"

struct message2_key {
    uint32_t client_addr32;
    uint16_t client_port;
    uint64_t message_id;

    bool operator==(const message2_key &) const = default;
    auto packed() const { return smb::pack_le(message_id, client_addr32, client_port); }
};

struct message2_record {
    message2_key key;
    uint64_t file_id;
    uint32_t tree_id;
    uint8_t delete_requested;  // 1 for a SET_INFO asking for delete-on-close
};

// Owned by one queue's thread; no lock.
struct messagetable2 : smb::HashTable<message2_record> {};

CV_EXPORT messagetable2 *messagetable2_create(int32_t size);
CV_EXPORT void messagetable2_free(messagetable2 *t);

CV_EXPORT void messagetable2_insert(messagetable2 *t, uint64_t file_id, uint32_t tree_id,
                                    uint32_t client_addr32, uint16_t client_port,
                                    uint64_t message_id, uint8_t delete_requested);

// The record's file id, its tree id and delete mark written through the non-null pointers; 0
// (nothing written) when the key is not present.
CV_EXPORT uint64_t messagetable2_get_file_id(messagetable2 *t, uint32_t client_addr32,
                                             uint16_t client_port, uint64_t message_id,
                                             uint32_t *tree_id, uint8_t *delete_requested);
