// Who and which remote call (activity=1): the NTLMSSP identity of a record's session and the
// DCE/RPC interface, opnums and calls of a named pipe's record.
//
// A record keeps only a reference to its session (the SessionId of its last message that has
// one, and that message's capture time, in smb_flow_data); the names stay in the shared
// session table until the record is exported, when post-processing copies them into the
// record's block as a reference to the session's names (smb_identity.h). So the records in
// the flow cache stay small, and a name costs memory once per session rather than once per
// record.
#pragma once

#include <stdint.h>

#include "smb.h"
#include "smb_dcerpc.h"
#include "smb_identity.h"
#include "smb_ntlmssp.h"
#include "smb_reader.h"

struct smb_who {
    // The remote calls of the record (named pipes only).
    smb::dcerpc::Uuid request_interface;  // of the last REQUEST whose context was bound
    smb::dcerpc::Uuid bound_interface;    // of the last context bound
    uint64_t opnums;                      // bit n for opnum n, bit 63 for 63 and above
    uint32_t calls;                       // REQUEST PDUs, first fragments only
    uint8_t has_request_interface;
    uint8_t has_bound_interface;
    // The session's names, a reference shared with the session table, or null: taken at
    // post-processing only, so that the block of a record in the flow cache stays small.
    smb::ntlmssp::SharedIdentity *identity;
};

// A zero-filled block, and its release (not null), through the per-thread block stacks of
// smb_record.cpp: for records without room of their own (smb_record_block).
smb_who *smb_who_block_new();
void smb_who_block_free(smb_who *w);

// The record's smb_who, made zero-filled on first use: in the record's room when it has one,
// else a block of its own.
smb_who *smb_who_of(smb_flow_data *rec);
smb_who *smb_who_copy(const smb_who *w);
void smb_who_free(smb_who *w);

// Moves the packet record's session reference and remote calls into the flow's record: the
// later session wins, calls and opnums add up, the later interfaces win. `from` is left
// without an smb_who.
void smb_who_take(smb_flow_data *into, smb_flow_data *from);

// The interface that the record shows: of its last REQUEST, else of its last bound context;
// null when it has neither.
const smb::dcerpc::Uuid *smb_who_interface(const smb_who *w);

// Post-processing: the session's names from the session table, and the remote calls dropped
// from a record that is not on an IPC$ tree. `client_*` is the connection's client end.
void smb_who_complete(smb_plugin_ctx *ctx, smb_flow_data *rec, uint32_t client_addr32,
                      uint16_t client_port);

// True for a UTF-16LE share path whose last component is IPC$ (any case).
bool smb_is_ipc_share(const uint8_t *tree_name);

namespace smb::parser {
class Smb2Message;
}

// Parse time, any SMB2 message or transform header: the session that it names (none for 0, and
// for a related chain's "the same", all ones).
inline void smb_who_note_session(const host_packet *pkt, smb_flow_data *rec, uint64_t session_id) {
    if (session_id == 0 || session_id == ~uint64_t{0}) return;
    rec->session_id = session_id;
    rec->session_ns = pkt->timestamp_ns;
}

// The requests that smb_who_note_request reads.
inline bool smb_who_reads_request(uint16_t command) {
    return command == SMB2_SESSION_SETUP || command == SMB2_WRITE || command == SMB2_IOCTL;
}

// Parse time, one SMB2 request of those: the identity of a SESSION_SETUP request, the PDUs of
// a pipe WRITE or FSCTL_PIPE_TRANSCEIVE request.
void smb_who_note_request(const host_packet *pkt, smb_flow_data *rec, smb_queue_ctx *q,
                          const smb::parser::Smb2Message &msg);

// Parse time, a transform header: its SessionId.
void smb_who_note_transform(const host_packet *pkt, smb_flow_data *rec,
                            const smb::ByteReader &transform);
