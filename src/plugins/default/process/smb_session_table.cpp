#include "smb_session_table.h"

#include <string.h>

namespace {

// The record of `key`, pushing out (and counting) another key when its bucket is full.
template <typename Table, typename Key>
auto &claim(Table *t, const Key &key) {
    bool evicted;
    auto &r = t->claim(key, evicted);
    if (evicted) ++t->evicted;
    return r;
}

// A reference to a block holding `names`: the last one made when it holds them, else a new one.
smb::ntlmssp::SharedIdentity *names_block(sessiontable *t, const smb::ntlmssp::Identity &names) {
    if (t->last_names && memcmp(&t->last_identity, &names, sizeof names) == 0) {
        t->last_names->ref();
        return t->last_names;
    }
    smb::ntlmssp::SharedIdentity *made = smb::ntlmssp::SharedIdentity::make(names);
    smb::ntlmssp::SharedIdentity::unref(t->last_names);
    made->ref();
    t->last_names = made;
    t->last_identity = names;
    return made;
}

}  // namespace

sessiontable *sessiontable_create(int32_t size) {
    return smb::create_table<sessiontable>(size);
}

void sessiontable_free(sessiontable *t) {
    if (t) smb::ntlmssp::SharedIdentity::unref(t->last_names);
    smb::free_table(t);
}

void sessiontable_put(sessiontable *t, uint32_t client_addr32, uint16_t client_port,
                      uint64_t session_id, uint64_t auth_ns, bool anonymous,
                      const smb::ntlmssp::Identity &names) {
    session_record &r = claim(t, session_key{client_addr32, client_port, session_id});
    r.auth_ns = auth_ns;
    r.anonymous = anonymous ? 1 : 0;
    // Records still exporting the session's earlier names keep them through their references.
    smb::ntlmssp::SharedIdentity::unref(r.names);
    r.names = anonymous ? nullptr : names_block(t, names);
}

void session_record::release() {
    smb::ntlmssp::SharedIdentity::unref(names);
    names = nullptr;
}

const session_record *sessiontable_find(sessiontable *t, uint32_t client_addr32,
                                        uint16_t client_port, uint64_t session_id) {
    return t->find({client_addr32, client_port, session_id});
}

pipetable *pipetable_create(int32_t size) {
    return smb::create_table<pipetable>(size);
}

void pipetable_free(pipetable *t) {
    smb::free_table(t);
}

void pipetable_bind(pipetable *t, uint32_t client_addr32, uint16_t client_port, uint64_t file_id,
                    uint16_t context_id, const smb::dcerpc::Uuid &interface) {
    claim(t, pipe_key{client_addr32, client_port, context_id, file_id}).interface = interface;
}

const smb::dcerpc::Uuid *pipetable_find(pipetable *t, uint32_t client_addr32, uint16_t client_port,
                                        uint64_t file_id, uint16_t context_id) {
    const pipe_record *r = t->find({client_addr32, client_port, context_id, file_id});
    return r ? &r->interface : nullptr;
}
