// Shared data table: for each client side of a connection and each direction, the one SMB2
// message still arriving in later TCP segments.
//
// An entry either holds a buffer with the first bytes of a compound message (at most 8192
// bytes, allocated once at the message's full length) that the following segments complete,
// or, without buffer, the tree and file ids of a single message whose first segment was
// parsed, for its later segments that carry no SMB header. Unlike the other tables, an insert
// or save replaces the slot's record even for the same key (the newest message wins), and an
// entry is removed once its message has been parsed.
//
// Buffer safety between queues. All queues share this table, and another queue may at any
// time replace the entry on a slot (a different client key hashing to it frees the old
// buffer). A saved buffer therefore never leaves the lock: a continuation segment is handled
// by one datatable_continue call, made with the table's lock held, which looks the key up,
// appends the segment to the entry's buffer in place, and either accounts the segment
// (datatable_update_data_len) or, when the message is complete, copies it whole into the
// caller's own 8192-byte message buffer and removes the entry (datatable_remove_record). After
// the lock is released the caller parses its private copy and touches nothing the table owns,
// so it may take the tree and file tables' locks while parsing without holding this one. No
// entry is ever detached from its slot and put back later: whatever another queue saved into
// a slot meanwhile simply stays there, so the newest entry on a slot always wins.
#pragma once

#include <pthread.h>
#include <stdint.h>

#include <span>

#include "smb.h"
#include "smb_table_scheme.h"

struct data_key {
    uint32_t client_addr;
    uint16_t client_port;
    uint8_t is_response;  // 0 client to server, 1 server to client

    bool operator==(const data_key &) const = default;
    auto packed() const { return smb::pack_le(client_addr, client_port, is_response); }
};

struct data_record {
    data_key key;
    uint32_t tree_id;        // entry without buffer
    uint64_t file_id;        // entry without buffer
    uint8_t *buffer;         // entry with buffer: total_length bytes, session header first
    uint32_t total_length;   // size of buffer; 0 without buffer
    uint32_t saved_length;   // bytes of the message held in buffer; 0 without buffer
    uint32_t segments;       // segments stored, 0 without buffer
    uint32_t segment_bytes;  // wrapping sum of the stored segments' byte counters

    // Frees the buffer; the record then reads as an entry without buffer.
    void release() {
        free(buffer);
        buffer = nullptr;
        total_length = 0;
        saved_length = 0;
    }
};

// Shared by all queues: hold `lock` (smb::SpinGuard) around every call.
struct datatable : smb::HashTable<data_record> {
    pthread_spinlock_t lock;
};

// The largest message ever buffered, and so the size of a completed message's copy.
inline constexpr uint32_t kDataMessageMax = 8192;

CV_EXPORT datatable *datatable_create(int32_t size);
CV_EXPORT void datatable_free(datatable *t);

// Makes the key's slot an entry without buffer holding the two ids.
CV_EXPORT void datatable_insert(datatable *t, uint32_t tree_id, uint64_t file_id,
                                uint32_t client_addr, uint16_t client_port, uint8_t is_response);

// Makes the key's slot an entry with a new zeroed buffer of `total_length` bytes, beginning
// with the `length` bytes at `data` (clipped to total_length), one segment counted.
CV_EXPORT void datatable_save_data(datatable *t, uint32_t client_addr, uint16_t client_port,
                                   uint8_t is_response, uint32_t total_length, const void *data,
                                   uint32_t length, uint32_t byte_counter);

// -1: the key is not present, nothing written. 1: an entry with buffer; total_length, buffer,
// saved_length, segments and segment_bytes are written through the non-null pointers. 0: an
// entry without buffer; tree_id, file_id, total_length and saved_length are written.
CV_EXPORT int32_t datatable_get_ids(datatable *t, uint32_t client_addr, uint16_t client_port,
                                    uint8_t is_response, uint32_t *tree_id, uint64_t *file_id,
                                    uint32_t *total_length, uint8_t **buffer,
                                    uint32_t *saved_length, uint32_t *segments,
                                    uint32_t *segment_bytes);

// Accounts one appended segment: saved_length replaced, one more segment, byte counter added.
CV_EXPORT void datatable_update_data_len(datatable *t, uint32_t client_addr, uint16_t client_port,
                                         uint8_t is_response, uint32_t saved_length,
                                         uint32_t byte_counter);

// Frees the key's entry and empties its slot; another key's entry is left alone.
CV_EXPORT void datatable_remove_record(datatable *t, uint32_t client_addr, uint16_t client_port,
                                       uint8_t is_response);

struct datatable_continuation {
    int result;              // -1 no entry; 0 entry without buffer (ids); 1 appended, still
                             // incomplete; 2 appended and complete
    uint32_t tree_id;        // result 0
    uint64_t file_id;        // result 0
    uint32_t total_length;   // results 0..2 (T)
    uint32_t segments;       // result 2: the entry's segment count before removal
    uint32_t segment_bytes;  // result 2: the entry's segment byte sum before removal
};

// Call with the table's lock held. Looks the key up with datatable_get_ids; for an entry with
// a buffer, appends the payload in place (clipped to total_length); when the message is
// complete, copies all T bytes into `message` and removes the entry with
// datatable_remove_record, so nothing the table owns is used after the lock is released;
// otherwise accounts the segment with datatable_update_data_len(new saved length,
// byte_counter). A message longer than `message` (never saved by the parser) is completed with
// its first 8192 bytes and total_length 8192.
datatable_continuation datatable_continue(datatable *t, uint32_t client_addr, uint16_t client_port,
                                          uint8_t is_response, std::span<const uint8_t> payload,
                                          uint32_t byte_counter,
                                          std::span<uint8_t, kDataMessageMax> message);
