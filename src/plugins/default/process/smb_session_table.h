// Tables of the identity and remote-call fields (activity=1), shared by all queues (hold
// `lock` with smb::SpinGuard around every call).
//
// The session table keeps, under (client address, client port, SessionId), the names that the
// session's NTLMSSP AUTHENTICATE message gave and the capture time of that message: records
// resolve their session's names when they are exported. The pipe table keeps, under (client
// address, client port, FileId of a named pipe, presentation context id), the interface UUID
// that a BIND or ALTER_CONTEXT gave the context, for the REQUESTs that name only the context.
//
// Both follow the bucket scheme of smb_table_scheme.h: an entry pushed out of a full bucket by
// another key is counted as evicted.
#pragma once

#include <pthread.h>
#include <stdint.h>

#include "smb.h"
#include "smb_dcerpc.h"
#include "smb_identity.h"
#include "smb_ntlmssp.h"
#include "smb_table_scheme.h"

struct session_key {
    uint32_t client_addr32;
    uint16_t client_port;
    uint64_t session_id;

    bool operator==(const session_key &) const = default;
    auto packed() const { return smb::pack_le(session_id, client_addr32, client_port); }
};

struct session_record {
    session_key key;
    uint64_t auth_ns;  // capture time of the AUTHENTICATE request
    uint8_t anonymous;
    // The session's names, a reference of the record's own; null for an anonymous session.
    smb::ntlmssp::SharedIdentity *names;

    uint64_t used;  // the table's stamp

    void release();
};

struct sessiontable : smb::BucketTable<session_record> {
    pthread_spinlock_t lock;
    uint64_t evicted;
    // The names block made last, a reference of the table's own, or null, and the names it
    // was made from: sessions of one user mostly give the same names, and a later session
    // that does shares the block.
    smb::ntlmssp::SharedIdentity *last_names;
    smb::ntlmssp::Identity last_identity;
};

sessiontable *sessiontable_create(int32_t size);
void sessiontable_free(sessiontable *t);

// Records (or renews) a session's identity from an AUTHENTICATE seen at `auth_ns`.
void sessiontable_put(sessiontable *t, uint32_t client_addr32, uint16_t client_port,
                      uint64_t session_id, uint64_t auth_ns, bool anonymous,
                      const smb::ntlmssp::Identity &names);

// The session's record, or null.
const session_record *sessiontable_find(sessiontable *t, uint32_t client_addr32,
                                        uint16_t client_port, uint64_t session_id);

struct pipe_key {
    uint32_t client_addr32;
    uint16_t client_port;
    uint16_t context_id;
    uint64_t file_id;

    bool operator==(const pipe_key &) const = default;
    auto packed() const { return smb::pack_le(file_id, client_addr32, client_port, context_id); }
};

struct pipe_record {
    pipe_key key;
    smb::dcerpc::Uuid interface;
    uint64_t used;  // the table's stamp
};

struct pipetable : smb::BucketTable<pipe_record> {
    pthread_spinlock_t lock;
    uint64_t evicted;
};

pipetable *pipetable_create(int32_t size);
void pipetable_free(pipetable *t);

// Binds a context of the pipe to an interface (a later bind of the same context replaces it).
void pipetable_bind(pipetable *t, uint32_t client_addr32, uint16_t client_port, uint64_t file_id,
                    uint16_t context_id, const smb::dcerpc::Uuid &interface);

// The interface of a context, or null when it was not bound (or was pushed out).
const smb::dcerpc::Uuid *pipetable_find(pipetable *t, uint32_t client_addr32, uint16_t client_port,
                                        uint64_t file_id, uint16_t context_id);
