// One SMB2 message (MS-SMB2 2.2): the header prologue, the command dispatch, the requests and
// responses on an open file, oplock breaks, and the folding of identifiers into the flow hash.
#include <array>

#include "../../../../lib/crc.h"
#include "smb_parser_internal.h"

namespace smb::parser {

namespace {

constexpr std::array<FileCommandLayout, SMB2_COMMAND_MAX + 1> kFileCommands = [] {
    std::array<FileCommandLayout, SMB2_COMMAND_MAX + 1> t{};
    t[SMB2_CLOSE] = {8, 24};
    t[SMB2_FLUSH] = {8, 24};
    t[SMB2_READ] = {16, 49};
    t[SMB2_WRITE] = {16, 49};
    t[SMB2_LOCK] = {8, 48};
    t[SMB2_IOCTL] = {8, 56};
    t[SMB2_QUERY_DIRECTORY] = {8, 33};
    t[SMB2_CHANGE_NOTIFY] = {8, 32};
    t[SMB2_QUERY_INFO] = {24, 40};
    t[SMB2_SET_INFO] = {16, 33};
    return t;
}();

// OPLOCK_BREAK acknowledgments, notifications and responses share the FileId position.
constexpr FileCommandLayout kOplockBreak{8, 24};

constexpr uint16_t kFileDispositionInfo = 0x0d01;  // InfoType SMB2_0_INFO_FILE, class 13
constexpr size_t kSetInfoBufferOffset = 32;

// CLOSE, FLUSH, READ, WRITE, LOCK, IOCTL, QUERY_DIRECTORY, CHANGE_NOTIFY, QUERY_INFO and
// SET_INFO requests: remember the file id so that the response, which does not repeat it,
// can be tied to the file.
int32_t file_request(const CommandContext &ctx, const FileCommandLayout &layout) {
    if (ctx.msg.body_length() < layout.min_body) return SMB_PARSE_MALFORMED;
    const ByteReader body = ctx.msg.body();
    smb_flow_data *rec = ctx.rec;
    rec->file_id = body.le64(layout.file_id_offset);
    uint8_t delete_requested = 0;
    if (ctx.msg.command() == SMB2_SET_INFO && set_info_requests_delete(body)) {
        rec->op |= SMB_OP_DELETE;
        delete_requested = 1;
    }
    messagetable2_insert(ctx.q->messagetable2, rec->file_id, rec->tree_id, ctx.key.addr,
                         ctx.key.port, rec->message_id, delete_requested);
    fold_tree_file(ctx.pkt, rec->tree_id, rec->file_id);
    return SMB_PARSE_OK;
}

int32_t file_response(const CommandContext &ctx) {
    smb_flow_data *rec = ctx.rec;
    uint8_t delete_requested = 0;
    rec->file_id =
        messagetable2_get_file_id(ctx.q->messagetable2, ctx.key.addr, ctx.key.port, rec->message_id,
                                  ctx.state->async ? &rec->tree_id : nullptr, &delete_requested);
    if (delete_requested)
        rec->op |= ctx.msg.succeeded() ? SMB_OP_DELETE : (SMB_OP_DELETE | SMB_OP_FAILED);
    fold_tree_file(ctx.pkt, rec->tree_id, rec->file_id);
    return SMB_PARSE_OK;
}

int32_t oplock_break(const CommandContext &ctx) {
    if (ctx.msg.body_length() < kOplockBreak.min_body) return SMB_PARSE_MALFORMED;
    smb_flow_data *rec = ctx.rec;
    rec->file_id = ctx.msg.body().le64(kOplockBreak.file_id_offset);
    if (rec->is_response && rec->tree_id == 0) {
        rec->tree_id = locked(ctx.q->filetable, [&](filetable *t) {
            return filetable_get_tree_id(t, ctx.key.addr, ctx.key.port, rec->file_id);
        });
    }
    fold_tree_file(ctx.pkt, rec->tree_id, rec->file_id);
    return SMB_PARSE_OK;
}

int32_t dispatch(const CommandContext &ctx, uint16_t command) {
    switch (command) {
        case SMB2_TREE_CONNECT:
            return parse_tree_connect(ctx);
        case SMB2_TREE_DISCONNECT:
            fold_tree(ctx.pkt, ctx.rec->tree_id);
            return SMB_PARSE_OK;
        case SMB2_CREATE:
            return parse_create(ctx);
        case SMB2_OPLOCK_BREAK:
            return oplock_break(ctx);
        default:
            break;
    }
    if (const FileCommandLayout *layout = file_command_layout(command))
        return ctx.rec->is_response ? file_response(ctx) : file_request(ctx, *layout);
    return SMB_PARSE_OK;  // NEGOTIATE, SESSION_SETUP, LOGOFF, CANCEL, ECHO
}

}  // namespace

// The folds are corvaneexp_crc64 over the identifiers' little-endian bytes, taken step by step
// on the integers themselves: the same hash without the byte copies and the loop.
void fold_tree(host_packet *pkt, uint32_t tree_id) {
    pkt->flow_hash = cv::crc::crc64_tail_bytes(pkt->flow_hash, tree_id);
}

void fold_tree_file(host_packet *pkt, uint32_t tree_id, uint64_t file_id) {
    uint64_t c = cv::crc::crc64_word_step(pkt->flow_hash, tree_id);
    c = cv::crc::crc64_word_step(c, static_cast<uint32_t>(file_id));
    pkt->flow_hash = cv::crc::crc64_tail_bytes(c, static_cast<uint32_t>(file_id >> 32));
}

void fold_message(host_packet *pkt, uint64_t message_id) {
    const uint64_t c = cv::crc::crc64_word_step(pkt->flow_hash, static_cast<uint32_t>(message_id));
    pkt->flow_hash = cv::crc::crc64_tail_bytes(c, static_cast<uint32_t>(message_id >> 32));
}

const FileCommandLayout *file_command_layout(uint16_t command) {
    if (command > SMB2_COMMAND_MAX || kFileCommands[command].min_body == 0) return nullptr;
    return &kFileCommands[command];
}

bool set_info_requests_delete(const ByteReader &body) {
    return body.le16(2) == kFileDispositionInfo && body.u8(kSetInfoBufferOffset) == 1;
}

}  // namespace smb::parser

using namespace smb::parser;

int32_t parse_normal_command(host_packet *pkt, smb_flow_data *rec, smb_queue_ctx *q,
                             const uint8_t *hdr, smb_msg_state *state) {
    // The callers guarantee a whole header; refuse anything less rather than read past it.
    if (hdr == nullptr || state->available < SMB2_HEADER_SIZE) return SMB_PARSE_MALFORMED;
    const Smb2Message msg(hdr, state->available);

    rec->version = SMB_VERSION_2;
    rec->is_response = msg.is_response();
    if (msg.is_async()) {
        state->async = 1;  // an ASYNC header holds an AsyncId where the TreeId would be
    } else {
        state->async = 0;
        rec->tree_id = msg.tree_id();
    }
    rec->message_id = msg.message_id();
    const uint16_t command = msg.command();
    count_activity(pkt, rec, q, msg);
    if (command > SMB2_COMMAND_MAX) return SMB_PARSE_IGNORED;
    rec->commands[0] |= command_bit(command);

    const CommandContext ctx{pkt, rec, q, msg, state, connection_key(pkt, rec->is_response)};
    return dispatch(ctx, command);
}
