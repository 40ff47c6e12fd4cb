// Connection-oriented DCE/RPC PDUs (C706 chapter 12, MS-RPCE 2.2.2) as named pipes carry them:
// the presentation contexts that BIND and ALTER_CONTEXT offer, and the context id and opnum of
// REQUEST PDUs. Only the fixed parts are read, so a PDU cut short by its TCP segment still
// gives what lies in the bytes held.
#pragma once

#include <stdint.h>

#include "smb_reader.h"

namespace smb::dcerpc {

// An interface UUID in RFC 4122 byte order (time_low first, most significant byte first),
// whatever the PDU's data representation.
struct Uuid {
    uint8_t bytes[16];
    bool operator==(const Uuid &) const = default;
};

// What a PDU tells. The visitor gets:
//   context(context_id, abstract syntax UUID) for each context of a BIND or ALTER_CONTEXT,
//   request(context_id, opnum, first_fragment) for a REQUEST.
struct Visitor {
    virtual void context(uint16_t context_id, const Uuid &uuid) = 0;
    virtual void request(uint16_t context_id, uint16_t opnum, bool first_fragment) = 0;

  protected:
    ~Visitor() = default;
};

// True when the bytes begin with a common header this parser takes: version 5.0 or 5.1 and a
// fragment length of at least the header's 16 bytes.
bool looks_like_pdu(const ByteReader &data);

// Reads the PDUs that follow each other in `data` (a pipe write or read may hold several);
// stops at the first that is not one or that runs past the data. Returns the PDUs read.
int scan(ByteReader data, Visitor &visitor);

// Lower-case text "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx" and a terminating zero.
void uuid_text(const Uuid &uuid, char (&out)[37]);

}  // namespace smb::dcerpc
