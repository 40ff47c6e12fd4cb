// Counting of SMB2 messages for the opt-in activity fields. Only the header and the fixed part
// of a message are read (the rename target name of a SET_INFO request excepted), so a READ or
// WRITE of any size counts from its first segment.
#include "smb_activity.h"
#include "smb_activity_table.h"
#include "smb_parser_internal.h"
#include "smb_who.h"
#include "utils_alloc.h"

namespace smb::parser {

namespace {

constexpr uint32_t kSmb2FlagsSigned = 0x00000008u;
constexpr uint32_t kStatusPending = 0x00000103u;
constexpr uint32_t kStatusMoreProcessingRequired = 0xC0000016u;
constexpr uint16_t kDialectWildcard = 0x02FF;

// NEGOTIATE response (MS-SMB2 2.2.4).
constexpr size_t kSecurityModeOffset = 2;
constexpr size_t kDialectOffset = 4;
constexpr uint16_t kSigningRequired = 0x0002;
// SESSION_SETUP response (2.2.6).
constexpr size_t kSessionFlagsOffset = 2;
constexpr uint16_t kSessionGuestOrNull = 0x0003;  // SMB2_SESSION_FLAG_IS_GUEST | IS_NULL
// READ response DataLength (2.2.20) and WRITE response Count (2.2.22).
constexpr size_t kReadWriteCountOffset = 4;
constexpr uint32_t kReadWriteMinBody = 8;

// SET_INFO request (2.2.39) and its FILE-class buffers (MS-FSCC 2.4).
constexpr uint8_t kInfoTypeFile = 1;
constexpr uint8_t kFileRenameInformation = 10;
constexpr uint8_t kFileDispositionInformation = 13;
constexpr uint8_t kFileDispositionInformationEx = 64;
constexpr uint32_t kFileDispositionDelete = 0x1;
constexpr size_t kInfoTypeOffset = 2;
constexpr size_t kInfoClassOffset = 3;
constexpr size_t kBufferLengthOffset = 4;
constexpr size_t kBufferOffsetOffset = 8;
constexpr uint32_t kSetInfoMinBody = 32;
// FILE_RENAME_INFORMATION_TYPE_2: ReplaceIfExists, Reserved, RootDirectory, FileNameLength.
constexpr size_t kRenameNameLengthOffset = 16;
constexpr size_t kRenameNameOffset = 20;

// The header fields that counting reads, read once: the stores into the record and its
// counters might alias the packet's bytes as far as the compiler can tell, so that every
// accessor would read (and bounds-check) its field again.
struct Header {
    uint32_t status;
    uint32_t flags;
    uint64_t message_id;
    uint64_t session_id;
    uint16_t command;

    explicit Header(const Smb2Message &msg) {
        const uint8_t *h = msg.whole_header();
        if (!h) [[unlikely]] {
            status = msg.status();
            flags = msg.flags();
            message_id = msg.message_id();
            session_id = msg.session_id();
            command = msg.command();
            return;
        }
        // A reader of exactly the header's size: its bounds checks fold away.
        const ByteReader r(h, SMB2_HEADER_SIZE);
        status = r.le32(8);
        command = r.le16(12);
        flags = r.le32(16);
        message_id = r.le64(24);
        session_id = r.le64(40);
    }
    bool is_response() const { return flags & SMB2_FLAGS_SERVER_TO_REDIR; }
    bool is_async() const { return flags & SMB2_FLAGS_ASYNC_COMMAND; }
};

bool is_error(uint32_t status) {
    return (status >> 30) == 3 && status != kStatusMoreProcessingRequired;
}

// What a SET_INFO request asks for; `name` receives a rename's target.
PendingSetInfo read_set_info(const Smb2Message &msg, uint8_t (&name)[SMB_NAME_SIZE]) {
    PendingSetInfo info;
    if (msg.body_length() < kSetInfoMinBody) return info;
    const ByteReader body = msg.body();
    if (body.u8(kInfoTypeOffset) != kInfoTypeFile) return info;
    const uint8_t info_class = body.u8(kInfoClassOffset);
    // BufferOffset counts from the header; the buffer may be cut short by the segment.
    const uint16_t buffer_offset = body.le16(kBufferOffsetOffset);
    if (buffer_offset < SMB2_HEADER_SIZE) return info;
    const ByteReader buffer =
        body.from(buffer_offset - SMB2_HEADER_SIZE).first(body.le32(kBufferLengthOffset));
    switch (info_class) {
        case kFileRenameInformation: {
            info.kind = SetInfoKind::rename;
            memset(name, 0, sizeof name);
            const uint32_t length = buffer.le32(kRenameNameLengthOffset);
            const auto bytes = buffer.bytes(kRenameNameOffset, length);
            if (length != 0 && length <= UINT16_MAX && !bytes.empty())
                smb2_copy_name_tail(bytes.data(), static_cast<uint16_t>(length), name);
            info.rename_to = name;
            break;
        }
        case kFileDispositionInformation:
            if (buffer.size() >= 1 && buffer.u8(0) != 0) info.kind = SetInfoKind::remove;
            break;
        case kFileDispositionInformationEx:
            if (buffer.size() >= 4 && (buffer.le32(0) & kFileDispositionDelete))
                info.kind = SetInfoKind::remove;
            break;
        default:
            break;
    }
    return info;
}

// A SET_INFO request keeps what it asked for with its time; kept out of line, as its name
// buffer would weigh on every other request.
[[gnu::noinline]] void put_set_info(const host_packet *pkt, smb_queue_ctx *q,
                                    const Smb2Message &msg, ConnKey key) {
    uint8_t name[SMB_NAME_SIZE];
    const PendingSetInfo info = read_set_info(msg, name);
    activitytable_put(q->activitytable, key.addr, key.port, msg.message_id(), pkt->timestamp_ns,
                      info);
}

void count_request(const host_packet *pkt, smb_queue_ctx *q, const Smb2Message &msg,
                   const Header &h, ConnKey key) {
    if (h.command == SMB2_CANCEL) return;  // answered by the cancelled request's response
    if (h.command == SMB2_SET_INFO) [[unlikely]]
        return put_set_info(pkt, q, msg, key);
    activitytable_put(q->activitytable, key.addr, key.port, h.message_id, pkt->timestamp_ns,
                      PendingSetInfo{});
}

void count_latency(smb_activity *a, uint64_t request_ns, uint64_t response_ns) {
    const uint64_t us = response_ns > request_ns ? (response_ns - request_ns) / 1000 : 0;
    ++a->latency_count;
    a->latency_sum_us += us;
    const uint32_t clamped = us > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(us);
    if (clamped > a->latency_max_us) a->latency_max_us = clamped;
}

void count_success(smb_queue_ctx *q, smb_flow_data *rec, smb_activity *a, const Smb2Message &msg,
                   uint16_t command, ConnKey key, TakenRequest &request) {
    const ByteReader body = msg.body();
    switch (command) {
        case SMB2_NEGOTIATE: {
            if (msg.body_length() < kDialectOffset + 2) return;
            uint16_t dialect = body.le16(kDialectOffset);
            if (dialect == kDialectWildcard) dialect = 0;
            const uint8_t security =
                body.le16(kSecurityModeOffset) & kSigningRequired ? SMB_SEC_SIGNING_REQUIRED : 0;
            if (dialect) a->dialect = dialect;
            rec->security |= security;
            locked(q->conntable,
                   [&](conntable *t) { conntable_note(t, key.addr, key.port, dialect, security); });
            return;
        }
        case SMB2_SESSION_SETUP:
            if (msg.body_length() >= kSessionFlagsOffset + 2 &&
                (body.le16(kSessionFlagsOffset) & kSessionGuestOrNull))
                rec->security |= SMB_SEC_GUEST_OR_NULL;
            return;
        case SMB2_READ:
            if (msg.body_length() < kReadWriteMinBody) return;
            ++a->reads;
            a->bytes_read += body.le32(kReadWriteCountOffset);
            return;
        case SMB2_WRITE:
            if (msg.body_length() < kReadWriteMinBody) return;
            ++a->writes;
            a->bytes_written += body.le32(kReadWriteCountOffset);
            return;
        case SMB2_SET_INFO:
            if (request.kind == SetInfoKind::remove) {
                ++a->deletes;
            } else if (request.kind == SetInfoKind::rename) {
                ++a->renames;
                free(a->rename_to);
                a->rename_to = request.rename_to;
                request.rename_to = nullptr;
                if (!a->rename_to)
                    a->rename_to = static_cast<uint8_t *>(corvaneexp_malloc(SMB_NAME_SIZE, 0));
            }
            return;
        default:
            return;
    }
}

void count_response(const host_packet *pkt, smb_flow_data *rec, smb_queue_ctx *q,
                    const Smb2Message &msg, const Header &h, ConnKey key, smb_activity *into) {
    const uint32_t status = h.status;
    // An interim response only says that the final one will follow.
    if (h.is_async() && status == kStatusPending) return;
    smb_activity *a = into ? into : smb_activity_of(rec);
    a->counted = 1;
    if (h.flags & kSmb2FlagsSigned) rec->security |= SMB_SEC_SIGNED;
    TakenRequest request;
    if (activitytable_take(q->activitytable, key.addr, key.port, h.message_id, request))
        count_latency(a, request.request_ns, pkt->timestamp_ns);
    if (is_error(status)) {
        ++a->errors;
        a->last_error = status;
    }
    if (status == 0) count_success(q, rec, a, msg, h.command, key, request);
    if (request.rename_to) [[unlikely]]
        free(request.rename_to);  // a rename that did not succeed
}

// The two paths out of line, each with the frame it needs, so that the entry below is a test
// and a jump.
[[gnu::noinline]] void count_response_on(const host_packet *pkt, smb_flow_data *rec,
                                         smb_queue_ctx *q, Smb2Message msg, smb_activity *into) {
    const Header h(msg);
    smb_who_note_session(pkt, rec, h.session_id);
    count_response(pkt, rec, q, msg, h, connection_key(pkt, 1), into);
}

[[gnu::noinline]] void count_request_on(const host_packet *pkt, smb_flow_data *rec,
                                        smb_queue_ctx *q, Smb2Message msg) {
    const Header h(msg);
    smb_who_note_session(pkt, rec, h.session_id);
    if (h.flags & kSmb2FlagsSigned) rec->security |= SMB_SEC_SIGNED;
    count_request(pkt, q, msg, h, connection_key(pkt, 0));
    if (smb_who_reads_request(h.command)) [[unlikely]]
        smb_who_note_request(pkt, rec, q, msg);
}

}  // namespace

void count_activity_on(const host_packet *pkt, smb_flow_data *rec, smb_queue_ctx *q,
                       Smb2Message msg, smb_activity *into) {
    if (msg.is_response()) return count_response_on(pkt, rec, q, msg, into);
    count_request_on(pkt, rec, q, msg);
}

void count_smb1_on(const host_packet *pkt, smb_flow_data *rec, smb_queue_ctx *q, uint8_t reply) {
    const ConnKey key = connection_key(pkt, reply);
    rec->security |= SMB_SEC_SMB1;
    locked(q->conntable,
           [&](conntable *t) { conntable_note(t, key.addr, key.port, 0, SMB_SEC_SMB1); });
}

}  // namespace smb::parser

void smb_park_activity(const host_packet *pkt, smb_flow_data *rec, smb_queue_ctx *q) {
    // Flags alone are not parked: a request kept for its response (whose record is dropped)
    // is signed or not as its response is.
    smb_activity *a = rec->activity;
    if (!a || !a->counted || !q->conntable || rec->is_response > 1) return;
    const smb::parser::ConnKey key = smb::parser::connection_key(pkt, rec->is_response);
    a->security = rec->security;
    smb::parser::locked(q->conntable,
                        [&](conntable *t) { conntable_park(t, key.addr, key.port, *a); });
}
