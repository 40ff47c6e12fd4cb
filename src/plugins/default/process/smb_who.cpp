// The identity and remote-call state of records: what the parser notes per message, how it
// merges, and what post-processing resolves.
#include "smb_who.h"

#include <stdlib.h>
#include <string.h>

#include "smb_parser_internal.h"
#include "smb_session_table.h"

namespace {

using smb::ByteReader;
using smb::parser::ConnKey;
using smb::parser::Smb2Message;

constexpr uint64_t kNoSession = 0;
constexpr uint32_t kTransformSessionOffset = 44;  // MS-SMB2 2.2.41
constexpr uint32_t kTransformHeaderSize = 52;

// SESSION_SETUP request (MS-SMB2 2.2.5): SecurityBufferOffset (from the header), Length.
constexpr size_t kSecurityBufferOffset = 12;
constexpr size_t kSecurityBufferLength = 14;
constexpr uint32_t kSessionSetupMinBody = 24;
// WRITE request (2.2.21): DataOffset (from the header), Length, FileId.
constexpr size_t kWriteDataOffset = 2;
constexpr size_t kWriteLength = 4;
constexpr size_t kWriteFileId = 16;
constexpr uint32_t kWriteMinBody = 48;
// IOCTL request (2.2.31): CtlCode, FileId, InputOffset (from the header), InputCount.
constexpr size_t kIoctlCtlCode = 4;
constexpr size_t kIoctlFileId = 8;
constexpr size_t kIoctlInputOffset = 24;
constexpr size_t kIoctlInputCount = 28;
constexpr uint32_t kIoctlMinBody = 56;
constexpr uint32_t kFsctlPipeTransceive = 0x0011C017;

constexpr uint16_t kOpnumOverflowBit = 63;

// The bytes that a field of the body places behind the header, as far as they are held.
ByteReader buffer_at(const Smb2Message &msg, uint32_t offset_from_header, uint32_t length) {
    if (offset_from_header < SMB2_HEADER_SIZE) return {};
    return msg.body().from(offset_from_header - SMB2_HEADER_SIZE).first(length);
}

void note_authenticate(const host_packet *pkt, smb_queue_ctx *q, const Smb2Message &msg) {
    if (msg.body_length() < kSessionSetupMinBody || msg.session_id() == kNoSession) return;
    const ByteReader body = msg.body();
    const ByteReader buffer =
        buffer_at(msg, body.le16(kSecurityBufferOffset), body.le16(kSecurityBufferLength));
    smb::ntlmssp::Identity names;
    const auto result = smb::ntlmssp::identity_of(buffer, names);
    if (result == smb::ntlmssp::Result::none) return;
    const ConnKey key = smb::parser::connection_key(pkt, 0);
    smb::parser::locked(q->sessiontable, [&](sessiontable *t) {
        sessiontable_put(t, key.addr, key.port, msg.session_id(), pkt->timestamp_ns,
                         result == smb::ntlmssp::Result::anonymous, names);
    });
}

// Binds contexts and counts requests into the record.
class PipeCalls final : public smb::dcerpc::Visitor {
  public:
    PipeCalls(smb_flow_data *rec, smb_queue_ctx *q, ConnKey key, uint64_t file_id)
        : rec_(rec), q_(q), key_(key), file_id_(file_id) {}

    void context(uint16_t context_id, const smb::dcerpc::Uuid &uuid) override {
        smb::parser::locked(q_->pipetable, [&](pipetable *t) {
            pipetable_bind(t, key_.addr, key_.port, file_id_, context_id, uuid);
        });
        smb_who *w = smb_who_of(rec_);
        w->bound_interface = uuid;
        w->has_bound_interface = 1;
    }

    void request(uint16_t context_id, uint16_t opnum, bool first_fragment) override {
        if (!first_fragment) return;  // a call's later fragments carry its opnum again
        smb_who *w = smb_who_of(rec_);
        ++w->calls;
        w->opnums |= uint64_t{1} << (opnum < kOpnumOverflowBit ? opnum : kOpnumOverflowBit);
        smb::parser::locked(q_->pipetable, [&](pipetable *t) {
            if (const auto *uuid = pipetable_find(t, key_.addr, key_.port, file_id_, context_id)) {
                w->request_interface = *uuid;
                w->has_request_interface = 1;
            }
        });
    }

  private:
    smb_flow_data *rec_;
    smb_queue_ctx *q_;
    ConnKey key_;
    uint64_t file_id_;
};

void note_pipe_data(const host_packet *pkt, smb_flow_data *rec, smb_queue_ctx *q, uint64_t file_id,
                    const ByteReader &data) {
    // Most writes are file data: one look at the first bytes keeps them cheap.
    if (!smb::dcerpc::looks_like_pdu(data)) return;
    PipeCalls calls(rec, q, smb::parser::connection_key(pkt, 0), file_id);
    smb::dcerpc::scan(data, calls);
}

// Only requests are read: the responses of a pipe carry BIND_ACK, RESPONSE and FAULT PDUs,
// which name neither an interface nor an operation.
void note_pipe_request(const host_packet *pkt, smb_flow_data *rec, smb_queue_ctx *q,
                       const Smb2Message &msg) {
    const ByteReader body = msg.body();
    if (msg.command() == SMB2_WRITE) {
        if (msg.body_length() < kWriteMinBody) return;
        note_pipe_data(pkt, rec, q, body.le64(kWriteFileId),
                       buffer_at(msg, body.le16(kWriteDataOffset), body.le32(kWriteLength)));
        return;
    }
    if (msg.body_length() < kIoctlMinBody || body.le32(kIoctlCtlCode) != kFsctlPipeTransceive)
        return;
    note_pipe_data(pkt, rec, q, body.le64(kIoctlFileId),
                   buffer_at(msg, body.le32(kIoctlInputOffset), body.le32(kIoctlInputCount)));
}

bool ascii_equal_ignoring_case(uint16_t unit, char c) {
    const uint16_t lower = unit >= 'A' && unit <= 'Z' ? unit + ('a' - 'A') : unit;
    return lower == static_cast<uint16_t>(c);
}

}  // namespace

smb_who *smb_who_of(smb_flow_data *rec) {
    if (rec->who) return rec->who;
    if (smb_who *room = smb_who_room(rec)) {
        *room = smb_who{};
        rec->who = room;
    } else {
        rec->who = smb_who_block_new();
    }
    return rec->who;
}

smb_who *smb_who_copy(const smb_who *w) {
    if (!w) return nullptr;
    smb_who *copy = smb_who_block_new();
    *copy = *w;
    if (w->identity) w->identity->ref();
    return copy;
}

void smb_who_free(smb_who *w) {
    if (!w) return;
    smb::ntlmssp::SharedIdentity::unref(w->identity);
    smb_who_block_free(w);
}

void smb_who_take(smb_flow_data *into, smb_flow_data *from) {
    if (from->session_id) {
        into->session_id = from->session_id;
        into->session_ns = from->session_ns;
    }
    smb_who *w = from->who;
    if (!w) return;
    const bool in_room = smb_who_is_inline(from);
    from->who = nullptr;
    if (!into->who) {
        if (in_room) {
            // The room goes with the packet's record: the flow's record takes a copy, and the
            // identity reference with it.
            *smb_who_of(into) = *w;
        } else {
            into->who = w;
        }
        return;
    }
    smb_who *to = into->who;
    to->calls += w->calls;
    to->opnums |= w->opnums;
    if (w->has_request_interface) {
        to->request_interface = w->request_interface;
        to->has_request_interface = 1;
    }
    if (w->has_bound_interface) {
        to->bound_interface = w->bound_interface;
        to->has_bound_interface = 1;
    }
    if (in_room)
        smb::ntlmssp::SharedIdentity::unref(w->identity);
    else
        smb_who_free(w);
}

const smb::dcerpc::Uuid *smb_who_interface(const smb_who *w) {
    if (!w) return nullptr;
    if (w->calls) return w->has_request_interface ? &w->request_interface : nullptr;
    return w->has_bound_interface ? &w->bound_interface : nullptr;
}

bool smb_is_ipc_share(const uint8_t *name) {
    if (!name) return false;
    size_t units = 0;
    while (units < SMB_NAME_SIZE / 2 && (name[2 * units] || name[2 * units + 1]))
        ++units;
    static constexpr char kIpc[] = "ipc$";
    constexpr size_t n = sizeof kIpc - 1;
    if (units < n) return false;
    const size_t start = units - n;
    if (start > 0) {
        const uint16_t sep =
            static_cast<uint16_t>(name[2 * (start - 1)] | (name[2 * (start - 1) + 1] << 8));
        if (sep != '\\' && sep != '/') return false;
    }
    for (size_t i = 0; i < n; ++i) {
        const size_t at = 2 * (start + i);
        const uint16_t unit = static_cast<uint16_t>(name[at] | (name[at + 1] << 8));
        if (!ascii_equal_ignoring_case(unit, kIpc[i])) return false;
    }
    return true;
}

void smb_who_complete(smb_plugin_ctx *ctx, smb_flow_data *rec, uint32_t client_addr32,
                      uint16_t client_port) {
    if (rec->who && (rec->who->calls || rec->who->has_bound_interface) &&
        !smb_is_ipc_share(reinterpret_cast<const uint8_t *>(rec->tree_name))) {
        // Data that merely looked like a PDU, on a file that is not a named pipe.
        rec->who->calls = 0;
        rec->who->opnums = 0;
        rec->who->has_request_interface = 0;
        rec->who->has_bound_interface = 0;
    }
    if (rec->session_id == kNoSession || !ctx->sessiontable) return;
    smb::ntlmssp::SharedIdentity *names;
    {
        smb::SpinGuard guard(ctx->sessiontable->lock);
        const session_record *s =
            sessiontable_find(ctx->sessiontable, client_addr32, client_port, rec->session_id);
        // The names apply from the AUTHENTICATE request on.
        if (!s || s->anonymous || !s->names || s->auth_ns > rec->session_ns) return;
        // Taken while the table still holds its own: the table may drop that one any time
        // after the lock is released.
        names = s->names;
        names->ref();
    }
    smb_who *w = smb_who_of(rec);
    smb::ntlmssp::SharedIdentity::unref(w->identity);
    w->identity = names;
}

void smb_who_note_request(const host_packet *pkt, smb_flow_data *rec, smb_queue_ctx *q,
                          const Smb2Message &msg) {
    switch (msg.command()) {
        case SMB2_SESSION_SETUP:
            if (q->sessiontable) note_authenticate(pkt, q, msg);
            break;
        case SMB2_WRITE:
        case SMB2_IOCTL:
            if (q->pipetable) note_pipe_request(pkt, rec, q, msg);
            break;
        default:
            break;
    }
}

void smb_who_note_transform(const host_packet *pkt, smb_flow_data *rec,
                            const ByteReader &transform) {
    if (transform.size() >= kTransformHeaderSize)
        smb_who_note_session(pkt, rec, transform.le64(kTransformSessionOffset));
}
