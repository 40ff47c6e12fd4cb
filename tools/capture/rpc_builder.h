// Builders of the authentication and remote-call payloads that SMB2 carries: NTLMSSP
// AUTHENTICATE messages (MS-NLMP 2.2.1.3), their SPNEGO wrappings (RFC 4178), DCE/RPC BIND and
// REQUEST PDUs (C706 12.6), and the SESSION_SETUP, WRITE and IOCTL request bodies that hold
// them at their MS-SMB2 offsets.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>
#include <vector>

#include "smb2_builder.h"

namespace smb2test {

struct NtlmNames {
    std::string_view user, domain, workstation;
    bool unicode = true;  // NTLMSSP_NEGOTIATE_UNICODE; OEM (one byte a character) otherwise
};

// An AUTHENTICATE message with the three names (and 24-byte LM and NT responses, whose bytes
// do not matter here), payload in the order domain, user, workstation.
Bytes ntlm_authenticate(const NtlmNames &names);

// SPNEGO: a negTokenTarg (as the second leg of a logon sends it) and a GSS-API
// InitialContextToken with a negTokenInit, each carrying `token` as its [2] OCTET STRING.
Bytes spnego_targ(const Bytes &token);
Bytes spnego_init(const Bytes &token);

// A SESSION_SETUP request body with `security` as its buffer (SecurityBufferOffset 88).
Bytes session_setup_request_body(const Bytes &security);

// An interface UUID from its text form, and in the wire order of a little-endian PDU.
using Uuid = std::array<uint8_t, 16>;
Uuid uuid_from_text(std::string_view text);

struct PresentationContext {
    uint16_t id;
    std::string_view interface;  // UUID text
    uint8_t transfer_syntaxes = 1;
};

// BIND (type 11) or ALTER_CONTEXT (14) offering `contexts`; `little` chooses the data
// representation.
Bytes dcerpc_bind(const std::vector<PresentationContext> &contexts, bool little = true,
                  uint8_t type = 11);
// REQUEST with `stub_length` zero bytes of stub data; `first` sets PFC_FIRST_FRAG.
Bytes dcerpc_request(uint16_t context_id, uint16_t opnum, size_t stub_length = 8, bool first = true,
                     bool little = true);

// WRITE request body with DataOffset pointing at `data` (behind the 48 fixed bytes).
Bytes pipe_write_body(uint64_t file_id, const Bytes &data);
// IOCTL request body for FSCTL_PIPE_TRANSCEIVE (or `ctl_code`) with `input` behind it.
Bytes pipe_transceive_body(uint64_t file_id, const Bytes &input, uint32_t ctl_code = 0x0011C017);

}  // namespace smb2test
