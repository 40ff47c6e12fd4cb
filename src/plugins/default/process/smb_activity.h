// The opt-in activity counters of a record (plug-in parameter activity=1): what the SMB2
// messages attributed to the record did, summed when records merge.
#pragma once

#include <stdint.h>

#include "smb.h"

// SMB_SECURITY bits.
#define SMB_SEC_SIGNING_REQUIRED 0x01u  // NEGOTIATE response SecurityMode has SIGNING_REQUIRED
#define SMB_SEC_SIGNED 0x02u            // a message with SMB2_FLAGS_SIGNED
#define SMB_SEC_ENCRYPTED 0x04u         // a transform header
#define SMB_SEC_GUEST_OR_NULL 0x08u     // SESSION_SETUP response SessionFlags IS_GUEST / IS_NULL
#define SMB_SEC_SMB1 0x10u              // an SMB1 message on the connection

struct smb_activity {
    uint64_t bytes_read;
    uint64_t bytes_written;
    uint64_t latency_sum_us;
    uint32_t reads;
    uint32_t writes;
    uint32_t errors;
    uint32_t last_error;
    uint32_t renames;
    uint32_t deletes;
    uint32_t latency_count;
    uint32_t latency_max_us;
    uint16_t dialect;
    uint8_t security;
    uint8_t has_rename;
    uint8_t rename_to[SMB_NAME_SIZE];  // UTF-16LE, zero-filled
};

// The record's block, allocated zero-filled on first use.
smb_activity *smb_activity_of(smb_flow_data *rec);

// A deep copy of `a`, or null for null.
smb_activity *smb_activity_copy(const smb_activity *a);

// Adds `from` into `into`: counters summed, the latency maximum kept, security bits ORed, and
// the last error, rename target and dialect taken from `from` when it has them.
void smb_activity_merge(smb_activity *into, const smb_activity *from);

// Moves or merges the block of `from` into `into` (leaving `from` without one).
void smb_activity_take(smb_flow_data *into, smb_flow_data *from);
