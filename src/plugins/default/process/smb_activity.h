// The opt-in activity counters of a record (plug-in parameter activity=1): what the SMB2
// messages attributed to the record did, summed when records merge.
//
// With activity=1 every record the queue filter makes carries its counters in the same
// allocation, right behind the record (smb_record_block), so that counting costs no allocation
// of its own. Counters parked in the tables, and those of records made elsewhere, are blocks of
// their own. Whatever else a later field needs per record belongs in smb_activity too, with
// its summing rule in smb_activity_merge and, for owned memory, its release in
// smb_activity_release and its copy in smb_activity_copy_into.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "smb.h"
#include "smb_who.h"

// SMB_SECURITY bits.
#define SMB_SEC_SIGNING_REQUIRED 0x01u  // NEGOTIATE response SecurityMode has SIGNING_REQUIRED
#define SMB_SEC_SIGNED 0x02u            // a message with SMB2_FLAGS_SIGNED
#define SMB_SEC_ENCRYPTED 0x04u         // a transform header
#define SMB_SEC_GUEST_OR_NULL 0x08u     // SESSION_SETUP response SessionFlags IS_GUEST / IS_NULL
#define SMB_SEC_SMB1 0x10u              // an SMB1 message on the connection

// The counters that merging sums come first and side by side, so that a merge adds them a
// vector at a time (smb_activity_merge).
struct smb_activity {
    uint64_t bytes_read;
    uint64_t bytes_written;
    uint64_t latency_sum_us;
    uint32_t reads;
    uint32_t writes;
    uint32_t errors;
    uint32_t renames;
    uint32_t deletes;
    uint32_t latency_count;
    uint32_t last_error;
    uint32_t latency_max_us;
    uint16_t dialect;
    uint8_t security;  // only in counters parked in a table: the record keeps its own
    uint8_t counted;   // 1 once a final response was counted here
    // UTF-16LE target of the last rename (128 bytes, zero-filled), owned, or null when no
    // rename was counted. Renames are rare: the name stays out of the block.
    uint8_t *rename_to;
};

// A record, its counters and room for its identity and remote calls in one allocation. The
// room is in use when rec.who points to it: post-processing gives most exported records of
// activity=1 an smb_who, which then costs no allocation of its own.
struct smb_record_block {
    smb_flow_data rec;
    smb_activity activity;
    smb_who who;
};

// True when the record's counters live in its own allocation (smb_record_block). A block's
// counters stay there until the record is released, so this also tells a block from a plain
// record.
inline bool smb_activity_is_inline(const smb_flow_data *rec) {
    return rec->activity ==
           &reinterpret_cast<smb_record_block *>(const_cast<smb_flow_data *>(rec))->activity;
}

// The block's room for an smb_who, or null for a record that is not a block.
inline smb_who *smb_who_room(smb_flow_data *rec) {
    return smb_activity_is_inline(rec) ? &reinterpret_cast<smb_record_block *>(rec)->who : nullptr;
}

// True when the record's smb_who is the one in its block's room (not an allocation of its own).
inline bool smb_who_is_inline(const smb_flow_data *rec) {
    return rec->who && smb_activity_is_inline(rec) &&
           rec->who == &reinterpret_cast<smb_record_block *>(const_cast<smb_flow_data *>(rec))->who;
}

// A separate zero-filled block of counters, and its release (what it owns is not freed). The
// blocks are reused by the thread that frees them, as records are.
smb_activity *smb_activity_block_new(void);
void smb_activity_block_free(smb_activity *a);

// Gives the record a separate zero-filled block of counters.
smb_activity *smb_activity_alloc(smb_flow_data *rec);

// The record's counters, allocated zero-filled on first use when it has none.
inline smb_activity *smb_activity_of(smb_flow_data *rec) {
    return rec->activity ? rec->activity : smb_activity_alloc(rec);
}

// A separate block holding a deep copy of `a`, or null for null.
smb_activity *smb_activity_copy(const smb_activity *a);

// Makes `into` a deep copy of `from`.
void smb_activity_copy_into(smb_activity *into, const smb_activity &from);

// Frees what the counters own (not the block).
void smb_activity_release(smb_activity *a);

// Adds `from` into `into`: counters summed, the latency maximum kept, security bits ORed, and
// the last error, rename target and dialect taken from `from` when it has them (the rename
// target moves: `from` is left without one).
void smb_activity_merge(smb_activity *into, smb_activity *from);

// Merges the counters of `from` into `into` (making a block for `into` when it has none) and
// leaves `from` without counters of its own: a separate block is freed, inline counters zeroed.
void smb_activity_take(smb_flow_data *into, smb_flow_data *from);

// Frees the record's counters: what they own, and the block unless it is inline.
void smb_activity_drop(smb_flow_data *rec);

// Counters parked in a table record for the record that later takes its parked command masks:
// `counters` are added to `parked` (a block made when there is none).
void smb_activity_park(smb_activity *&parked, smb_activity &counters);

// Frees a separate block and what it owns; null is ignored.
void smb_activity_free(smb_activity *a);
