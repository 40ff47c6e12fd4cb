// TREE_CONNECT and CREATE (MS-SMB2 2.2.9-2.2.14): the requests name a share path or a file, the
// responses only grant a tree id or a file id. The name is captured into 128 bytes and kept in
// the queue's message table until the response moves it into the shared tree or file table.
#include <cstring>

#include "smb_parser_internal.h"

namespace smb::parser {

namespace {

// TREE_CONNECT request body.
constexpr size_t kPathLengthOffset = 6;
constexpr size_t kPathOffset = 8;  // where the path stands when nothing pads it
constexpr uint32_t kTreeConnectMinBody = 9;
constexpr uint8_t kTreeConnectOp = 255;

// CREATE request body.
constexpr size_t kCreateDispositionOffset = 36;
constexpr size_t kCreateOptionsByte1Offset = 41;  // second byte of CreateOptions
constexpr uint8_t kDeleteOnCloseByte1 = 0x10;     // FILE_DELETE_ON_CLOSE 0x00001000
constexpr size_t kNameLengthOffset = 46;
constexpr size_t kNameOffset = 56;
constexpr uint32_t kCreateRequestMinBody = 57;

// CREATE response body.
constexpr size_t kCreateActionOffset = 4;
constexpr size_t kFileAttributesOffset = 56;
constexpr uint8_t kAttributeDirectory = 0x10;  // FILE_ATTRIBUTE_DIRECTORY
constexpr size_t kFileIdOffset = 64;
constexpr uint32_t kCreateResponseMinBody = 89;

constexpr uint8_t kUnknownRequestOp = 0xff;
constexpr size_t kMaxLinkedMessages = 7;

bool is_high_surrogate(const uint8_t *unit) {
    const uint16_t v = static_cast<uint16_t>(unit[0] | unit[1] << 8);
    return v >= 0xD800 && v <= 0xDBFF;
}

// A failed CREATE keeps the request's disposition with codes 3 and 4 exchanged, so that 3
// stands for overwrite and 4 for open-if as in a successful response.
uint8_t failure_op(uint8_t request_op, uint8_t rec_op) {
    switch (request_op) {
        case kUnknownRequestOp:
            return rec_op | SMB_OP_FAILED;
        case SMB_OP_OPEN_IF:
            return SMB_OP_FAILED | SMB_OP_OVERWRITE;
        case SMB_OP_OVERWRITE:
            return SMB_OP_FAILED | SMB_OP_OPEN_IF;
        case SMB_OP_DELETE | SMB_OP_OPEN_IF:
            return SMB_OP_FAILED | SMB_OP_DELETE | SMB_OP_OVERWRITE;
        case SMB_OP_DELETE | SMB_OP_OVERWRITE:
            return SMB_OP_FAILED | SMB_OP_DELETE | SMB_OP_OPEN_IF;
        default:
            return request_op | SMB_OP_FAILED;
    }
}

// The TREE_CONNECT response names the granted tree id in its own header.
int32_t tree_connect_response(const CommandContext &ctx) {
    smb_flow_data *rec = ctx.rec;
    auto name = messagetable_get_name(ctx.q->messagetable, ctx.key.addr, ctx.key.port,
                                      rec->message_id, nullptr, nullptr, nullptr, nullptr);
    if (name && !name_is_empty(name)) {
        locked(ctx.q->treetable, [&](treetable *t) {
            treetable_insert(t, name, nullptr, ctx.key.addr, ctx.key.port, rec->tree_id);
        });
    }
    fold_tree(ctx.pkt, rec->tree_id);
    rec->commands[1] |= SMB_CMD_BIT(SMB2_TREE_CONNECT);
    return SMB_PARSE_OK;
}

int32_t create_success(const CommandContext &ctx) {
    CreateGrant grant;
    if (!read_create_grant(ctx.q, ctx.msg, grant)) return SMB_PARSE_MALFORMED;
    smb_flow_data *rec = ctx.rec;
    rec->file_type = grant.file_type;
    rec->op = grant.op;
    rec->file_id = grant.file_id;

    uint8_t request_op = kUnknownRequestOp;
    uint32_t chain_commands = 0;
    uint64_t linked_id = 0;
    auto name = messagetable_get_name(
        ctx.q->messagetable, ctx.key.addr, ctx.key.port, rec->message_id, &request_op,
        ctx.state->async ? &rec->tree_id : nullptr, &chain_commands, &linked_id);
    rec->commands[1] |= chain_commands;
    if (request_op != kUnknownRequestOp && (request_op & SMB_OP_DELETE)) rec->op |= SMB_OP_DELETE;
    if (name) {
        const uint8_t empty = name_is_empty(name) ? 1 : 0;
        locked(ctx.q->filetable, [&](filetable *t) {
            filetable_insert(t, name, empty, rec->file_type, rec->op, nullptr, rec->tree_id,
                             ctx.key.addr, ctx.key.port, rec->file_id);
        });
    }

    // The later messages of a related chain that began with this CREATE named no file id of
    // their own; give their responses this one.
    const uint64_t mid = rec->message_id;
    const uint64_t distance = linked_id - 1 - mid;
    if (linked_id != 0 && distance < kMaxLinkedMessages && mid + 1 <= linked_id) {
        for (uint64_t i = 0; i <= distance; ++i) {
            messagetable2_insert(ctx.q->messagetable2, rec->file_id, rec->tree_id, ctx.key.addr,
                                 ctx.key.port, mid + 1 + i, 0);
        }
    }

    fold_tree_file(ctx.pkt, rec->tree_id, rec->file_id);
    rec->commands[1] |= SMB_CMD_BIT(SMB2_CREATE);
    return SMB_PARSE_OK;
}

// A failed CREATE grants no file id: the name goes into the packet's record instead.
int32_t create_failure(const CommandContext &ctx) {
    smb_flow_data *rec = ctx.rec;
    uint8_t request_op = kUnknownRequestOp;
    uint32_t chain_commands = SMB_CMD_LOW_BYTE;
    auto name = messagetable_get_name(
        ctx.q->messagetable, ctx.key.addr, ctx.key.port, rec->message_id, &request_op,
        ctx.state->async ? &rec->tree_id : nullptr, &chain_commands, nullptr);
    if (name && !name_is_empty(name)) {
        if (rec->file_name == nullptr) rec->file_name = smb_name_new();
        std::memcpy(rec->file_name, name, SMB_NAME_SIZE);
    }
    rec->op = failure_op(request_op, rec->op);
    rec->commands[1] |= chain_commands;
    fold_tree_file(ctx.pkt, rec->tree_id, rec->file_id);
    fold_message(ctx.pkt, rec->message_id);
    rec->commands[1] |= SMB_CMD_BIT(SMB2_CREATE);
    return SMB_PARSE_OK;
}

}  // namespace

int32_t store_tree_connect_request(smb_queue_ctx *q, ConnKey key, uint64_t message_id,
                                   const Smb2Message &msg) {
    if (msg.body_length() < kTreeConnectMinBody) return SMB_PARSE_MALFORMED;
    const ByteReader body = msg.body();
    const uint16_t path_length = body.le16(kPathLengthOffset);
    if (path_length == 0) {
        messagetable_insert(q->messagetable, nullptr, kTreeConnectOp, 0, key.addr, key.port,
                            message_id);
        return SMB_PARSE_STORED;
    }
    const std::span<const uint8_t> path = body.bytes(kPathOffset, path_length);
    if (msg.body_length() < kPathOffset + path_length || path.empty()) return SMB_PARSE_MALFORMED;
    uint8_t captured[SMB_NAME_SIZE];
    smb2_copy_name_head(path.data(), path_length, captured);
    messagetable_insert(q->messagetable, captured, kTreeConnectOp, 0, key.addr, key.port,
                        message_id);
    return SMB_PARSE_STORED;
}

int32_t store_create_request(smb_queue_ctx *q, ConnKey key, uint64_t message_id, uint32_t tree_id,
                             const Smb2Message &msg, uint8_t &op) {
    if (msg.body_length() < kCreateRequestMinBody) return SMB_PARSE_MALFORMED;
    const ByteReader body = msg.body();
    op = body.u8(kCreateDispositionOffset);
    if (body.u8(kCreateOptionsByte1Offset) & kDeleteOnCloseByte1) op |= SMB_OP_DELETE;
    const uint16_t name_length = body.le16(kNameLengthOffset);
    if (name_length == 0) {
        messagetable_insert(q->messagetable, nullptr, op, tree_id, key.addr, key.port, message_id);
        return SMB_PARSE_STORED;
    }
    const std::span<const uint8_t> name = body.bytes(kNameOffset, name_length);
    if (msg.body_length() < kNameOffset + name_length || name.empty()) return SMB_PARSE_MALFORMED;
    uint8_t captured[SMB_NAME_SIZE];
    smb2_copy_name_tail(name.data(), name_length, captured);
    messagetable_insert(q->messagetable, captured, op, tree_id, key.addr, key.port, message_id);
    return SMB_PARSE_STORED;
}

bool read_create_grant(const smb_queue_ctx *q, const Smb2Message &msg, CreateGrant &grant) {
    // MS-SMB2 2.2.14 names 89 bytes, but a response without create contexts ends after
    // CreateContextsLength at 88 bytes, and servers send it so; every field read here lies
    // within those 88 bytes, so the opt-in takes such responses as well.
    const uint32_t minimum = q->short_create ? kCreateResponseMinBody - 1 : kCreateResponseMinBody;
    if (msg.body_length() < minimum) return false;
    const ByteReader body = msg.body();
    grant.file_type = (body.u8(kFileAttributesOffset) & kAttributeDirectory)
                          ? SMB_FILE_TYPE_DIRECTORY
                          : SMB_FILE_TYPE_FILE;
    grant.op = body.u8(kCreateActionOffset);
    grant.file_id = body.le64(kFileIdOffset);
    return true;
}

int32_t parse_tree_connect(const CommandContext &ctx) {
    if (ctx.rec->is_response) return tree_connect_response(ctx);
    return store_tree_connect_request(ctx.q, ctx.key, ctx.rec->message_id, ctx.msg);
}

int32_t parse_create(const CommandContext &ctx) {
    smb_flow_data *rec = ctx.rec;
    if (!rec->is_response)
        return store_create_request(ctx.q, ctx.key, rec->message_id, rec->tree_id, ctx.msg,
                                    rec->op);
    return ctx.msg.succeeded() ? create_success(ctx) : create_failure(ctx);
}

}  // namespace smb::parser

void smb2_copy_name_head(const uint8_t *name, uint16_t length, uint8_t *out) {
    std::memset(out, 0, SMB_NAME_SIZE);
    if (length < SMB_NAME_SIZE) {
        if (length) std::memcpy(out, name, length);
        return;
    }
    std::memcpy(out, name, SMB_NAME_SIZE);
    // Keep 63 units, or 62 when the 63rd is the first half of a surrogate pair.
    const size_t keep = smb::parser::is_high_surrogate(out + 124) ? 124 : 126;
    std::memset(out + keep, 0, SMB_NAME_SIZE - keep);
}

void smb2_copy_name_tail(const uint8_t *name, uint16_t length, uint8_t *out) {
    std::memset(out, 0, SMB_NAME_SIZE);
    if (length < SMB_NAME_SIZE) {
        if (length) std::memcpy(out, name, length);
        return;
    }
    // Keep the last 63 units, or 62 when the first of them would be the second half of a
    // surrogate pair whose first half falls outside.
    const uint8_t *end = name + length;
    const size_t keep = smb::parser::is_high_surrogate(end - SMB_NAME_SIZE) ? 124 : 126;
    std::memcpy(out, end - keep, keep);
}
