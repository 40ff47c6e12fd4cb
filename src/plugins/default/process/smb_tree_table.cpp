#include "smb_tree_table.h"

#include <string.h>

treetable *treetable_create(int32_t size) {
    return smb::create_table<treetable>(size);
}

void treetable_free(treetable *t) {
    smb::free_table(t);
}

int treetable_insert(treetable *t, const void *name, const uint32_t *pending_commands,
                     uint32_t client_addr32, uint16_t client_port, uint32_t tree_id) {
    const auto outcome = t->insert({client_addr32, client_port, tree_id}, [&](tree_record &r) {
        if (name) memcpy(r.name, name, sizeof r.name);
        if (pending_commands)
            memcpy(r.pending_commands, pending_commands, sizeof r.pending_commands);
    });
    return static_cast<int>(outcome);
}

const uint8_t *treetable_get_tree(treetable *t, uint32_t client_addr32, uint16_t client_port,
                                  uint32_t tree_id, uint32_t *pending_commands) {
    tree_record *r = t->find({client_addr32, client_port, tree_id});
    if (!r) return nullptr;
    if (pending_commands) {
        memcpy(pending_commands, r->pending_commands, sizeof r->pending_commands);
        memset(r->pending_commands, 0, sizeof r->pending_commands);
    }
    return r->name;
}
