#include "smb_message_table2.h"

messagetable2 *messagetable2_create(int32_t size) {
    return smb::create_table<messagetable2>(size);
}

void messagetable2_free(messagetable2 *t) {
    smb::free_table(t);
}

void messagetable2_insert(messagetable2 *t, uint64_t file_id, uint32_t tree_id,
                          uint32_t client_addr32, uint16_t client_port, uint64_t message_id,
                          uint8_t delete_requested) {
    t->insert({client_addr32, client_port, message_id}, [&](message2_record &r) {
        r.file_id = file_id;
        r.tree_id = tree_id;
        r.delete_requested = delete_requested;
    });
}

uint64_t messagetable2_get_file_id(messagetable2 *t, uint32_t client_addr32, uint16_t client_port,
                                   uint64_t message_id, uint32_t *tree_id,
                                   uint8_t *delete_requested) {
    const message2_record *r = t->find({client_addr32, client_port, message_id});
    if (!r) return 0;
    if (tree_id) *tree_id = r->tree_id;
    if (delete_requested) *delete_requested = r->delete_requested;
    return r->file_id;
}
