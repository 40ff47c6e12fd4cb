#include "smb_file_table.h"

#include <string.h>

namespace {

// A record for a file id first seen after its CREATE: no name, type or operation known.
void make_nameless(file_record &r) {
    r.op = SMB_OP_INVALID;
}

}  // namespace

filetable *filetable_create(int32_t size) {
    return smb::create_table<filetable>(size);
}

void filetable_free(filetable *t) {
    smb::free_table(t);
}

int filetable_insert(filetable *t, const void *name, uint8_t name_empty, uint8_t file_type,
                     uint8_t op, const uint32_t *pending_commands, uint32_t tree_id,
                     uint32_t client_addr32, uint16_t client_port, uint64_t file_id) {
    const auto outcome = t->insert({client_addr32, client_port, file_id}, [&](file_record &r) {
        if (name) memcpy(r.name, name, sizeof r.name);
        r.name_empty = name_empty;
        r.file_type = file_type;
        r.op = op;
        if (pending_commands)
            memcpy(r.pending_commands, pending_commands, sizeof r.pending_commands);
        r.tree_id = tree_id;
    });
    return static_cast<int>(outcome);
}

const uint8_t *filetable_get_file(filetable *t, uint32_t client_addr32, uint16_t client_port,
                                  uint64_t file_id, uint8_t *file_type, uint8_t *op,
                                  uint32_t *pending_commands, uint8_t *name_empty) {
    file_record *r = t->find({client_addr32, client_port, file_id});
    if (!r) return nullptr;
    if (file_type) *file_type = r->file_type;
    if (op) *op = r->op;
    if (pending_commands) {
        memcpy(pending_commands, r->pending_commands, sizeof r->pending_commands);
        memset(r->pending_commands, 0, sizeof r->pending_commands);
    }
    if (name_empty) *name_empty = r->name_empty;
    return r->name;
}

uint32_t filetable_get_tree_id(filetable *t, uint32_t client_addr32, uint16_t client_port,
                               uint64_t file_id) {
    const file_record *r = t->find({client_addr32, client_port, file_id});
    return r ? r->tree_id : 0;
}

void filetable_add_command(filetable *t, uint32_t client_addr32, uint16_t client_port,
                           uint64_t file_id, const uint32_t *commands) {
    bool created = false;
    file_record *r = t->find_or_create({client_addr32, client_port, file_id}, created);
    if (!r) return;
    if (created) make_nameless(*r);
    r->pending_commands[0] |= commands[0];
    r->pending_commands[1] |= commands[1];
}

void filetable_set_delete_flag(filetable *t, uint32_t client_addr32, uint16_t client_port,
                               uint64_t file_id, uint8_t flags) {
    bool created = false;
    file_record *r = t->find_or_create({client_addr32, client_port, file_id}, created);
    if (!r) return;
    if (created) make_nameless(*r);
    r->delete_flags = flags;
}

int filetable_get_delete_flag(filetable *t, uint32_t client_addr32, uint16_t client_port,
                              uint64_t file_id, uint8_t selector) {
    if (selector > 1) return 0;
    file_record *r = t->find({client_addr32, client_port, file_id});
    if (!r) return 0;
    const uint8_t bit = selector == 0 ? SMB_DELETE_SUCCEEDED : SMB_DELETE_FAILED;
    if (!(r->delete_flags & bit)) return 0;
    r->delete_flags &= uint8_t(~bit);
    return 1;
}
