// SMB2 compound chains (MS-SMB2 3.2.4.1.4, 3.3.4.1.3). The packet's record always describes the
// chain's first message. In a related chain (SMB2_FLAGS_RELATED_OPERATIONS) the later messages
// act on what the first one opened and are folded into the same record; in an unrelated chain
// each later message only leaves its effect on the tables.
#include "smb_parser_internal.h"

namespace smb::parser {

namespace {

// Walks the later messages of a chain: `visit` gets each one with its bytes to the end of the
// data. Returns false, after the messages visited so far, when a NextCommand leaves no room for
// the header that it announces.
template <typename Visit>
bool walk_later_messages(const Smb2Message &first, smb_msg_state *state, Visit &&visit) {
    Smb2Message current = first;
    uint32_t next = first.next_command();
    uint32_t available = state->available;
    while (next != 0) {
        if (!next_header_fits(next, available)) return false;
        current = current.at(next);
        available -= next;
        state->available = available;
        visit(current);
        next = current.next_command();
    }
    return true;
}

class RelatedChain {
  public:
    RelatedChain(smb_flow_data *rec, smb_queue_ctx *q, ConnKey key, bool async)
        : rec_(rec), q_(q), key_(key), async_(async) {}

    void handle(const Smb2Message &msg) {
        const uint16_t command = msg.command();
        if (command <= SMB2_LOGOFF || command == SMB2_CANCEL || command == SMB2_ECHO ||
            command > SMB2_COMMAND_MAX)
            return;
        const bool after_set_info = (rec_->commands[0] & SMB_CMD_SET_INFO) != 0;
        rec_->commands[0] |= command_bit(command);
        const uint64_t id = rec_->message_id;
        const bool response = rec_->is_response != 0;

        switch (command) {
            case SMB2_TREE_CONNECT:
                if (response)
                    tree_connect_response(id);
                else
                    store_tree_connect_request(q_, key_, id, msg);
                break;
            case SMB2_CREATE:
                if (response)
                    create_response(msg, id);
                else
                    store_create_request(q_, key_, id, rec_->tree_id, msg, rec_->op);
                break;
            case SMB2_SET_INFO:
                if (response)
                    delete_check(msg, id);
                else
                    set_info_request(msg, id);
                break;
            case SMB2_OPLOCK_BREAK:
                if (response) oplock_break_response(msg);
                break;
            case SMB2_TREE_DISCONNECT:
                break;
            default:  // the other commands on an open file
                if (response && after_set_info) delete_check(msg, id);
                break;
        }
    }

  private:
    void tree_connect_response(uint64_t id) {
        auto name = messagetable_get_name(q_->messagetable, key_.addr, key_.port, id, nullptr,
                                          nullptr, nullptr, nullptr);
        if (!name || name_is_empty(name)) return;
        PendingMasks masks = kTreeConnectGranted;
        locked(q_->treetable, [&](treetable *t) {
            treetable_insert(t, name, masks.words, key_.addr, key_.port, rec_->tree_id);
        });
    }

    void create_response(const Smb2Message &msg, uint64_t id) {
        CreateGrant grant;
        if (!msg.succeeded() || !read_create_grant(q_, msg, grant)) return;
        rec_->file_type = grant.file_type;
        rec_->op = grant.op;
        rec_->file_id = grant.file_id;
        uint8_t request_op = 0xff;
        auto name = messagetable_get_name(q_->messagetable, key_.addr, key_.port, id, &request_op,
                                          async_ ? &rec_->tree_id : nullptr, nullptr, nullptr);
        if (request_op != 0xff && (request_op & SMB_OP_DELETE)) rec_->op |= SMB_OP_DELETE;
        if (!name) return;
        const uint8_t empty = name_is_empty(name) ? 1 : 0;
        PendingMasks masks = kCreateGranted;
        locked(q_->filetable, [&](filetable *t) {
            filetable_insert(t, name, empty, rec_->file_type, rec_->op, masks.words, rec_->tree_id,
                             key_.addr, key_.port, rec_->file_id);
        });
    }

    // The file id of a related SET_INFO is the one the chain opened, not its own FileId field.
    void set_info_request(const Smb2Message &msg, uint64_t id) {
        const FileCommandLayout *layout = file_command_layout(SMB2_SET_INFO);
        if (msg.body_length() < layout->min_body || !set_info_requests_delete(msg.body())) return;
        rec_->op |= SMB_OP_DELETE;
        messagetable2_insert(q_->messagetable2, rec_->file_id, rec_->tree_id, key_.addr, key_.port,
                             id, 1);
    }

    void delete_check(const Smb2Message &msg, uint64_t id) {
        uint8_t delete_requested = 0;
        messagetable2_get_file_id(q_->messagetable2, key_.addr, key_.port, id, nullptr,
                                  &delete_requested);
        if (delete_requested)
            rec_->op |= msg.succeeded() ? SMB_OP_DELETE : (SMB_OP_DELETE | SMB_OP_FAILED);
    }

    void oplock_break_response(const Smb2Message &msg) {
        if (msg.body_length() < 24 || rec_->tree_id != 0) return;
        rec_->tree_id = locked(q_->filetable, [&](filetable *t) {
            return filetable_get_tree_id(t, key_.addr, key_.port, rec_->file_id);
        });
    }

    smb_flow_data *rec_;
    smb_queue_ctx *q_;
    ConnKey key_;
    bool async_;
};

// A later message of an unrelated chain, parsed into a scratch record of its own.
class UnrelatedMessage {
  public:
    UnrelatedMessage(const host_packet *pkt, smb_queue_ctx *q, const Smb2Message &msg)
        : q_(q),
          msg_(msg),
          response_(msg.is_response()),
          async_(msg.is_async()),
          key_(connection_key(pkt, response_)),
          message_id_(msg.message_id()),
          tree_id_(async_ ? 0 : msg.tree_id()) {}

    bool async() const { return async_; }

    void handle() {
        const uint16_t command = msg_.command();
        if (command < SMB2_TREE_CONNECT || command > SMB2_COMMAND_MAX) return;
        command_word_ = SMB_CMD_LOW_BYTE | command_bit(command);
        if (command == SMB2_TREE_CONNECT) {
            if (response_)
                tree_connect_response();
            else
                store_tree_connect_request(q_, key_, message_id_, msg_);
        } else if (command == SMB2_CREATE) {
            if (response_)
                create_response();
            else
                store_create_request(q_, key_, message_id_, tree_id_, msg_, op_);
        } else if (const FileCommandLayout *layout = file_command_layout(command)) {
            if (response_)
                file_response();
            else
                file_request(*layout, command);
        }
        // TREE_DISCONNECT, CANCEL, ECHO and OPLOCK_BREAK leave nothing behind.
    }

  private:
    void tree_connect_response() {
        auto name = messagetable_get_name(q_->messagetable, key_.addr, key_.port, message_id_,
                                          nullptr, nullptr, nullptr, nullptr);
        if (!name || name_is_empty(name)) return;
        PendingMasks masks = kTreeConnectGranted;
        locked(q_->treetable, [&](treetable *t) {
            treetable_insert(t, name, masks.words, key_.addr, key_.port, tree_id_);
        });
    }

    void create_response() {
        CreateGrant grant;
        if (!msg_.succeeded() || !read_create_grant(q_, msg_, grant)) return;
        op_ = grant.op;
        uint8_t request_op = 0xff;
        auto name =
            messagetable_get_name(q_->messagetable, key_.addr, key_.port, message_id_, &request_op,
                                  async_ ? &tree_id_ : nullptr, nullptr, nullptr);
        if (request_op != 0xff && (request_op & SMB_OP_DELETE)) op_ |= SMB_OP_DELETE;
        if (!name) return;
        const uint8_t empty = name_is_empty(name) ? 1 : 0;
        PendingMasks masks = kCreateGranted;
        locked(q_->filetable, [&](filetable *t) {
            filetable_insert(t, name, empty, grant.file_type, op_, masks.words, tree_id_, key_.addr,
                             key_.port, grant.file_id);
        });
    }

    void file_request(const FileCommandLayout &layout, uint16_t command) {
        if (msg_.body_length() < layout.min_body) return;
        const ByteReader body = msg_.body();
        const uint64_t file_id = body.le64(layout.file_id_offset);
        const uint8_t delete_requested =
            command == SMB2_SET_INFO && set_info_requests_delete(body) ? 1 : 0;
        messagetable2_insert(q_->messagetable2, file_id, tree_id_, key_.addr, key_.port,
                             message_id_, delete_requested);
        PendingMasks masks{{command_word_, 0}};
        locked(q_->filetable, [&](filetable *t) {
            filetable_add_command(t, key_.addr, key_.port, file_id, masks.words);
        });
    }

    // An unknown request still reports its command, under file id 0.
    void file_response() {
        uint8_t delete_requested = 0;
        const uint64_t file_id =
            messagetable2_get_file_id(q_->messagetable2, key_.addr, key_.port, message_id_,
                                      async_ ? &tree_id_ : nullptr, &delete_requested);
        if (delete_requested) {
            const uint8_t outcome = msg_.succeeded() ? 1 : 2;
            locked(q_->filetable, [&](filetable *t) {
                filetable_set_delete_flag(t, key_.addr, key_.port, file_id, outcome);
            });
        }
        PendingMasks masks{{0, command_word_}};
        locked(q_->filetable, [&](filetable *t) {
            filetable_add_command(t, key_.addr, key_.port, file_id, masks.words);
        });
    }

    smb_queue_ctx *q_;
    const Smb2Message &msg_;
    uint8_t response_;
    bool async_;
    ConnKey key_;
    uint64_t message_id_;
    uint32_t tree_id_;
    uint8_t op_ = SMB_OP_UNKNOWN;
    uint32_t command_word_ = SMB_CMD_LOW_BYTE;
};

int32_t parse_related(host_packet *pkt, smb_flow_data *rec, smb_queue_ctx *q, const uint8_t *hdr,
                      smb_msg_state *state) {
    const Smb2Message first(hdr, state->available);
    const int32_t result = parse_normal_command(pkt, rec, q, hdr, state);
    const uint64_t first_id = rec->message_id;
    const ConnKey key = connection_key(pkt, rec->is_response);
    RelatedChain chain(rec, q, key, state->async != 0);
    const bool complete = walk_later_messages(first, state, [&](const Smb2Message &msg) {
        rec->message_id = msg.message_id();
        count_activity(pkt, rec, q, msg);
        chain.handle(msg);
    });
    if (!complete) return SMB_PARSE_MALFORMED;
    // Hand the chain's commands and its last message id to the CREATE's table record, so
    // that the CREATE response can give the file id to the responses of the whole chain.
    if (rec->is_response == 0 && (rec->commands[0] & SMB_CMD_CREATE)) {
        messagetable_add_command(q->messagetable, key.addr, key.port, first_id, rec->commands[0],
                                 rec->message_id);
    }
    return result;
}

int32_t parse_unrelated(host_packet *pkt, smb_flow_data *rec, smb_queue_ctx *q, const uint8_t *hdr,
                        smb_msg_state *state) {
    const uint32_t held = state->available;
    const Smb2Message first(hdr, held);
    const bool complete = walk_later_messages(first, state, [&](const Smb2Message &msg) {
        UnrelatedMessage later(pkt, q, msg);
        count_activity(pkt, rec, q, msg);
        state->async = later.async() ? 1 : 0;
        later.handle();
    });
    if (!complete) return SMB_PARSE_MALFORMED;
    // The first message is parsed last, with its body reaching to the end of the session
    // message (never beyond the bytes actually held).
    if (state->total_length < SMB_SESSION_HEADER_SIZE + SMB2_HEADER_SIZE)
        return SMB_PARSE_MALFORMED;
    const uint32_t message_bytes = state->total_length - SMB_SESSION_HEADER_SIZE;
    state->available = message_bytes < held ? message_bytes : held;
    return parse_normal_command(pkt, rec, q, hdr, state);
}

}  // namespace

}  // namespace smb::parser

using namespace smb::parser;

int32_t smb_parse_compound_packet(host_packet *pkt, smb_flow_data *rec, smb_queue_ctx *q,
                                  const uint8_t *hdr, smb_msg_state *state) {
    if (hdr == nullptr || state->available < SMB2_HEADER_SIZE) return SMB_PARSE_MALFORMED;
    const Smb2Message first(hdr, state->available);
    const uint32_t next = first.next_command();
    if (!next_header_fits(next, state->available)) return SMB_PARSE_MALFORMED;
    // The second message's flags choose the mode (the first's own when it stands alone).
    const bool related = (first.at(next).flags() & SMB2_FLAGS_RELATED_OPERATIONS) != 0;
    return related ? parse_related(pkt, rec, q, hdr, state)
                   : parse_unrelated(pkt, rec, q, hdr, state);
}
