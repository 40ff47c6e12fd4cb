// NTLMSSP AUTHENTICATE messages, raw or wrapped in SPNEGO (RFC 4178, the DER of X.690). Every
// length and offset comes from the network and is checked against the bytes held: a lie gives
// no name, never a read outside them.
#include "smb_ntlmssp.h"

#include <cstring>

#include "smb_parser.h"

namespace smb::ntlmssp {

namespace {

constexpr uint8_t kSignature[8] = {'N', 'T', 'L', 'M', 'S', 'S', 'P', 0};
constexpr uint32_t kAuthenticate = 3;
// AUTHENTICATE_MESSAGE (MS-NLMP 2.2.1.3): field descriptors (Len, MaxLen, BufferOffset).
constexpr size_t kTypeOffset = 8;
constexpr size_t kDomainFields = 28;
constexpr size_t kUserFields = 36;
constexpr size_t kWorkstationFields = 44;
constexpr size_t kFlagsOffset = 60;
constexpr size_t kFixedSize = 64;
constexpr uint32_t kNegotiateUnicode = 0x00000001;

// DER tags of the SPNEGO tokens.
constexpr uint8_t kGssApiToken = 0x60;  // [APPLICATION 0] InitialContextToken
constexpr uint8_t kNegTokenInit = 0xA0;
constexpr uint8_t kNegTokenTarg = 0xA1;
constexpr uint8_t kSequence = 0x30;
constexpr uint8_t kOid = 0x06;
constexpr uint8_t kOctetString = 0x04;
constexpr uint8_t kMechTokenTag = 0xA2;  // mechToken of negTokenInit, responseToken of Targ

bool starts_with_signature(const ByteReader &b) {
    const auto head = b.bytes(0, sizeof kSignature);
    return !head.empty() && std::memcmp(head.data(), kSignature, sizeof kSignature) == 0;
}

// One DER element: its tag and contents; `rest` is what follows it.
struct Tlv {
    uint8_t tag = 0;
    ByteReader contents;
    ByteReader rest;
};

// Short and long definite lengths of up to four octets; false for anything else or for
// contents that run past the bytes held.
bool read_tlv(const ByteReader &b, Tlv &out) {
    if (b.size() < 2) return false;
    out.tag = b.u8(0);
    size_t length = b.u8(1);
    size_t header = 2;
    if (length & 0x80) {
        const size_t octets = length & 0x7F;
        if (octets == 0 || octets > 4 || !b.has(2, octets)) return false;
        length = 0;
        for (size_t i = 0; i < octets; ++i)
            length = (length << 8) | b.u8(2 + i);
        header += octets;
    }
    if (!b.has(header, length)) return false;
    out.contents = b.from(header).first(length);
    out.rest = b.from(header + length);
    return true;
}

// The OCTET STRING of the [2] element of a NegTokenInit or NegTokenResp SEQUENCE.
ByteReader token_of_sequence(const ByteReader &neg_token) {
    Tlv seq;
    if (!read_tlv(neg_token, seq) || seq.tag != kSequence) return {};
    ByteReader items = seq.contents;
    Tlv item;
    while (read_tlv(items, item)) {
        if (item.tag == kMechTokenTag) {
            Tlv octets;
            if (!read_tlv(item.contents, octets) || octets.tag != kOctetString) return {};
            return octets.contents;
        }
        items = item.rest;
    }
    return {};
}

// A name's bytes as UTF-16LE into the 128-byte buffer; an OEM name is widened byte by byte.
void copy_name(const ByteReader &message, size_t fields, bool unicode, uint8_t *out) {
    const uint16_t length = message.le16(fields);
    const uint32_t offset = message.le32(fields + 4);
    const auto bytes = message.bytes(offset, length);
    if (length == 0 || bytes.empty()) return;
    if (unicode) {
        // An odd length leaves half a code unit, which is not part of the name.
        const uint16_t even = length & ~1u;
        if (even) smb2_copy_name_head(bytes.data(), even, out);
        return;
    }
    uint8_t wide[2 * SMB_NAME_SIZE] = {};
    const size_t n = length < SMB_NAME_SIZE ? length : SMB_NAME_SIZE;
    for (size_t i = 0; i < n; ++i)
        wide[2 * i] = bytes[i];
    smb2_copy_name_head(wide, static_cast<uint16_t>(2 * n), out);
}

}  // namespace

ByteReader find_message(ByteReader buffer) {
    if (starts_with_signature(buffer)) return buffer;
    Tlv outer;
    if (!read_tlv(buffer, outer)) return {};
    ByteReader token;
    if (outer.tag == kGssApiToken) {
        // InitialContextToken: thisMech OID, then the NegTokenInit.
        Tlv mech, inner;
        if (!read_tlv(outer.contents, mech) || mech.tag != kOid) return {};
        if (!read_tlv(mech.rest, inner) || inner.tag != kNegTokenInit) return {};
        token = token_of_sequence(inner.contents);
    } else if (outer.tag == kNegTokenInit || outer.tag == kNegTokenTarg) {
        token = token_of_sequence(outer.contents);
    }
    return starts_with_signature(token) ? token : ByteReader{};
}

Result read_authenticate(ByteReader message, Identity &out) {
    std::memset(&out, 0, sizeof out);
    if (!starts_with_signature(message) || message.size() < kFixedSize ||
        message.le32(kTypeOffset) != kAuthenticate)
        return Result::none;
    // An anonymous AUTHENTICATE (MS-NLMP 3.2.5.1.2) names no user; its domain and workstation
    // say nothing about who logged on.
    if (message.le16(kUserFields) == 0) return Result::anonymous;
    const bool unicode = (message.le32(kFlagsOffset) & kNegotiateUnicode) != 0;
    copy_name(message, kUserFields, unicode, out.user);
    copy_name(message, kDomainFields, unicode, out.domain);
    copy_name(message, kWorkstationFields, unicode, out.workstation);
    return Result::named;
}

Result identity_of(ByteReader security_buffer, Identity &out) {
    return read_authenticate(find_message(security_buffer), out);
}

}  // namespace smb::ntlmssp
