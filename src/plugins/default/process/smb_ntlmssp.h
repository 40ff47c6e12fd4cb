// The client's identity in an SMB2 SESSION_SETUP request: the user, domain and workstation
// names of an NTLMSSP AUTHENTICATE message (MS-NLMP 2.2.1.3), sent raw or as the mechToken or
// responseToken of an SPNEGO token (RFC 4178). Kerberos tokens carry no readable client name.
#pragma once

#include <stdint.h>

#include "smb.h"
#include "smb_reader.h"

namespace smb::ntlmssp {

// Names as the record keeps them: UTF-16LE, zero-filled, the beginning of a longer name.
struct Identity {
    uint8_t user[SMB_NAME_SIZE];
    uint8_t domain[SMB_NAME_SIZE];
    uint8_t workstation[SMB_NAME_SIZE];
};

// The NTLMSSP message inside a security buffer: the buffer itself when it is one, the token
// of an SPNEGO negTokenInit or negTokenTarg otherwise; empty when there is none.
ByteReader find_message(ByteReader security_buffer);

enum class Result {
    none,       // no AUTHENTICATE message (another NTLMSSP message, Kerberos, garbage)
    anonymous,  // an AUTHENTICATE without user name: every name is left empty
    named,      // `out` holds the names (a name whose offset or length lies is left empty)
};

// Reads an AUTHENTICATE message; `out` is zero-filled first.
Result read_authenticate(ByteReader message, Identity &out);

// Both steps on the security buffer of a SESSION_SETUP request.
Result identity_of(ByteReader security_buffer, Identity &out);

}  // namespace smb::ntlmssp
