#include "smb_message_table.h"

#include <string.h>

messagetable *messagetable_create(int32_t size) {
    return smb::create_table<messagetable>(size);
}

void messagetable_free(messagetable *t) {
    smb::free_table(t);
}

void messagetable_insert(messagetable *t, const void *name, uint8_t op, uint32_t tree_id,
                         uint32_t client_addr32, uint16_t client_port, uint64_t message_id) {
    t->insert({client_addr32, client_port, message_id}, [&](message_record &r) {
        if (name) memcpy(r.name, name, sizeof r.name);
        r.op = op;
        r.tree_id = tree_id;
    });
}

const uint8_t *messagetable_get_name(messagetable *t, uint32_t client_addr32, uint16_t client_port,
                                     uint64_t message_id, uint8_t *op, uint32_t *tree_id,
                                     uint32_t *commands, uint64_t *linked_message_id) {
    const message_record *r = t->find({client_addr32, client_port, message_id});
    if (!r) return nullptr;
    if (op) *op = r->op;
    if (tree_id) *tree_id = r->tree_id;
    if (commands) *commands = r->commands;
    if (linked_message_id) *linked_message_id = r->linked_message_id;
    return r->name;
}

void messagetable_add_command(messagetable *t, uint32_t client_addr32, uint16_t client_port,
                              uint64_t message_id, uint32_t commands, uint64_t linked_message_id) {
    message_record *r = t->find({client_addr32, client_port, message_id});
    if (!r) return;
    r->commands |= commands;
    r->linked_message_id = linked_message_id;
}
