// The SMB parser: NetBIOS session framing of TCP payloads, reassembly of compound messages
// across segments, SMB2 command parsing (MS-SMB2) with request/response correlation through the
// queue's message tables, and the folding of tree and file ids into the packet's flow hash.
#pragma once

#include <stdint.h>
#include <string.h>

#include "../../../../lib/export.h"
#include "host_interface.h"
#include "smb.h"

// Results of the parser functions.
#define SMB_PARSE_MALFORMED (-1)  // too short or malformed: the record is dropped
#define SMB_PARSE_OK 0            // the record describes the packet
#define SMB_PARSE_IGNORED 1       // no SMB here, or an SMB2 command code above 18
#define SMB_PARSE_STORED 2        // remembered for later (request, first or middle segment)
#define SMB_PARSE_NO_STATE 3      // a segment without header that nothing was saved for
#define SMB_PARSE_CONTINUED 5     // first segment of a message that goes on in later segments

// Sizes on the wire.
#define SMB_SESSION_HEADER_SIZE 4
#define SMB1_HEADER_SIZE 32
#define SMB2_HEADER_SIZE 64
// The largest compound message that is ever buffered for reassembly.
#define SMB_REASSEMBLY_MAX 8192

// SMB2 header Flags.
#define SMB2_FLAGS_SERVER_TO_REDIR 0x00000001u
#define SMB2_FLAGS_ASYNC_COMMAND 0x00000002u
#define SMB2_FLAGS_RELATED_OPERATIONS 0x00000004u

// State of the session message being parsed, handed from the payload entry to the SMB2 parsers.
typedef struct smb_msg_state {
    uint8_t async;          // the header being parsed is an ASYNC header
    uint32_t total_length;  // session message length including the 4-byte session header
    uint32_t available;     // SMB2 bytes readable from the header handed to the parser onward
} smb_msg_state;

// Entry point for one TCP payload of `pkt` (its length is pkt->length - pkt->payload_offset).
CV_EXPORT int32_t smb_parse_packet(host_packet *pkt, smb_flow_data *rec, smb_queue_ctx *q,
                                   const uint8_t *payload);

// One SMB2 message: `hdr` points to its 64-byte header, state->available (at least 64) bytes
// are readable from there.
CV_EXPORT int32_t parse_normal_command(host_packet *pkt, smb_flow_data *rec, smb_queue_ctx *q,
                                       const uint8_t *hdr, smb_msg_state *state);

// An SMB2 compound chain starting at `hdr`.
CV_EXPORT int32_t smb_parse_compound_packet(host_packet *pkt, smb_flow_data *rec, smb_queue_ctx *q,
                                            const uint8_t *hdr, smb_msg_state *state);

// A packet whose record is dropped may still have counted messages for the activity fields
// (a response refused after its header was counted): their counters are parked with the
// connection, for the next record of the connection that is post-processed.
CV_EXPORT void smb_park_activity(const host_packet *pkt, smb_flow_data *rec, smb_queue_ctx *q);

// Fit a UTF-16LE path or name of `length` bytes into a zero-filled 128-byte buffer: the head
// keeps the beginning (share paths), the tail keeps the end (file names). Neither splits a
// surrogate pair, and a cut name always ends with at least two zero bytes.
CV_EXPORT void smb2_copy_name_head(const uint8_t *name, uint16_t length, uint8_t *out);
CV_EXPORT void smb2_copy_name_tail(const uint8_t *name, uint16_t length, uint8_t *out);

// The 32-bit client address word: the IPv4 address, or the last 32 bits of an IPv6 address,
// in the byte order in which the packet holds it.
static inline uint32_t smb_client_addr32(const host_addr *addr, uint8_t ip_version) {
    if (ip_version == 4) return addr->v4;
    uint32_t word;
    memcpy(&word, addr->v6 + 12, sizeof word);
    return word;
}
