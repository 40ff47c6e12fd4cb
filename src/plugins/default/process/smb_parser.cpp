// Payload entry: frames a TCP payload as one NetBIOS session message (RFC 1002, the direct TCP
// transport of MS-SMB2 2.1), recognises the SMB1, SMB2 and transform signatures, and keeps
// messages that span TCP segments in the shared data table until they can be parsed.
#include <array>

#include "../../../../lib/crc.h"
#include "smb_parser_internal.h"

namespace smb::parser {

namespace {

enum class Signature { none, smb2, smb1, transform };

constexpr uint8_t kSignatureTail[3] = {'S', 'M', 'B'};
constexpr size_t kSignatureOffset = SMB_SESSION_HEADER_SIZE;
constexpr size_t kSmb1CommandOffset = SMB_SESSION_HEADER_SIZE + 4;
constexpr size_t kSmb1FlagsOffset = SMB_SESSION_HEADER_SIZE + 9;
constexpr uint8_t kSmb1FlagsReply = 0x80;  // SMB_FLAGS_REPLY
constexpr size_t kSmb2NextCommandOffset = SMB_SESSION_HEADER_SIZE + 20;
constexpr size_t kSmb2FlagsOffset = SMB_SESSION_HEADER_SIZE + 16;

Signature signature_of(const ByteReader &payload) {
    if (payload.size() < 8) return Signature::none;
    for (size_t i = 0; i < 3; ++i)
        if (payload.u8(kSignatureOffset + 1 + i) != kSignatureTail[i]) return Signature::none;
    switch (payload.u8(kSignatureOffset)) {
        case 0xFE:
            return Signature::smb2;
        case 0xFF:
            return Signature::smb1;
        case 0xFD:
            return Signature::transform;
        default:
            return Signature::none;
    }
}

// The payload entry's view of one packet.
struct Packet {
    host_packet *pkt;
    smb_flow_data *rec;
    smb_queue_ctx *q;
    ByteReader payload;
    host_counters &counters;  // the block of the packet's direction
};

uint32_t low32(uint64_t v) {
    return static_cast<uint32_t>(v);
}

int32_t parse_smb1(const Packet &p) {
    if (p.payload.size() < SMB_SESSION_HEADER_SIZE + SMB1_HEADER_SIZE) return SMB_PARSE_MALFORMED;
    p.rec->version = SMB_VERSION_1;
    p.rec->commands[0] = p.payload.u8(kSmb1CommandOffset);
    count_smb1(p.pkt, p.rec, p.q, p.payload.u8(kSmb1FlagsOffset) & kSmb1FlagsReply ? 1 : 0);
    // corvaneexp_crc64 over the command word's four little-endian bytes.
    p.pkt->flow_hash = cv::crc::crc64_tail_bytes(p.pkt->flow_hash, p.rec->commands[0]);
    return SMB_PARSE_OK;
}

// An encrypted message: only the signature is known.
int32_t parse_transform(const Packet &p) {
    p.rec->commands[0] |= SMB_CMD_TRANSFORM;
    p.rec->version = SMB_VERSION_2;
    count_transform(p.rec, p.q);
    if (p.q->activity)
        smb_who_note_transform(p.pkt, p.rec, p.payload.from(SMB_SESSION_HEADER_SIZE));
    return SMB_PARSE_OK;
}

// Later segments of a single message carry no header: give them its first segment's ids.
void remember_ids(const Packet &p) {
    const ConnKey key = connection_key(p.pkt, p.rec->is_response);
    locked(p.q->datatable, [&](datatable *t) {
        datatable_insert(t, p.rec->tree_id, p.rec->file_id, key.addr, key.port, p.rec->is_response);
    });
}

int32_t parse_smb2(const Packet &p) {
    const size_t n = p.payload.size();
    if (n < SMB_SESSION_HEADER_SIZE + SMB2_HEADER_SIZE) return SMB_PARSE_MALFORMED;
    smb_msg_state state{};
    state.total_length = p.payload.be32(0) + SMB_SESSION_HEADER_SIZE;  // wraps as on the wire
    state.available = static_cast<uint32_t>(n - SMB_SESSION_HEADER_SIZE);
    const uint8_t *hdr = p.payload.data() + SMB_SESSION_HEADER_SIZE;
    const bool compound = p.payload.le32(kSmb2NextCommandOffset) != 0;

    if (n >= state.total_length) {
        // Bytes behind the message are not parsed as a message of their own.
        return compound ? smb_parse_compound_packet(p.pkt, p.rec, p.q, hdr, &state)
                        : parse_normal_command(p.pkt, p.rec, p.q, hdr, &state);
    }

    if (compound && state.total_length <= SMB_REASSEMBLY_MAX) {
        p.rec->is_response = p.payload.le32(kSmb2FlagsOffset) & SMB2_FLAGS_SERVER_TO_REDIR;
        const ConnKey key = connection_key(p.pkt, p.rec->is_response);
        locked(p.q->datatable, [&](datatable *t) {
            datatable_save_data(t, key.addr, key.port, p.rec->is_response, state.total_length,
                                p.payload.data(), static_cast<uint32_t>(n),
                                low32(p.counters.bytes));
        });
        return SMB_PARSE_STORED;
    }

    // A single message, or a chain too large to buffer of which only the first command is
    // parsed: its later segments get this command's identifiers.
    const int32_t r = parse_normal_command(p.pkt, p.rec, p.q, hdr, &state);
    if (r != SMB_PARSE_OK) return r;
    remember_ids(p);
    if (counting(p.q)) [[unlikely]] {
        const uint8_t direction = p.rec->is_response;
        follow_chain(p.pkt, p.rec, p.q, connection_key(p.pkt, direction), direction, hdr,
                     state.available, state.total_length - SMB_SESSION_HEADER_SIZE);
    }
    return SMB_PARSE_CONTINUED;
}

// A payload without SMB header: a later segment of a message that began in an earlier one.
int32_t parse_continuation(const Packet &p) {
    const host_packet *pkt = p.pkt;
    const uint16_t port = p.q->port;
    uint8_t direction;
    ConnKey key;
    if (pkt->dst_port == port) {
        direction = 0;
        key = {smb_client_addr32(&pkt->src_addr, pkt->ip_version), pkt->src_port};
    } else if (pkt->src_port == port) {
        direction = 1;
        key = {smb_client_addr32(&pkt->dst_addr, pkt->ip_version), pkt->dst_port};
    } else {
        return SMB_PARSE_IGNORED;
    }

    // The data table appends the segment and, once the message is complete, copies it out and
    // drops its entry, all under its lock; the message is parsed here without that lock.
    std::array<uint8_t, kDataMessageMax> message;
    const datatable_continuation c = locked(p.q->datatable, [&](datatable *t) {
        return datatable_continue(t, key.addr, key.port, direction,
                                  std::span<const uint8_t>(p.payload.data(), p.payload.size()),
                                  low32(p.counters.bytes),
                                  std::span<uint8_t, kDataMessageMax>(message));
    });
    switch (c.result) {
        case 0:
            p.rec->tree_id = c.tree_id;
            p.rec->file_id = c.file_id;
            fold_tree_file(p.pkt, c.tree_id, c.file_id);
            if (counting(p.q)) [[unlikely]]
                continue_chain(p.pkt, p.rec, p.q, key, direction, p.payload);
            return SMB_PARSE_OK;
        case 1:
            return SMB_PARSE_STORED;
        case 2: {
            // The completing packet carries the earlier segments in its direction's counters,
            // unless the counters are to stay those of the wire (volume accounting).
            if (!p.q->wire_counts) {
                p.counters.packets += c.segments;
                p.counters.bytes += c.segment_bytes;
            }
            smb_msg_state state{};
            state.total_length = c.total_length;
            if (c.total_length < SMB_SESSION_HEADER_SIZE + SMB2_HEADER_SIZE ||
                c.total_length > SMB_REASSEMBLY_MAX)
                return SMB_PARSE_MALFORMED;  // never saved that way
            state.available = c.total_length - SMB_SESSION_HEADER_SIZE;
            return smb_parse_compound_packet(p.pkt, p.rec, p.q,
                                             message.data() + SMB_SESSION_HEADER_SIZE, &state);
        }
        default:
            return SMB_PARSE_NO_STATE;
    }
}

}  // namespace

}  // namespace smb::parser

using namespace smb::parser;

int32_t smb_parse_packet(host_packet *pkt, smb_flow_data *rec, smb_queue_ctx *q,
                         const uint8_t *payload) {
    const size_t n =
        pkt->payload_offset <= pkt->length ? size_t{pkt->length} - pkt->payload_offset : 0;
    const Packet p{pkt, rec, q, smb::ByteReader(payload, n),
                   pkt->dir_counters[pkt->flags & HOST_FLAG_DIRECTION]};
    switch (signature_of(p.payload)) {
        case Signature::smb2:
            return parse_smb2(p);
        case Signature::smb1:
            return parse_smb1(p);
        case Signature::transform:
            return parse_transform(p);
        case Signature::none:
            break;
    }
    return parse_continuation(p);
}
