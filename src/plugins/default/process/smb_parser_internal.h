// Pieces shared by the parser's source files: the view of one SMB2 message, the connection key,
// identifier folding, the layout of the commands on an open file, and the TREE_CONNECT and CREATE
// steps that both the single-message parser and the compound walker run.
#pragma once

#include <cstdint>
#include <span>

#include "smb_activity.h"
#include "smb_data_table.h"
#include "smb_file_table.h"
#include "smb_message_table.h"
#include "smb_message_table2.h"
#include "smb_parser.h"
#include "smb_reader.h"
#include "smb_table_scheme.h"
#include "smb_tree_table.h"
#include "smb_who.h"

namespace smb::parser {

// One SMB2 message: the 64-byte header (MS-SMB2 2.2.1) and every byte behind it that the caller
// holds. The body length runs to the end of those bytes, not to the next header of a chain.
class Smb2Message {
  public:
    // `available` must be at least the header size.
    Smb2Message(const uint8_t *hdr, uint32_t available) : bytes_(hdr, available) {}

    uint32_t status() const { return bytes_.le32(8); }
    uint16_t command() const { return bytes_.le16(12); }
    uint32_t flags() const { return bytes_.le32(16); }
    uint32_t next_command() const { return bytes_.le32(20); }
    uint64_t message_id() const { return bytes_.le64(24); }
    uint32_t tree_id() const { return bytes_.le32(36); }  // sync headers only
    uint64_t session_id() const { return bytes_.le64(40); }

    uint8_t is_response() const { return flags() & SMB2_FLAGS_SERVER_TO_REDIR ? 1 : 0; }
    bool is_async() const { return (flags() & SMB2_FLAGS_ASYNC_COMMAND) != 0; }
    bool succeeded() const { return status() == 0; }

    uint32_t available() const { return static_cast<uint32_t>(bytes_.size()); }
    // The header's bytes when all of them are held (as the constructor demands), else null: for
    // reading several header fields with one check.
    const uint8_t *whole_header() const {
        return bytes_.size() >= SMB2_HEADER_SIZE ? bytes_.data() : nullptr;
    }
    uint32_t body_length() const { return available() - SMB2_HEADER_SIZE; }
    ByteReader body() const { return bytes_.from(SMB2_HEADER_SIZE); }

    // The message `next` bytes further on, with the bytes from there to the end.
    Smb2Message at(uint32_t next) const { return Smb2Message(bytes_.from(next)); }

  private:
    explicit Smb2Message(ByteReader bytes) : bytes_(bytes) {}
    ByteReader bytes_;
};

// True when a header `next` bytes further on fits into `available` bytes.
inline bool next_header_fits(uint32_t next, uint32_t available) {
    return next <= available && uint64_t{available} >= uint64_t{next} + SMB2_HEADER_SIZE;
}

// The client side of the SMB connection, which keys every table.
struct ConnKey {
    uint32_t addr;
    uint16_t port;
};

// Requests come from the client, responses go to it.
inline ConnKey connection_key(const host_packet *pkt, uint8_t is_response) {
    if (is_response) return {smb_client_addr32(&pkt->dst_addr, pkt->ip_version), pkt->dst_port};
    return {smb_client_addr32(&pkt->src_addr, pkt->ip_version), pkt->src_port};
}

// Identifier folding: each group of little-endian bytes is one chained hash call.
void fold_tree(host_packet *pkt, uint32_t tree_id);
void fold_tree_file(host_packet *pkt, uint32_t tree_id, uint64_t file_id);
void fold_message(host_packet *pkt, uint64_t message_id);

// Runs one call into a shared table with that table's lock held.
template <typename Table, typename Call>
auto locked(Table *table, Call &&call) {
    SpinGuard guard(table->lock);
    return call(table);
}

// Requests on an open file: where their FileId lies in the body, and the shortest body that
// holds what is read.
struct FileCommandLayout {
    uint8_t file_id_offset;
    uint8_t min_body;
};
// Null for commands that are not requests on an open file.
const FileCommandLayout *file_command_layout(uint16_t command);

// A SET_INFO request (body at least 33 bytes) that sets FileDispositionInformation with
// DeletePending 1.
bool set_info_requests_delete(const ByteReader &body);

// Names are 128 bytes; one whose first UTF-16 unit is zero is empty.
inline bool name_is_empty(const void *name) {
    auto *b = static_cast<const uint8_t *>(name);
    return b[0] == 0 && b[1] == 0;
}

// Command bits of the command word.
inline uint32_t command_bit(uint16_t command) {
    return SMB_CMD_BIT(command);
}

// Pending command masks parked in the tree and file tables: (request side, response side).
struct PendingMasks {
    uint32_t words[2];
};
inline constexpr PendingMasks kTreeConnectGranted{{0, SMB_CMD_BIT(SMB2_TREE_CONNECT)}};
inline constexpr PendingMasks kCreateGranted{{0, SMB_CMD_BIT(SMB2_CREATE)}};

// TREE_CONNECT request: remembers its share path under `message_id`. Returns
// SMB_PARSE_STORED, or SMB_PARSE_MALFORMED when the path does not fit the body.
int32_t store_tree_connect_request(smb_queue_ctx *q, ConnKey key, uint64_t message_id,
                                   const Smb2Message &msg);

// CREATE request: sets `op` from CreateDisposition and FILE_DELETE_ON_CLOSE (as soon as the fixed
// part is there), then remembers the file name with `op` and `tree_id`. Returns
// SMB_PARSE_STORED, or SMB_PARSE_MALFORMED when the body or the name does not fit.
int32_t store_create_request(smb_queue_ctx *q, ConnKey key, uint64_t message_id, uint32_t tree_id,
                             const Smb2Message &msg, uint8_t &op);

// What a successful CREATE response grants (body at least 89 bytes).
struct CreateGrant {
    uint8_t file_type;
    uint8_t op;  // CreateAction
    uint64_t file_id;
};
bool read_create_grant(const smb_queue_ctx *q, const Smb2Message &msg, CreateGrant &grant);

// The single-message procedures of TREE_CONNECT and CREATE.
struct CommandContext {
    host_packet *pkt;
    smb_flow_data *rec;
    smb_queue_ctx *q;
    const Smb2Message &msg;
    smb_msg_state *state;
    ConnKey key;
};
int32_t parse_tree_connect(const CommandContext &ctx);
int32_t parse_create(const CommandContext &ctx);

// Activity counting (nothing with activity=0): one SMB2 message, whose counters go to `into`
// (the record's own when null) and whose flags and session (smb_who.h) go to `rec`; an SMB1 message
// (`reply` from its Flags); a transform header. The checks are inline so that activity=0 costs no
// call.
void count_activity_on(const host_packet *pkt, smb_flow_data *rec, smb_queue_ctx *q,
                       Smb2Message msg, smb_activity *into);
void count_smb1_on(const host_packet *pkt, smb_flow_data *rec, smb_queue_ctx *q, uint8_t reply);
// Whether the packet's messages are counted: with activity=1, unless its segment is a
// retransmission.
inline bool counting(const smb_queue_ctx *q) {
    return q->activity && !q->repeat_segment;
}
inline void count_activity(const host_packet *pkt, smb_flow_data *rec, smb_queue_ctx *q,
                           const Smb2Message &msg, smb_activity *into = nullptr) {
    if (counting(q)) [[unlikely]]
        count_activity_on(pkt, rec, q, msg, into);
}
inline void count_smb1(const host_packet *pkt, smb_flow_data *rec, smb_queue_ctx *q,
                       uint8_t reply) {
    if (counting(q)) [[unlikely]]
        count_smb1_on(pkt, rec, q, reply);
}
// A message longer than its first segment (activity=1): for a compound chain, counts the later
// messages that the segment holds and follows the chain into the later segments; for a single
// message, ends the following of an earlier chain. `hdr` is the first header, `available` the
// SMB2 bytes of the segment from there, `total` the SMB2 bytes of the session message.
void follow_chain(const host_packet *pkt, smb_flow_data *rec, smb_queue_ctx *q, ConnKey key,
                  uint8_t direction, const uint8_t *hdr, uint32_t available, uint32_t total);
// A later segment of such a message: counts the chain's messages that it completes.
void continue_chain(const host_packet *pkt, smb_flow_data *rec, smb_queue_ctx *q, ConnKey key,
                    uint8_t direction, const ByteReader &payload);

inline void count_transform(smb_flow_data *rec, smb_queue_ctx *q) {
    if (q->activity) [[unlikely]]
        rec->security |= SMB_SEC_ENCRYPTED;
}

}  // namespace smb::parser
