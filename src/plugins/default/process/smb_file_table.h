// Shared file table: what each open file id on a connection stands for (name, type, the
// CREATE operation, its tree), command masks parked for post-processing and the outcome of
// delete requests.
#pragma once

#include <pthread.h>
#include <stdint.h>

#include "smb.h"
#include "smb_table_scheme.h"

struct file_key {
    uint32_t client_addr32;
    uint16_t client_port;
    uint64_t file_id;  // persistent part of the SMB2 FileId

    bool operator==(const file_key &) const = default;
    auto packed() const { return smb::pack_le(file_id, client_addr32, client_port); }
};

// Bits of delete_flags, each consumed by filetable_get_delete_flag.
#define SMB_DELETE_SUCCEEDED 0x01u
#define SMB_DELETE_FAILED 0x02u

struct file_record {
    file_key key;
    uint8_t name[SMB_NAME_SIZE];   // UTF-16LE, zero-filled; all zero when not known
    uint8_t name_empty;            // 1 when the CREATE named the share root itself
    uint8_t file_type;             // 1 directory, 2 file, 0 not known
    uint8_t op;                    // CREATE operation; 63 for records made without a CREATE
    uint32_t pending_commands[2];  // request and response masks, handed out once
    uint32_t tree_id;
    uint8_t delete_flags;
};

// Shared by all queues: hold `lock` (smb::SpinGuard) around every call.
struct filetable : smb::HashTable<file_record> {
    pthread_spinlock_t lock;
};

CV_EXPORT filetable *filetable_create(int32_t size);
CV_EXPORT void filetable_free(filetable *t);

// `name` points to exactly 128 bytes or is null; `pending_commands` to two masks or is null.
// Returns an smb::InsertOutcome (0 created, 1 key already present and kept, 2 replaced another
// key).
CV_EXPORT int filetable_insert(filetable *t, const void *name, uint8_t name_empty,
                               uint8_t file_type, uint8_t op, const uint32_t *pending_commands,
                               uint32_t tree_id, uint32_t client_addr32, uint16_t client_port,
                               uint64_t file_id);

// The record's 128-byte name, or null (nothing written) when the key is not present. The
// non-null pointers receive the fields; `pending_commands` takes the two parked masks out of
// the record.
CV_EXPORT const uint8_t *filetable_get_file(filetable *t, uint32_t client_addr32,
                                            uint16_t client_port, uint64_t file_id,
                                            uint8_t *file_type, uint8_t *op,
                                            uint32_t *pending_commands, uint8_t *name_empty);

// The record's tree id, 0 when the key is not present.
CV_EXPORT uint32_t filetable_get_tree_id(filetable *t, uint32_t client_addr32, uint16_t client_port,
                                         uint64_t file_id);

// ORs the two masks into the record's pending ones. On an empty slot a nameless record (op 63)
// is made for the key; a slot that holds another file's record is left alone.
CV_EXPORT void filetable_add_command(filetable *t, uint32_t client_addr32, uint16_t client_port,
                                     uint64_t file_id, const uint32_t *commands);

// Sets delete_flags to `flags` (SMB_DELETE_*), making a nameless record on an empty slot and
// leaving another file's record alone.
CV_EXPORT void filetable_set_delete_flag(filetable *t, uint32_t client_addr32, uint16_t client_port,
                                         uint64_t file_id, uint8_t flags);

// Selector 0 reports (and clears) a succeeded delete, selector 1 a failed one: 1 once per
// recorded outcome, else 0.
CV_EXPORT int filetable_get_delete_flag(filetable *t, uint32_t client_addr32, uint16_t client_port,
                                        uint64_t file_id, uint8_t selector);
