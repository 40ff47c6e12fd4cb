// DCE/RPC common header and the PDU bodies of BIND, ALTER_CONTEXT and REQUEST (C706 12.6).
#include "smb_dcerpc.h"

#include <cstdio>

namespace smb::dcerpc {

namespace {

constexpr uint8_t kVersion = 5;
constexpr uint8_t kRequest = 0;
constexpr uint8_t kBind = 11;
constexpr uint8_t kAlterContext = 14;
constexpr uint8_t kFirstFragment = 0x01;  // PFC_FIRST_FRAG
constexpr uint8_t kLittleEndian = 0x10;   // packed_drep[0] integer representation
constexpr size_t kHeaderSize = 16;
constexpr size_t kFragLengthOffset = 8;
// REQUEST: alloc_hint, p_cont_id, opnum.
constexpr size_t kRequestContextOffset = 20;
constexpr size_t kRequestOpnumOffset = 22;
// BIND and ALTER_CONTEXT: max_xmit_frag, max_recv_frag, assoc_group_id, then p_cont_list_t:
// n_context_elem, reserved, reserved2, and the elements.
constexpr size_t kContextCountOffset = 24;
constexpr size_t kFirstContextOffset = 28;
// p_cont_elem_t: p_cont_id, n_transfer_syn, reserved, abstract_syntax (UUID and version),
// then n_transfer_syn transfer syntaxes of 20 bytes each.
constexpr size_t kContextFixedSize = 24;
constexpr size_t kSyntaxSize = 20;
constexpr int kMaxPdus = 64;  // a pipe message of a few kilobytes holds a handful

// Integers of the PDU in its own data representation.
struct Pdu {
    ByteReader bytes;
    bool little;
    uint16_t u16(size_t offset) const {
        const uint16_t v = bytes.le16(offset);
        return little ? v : static_cast<uint16_t>((v >> 8) | (v << 8));
    }
};

Uuid read_uuid(const ByteReader &b, size_t offset, bool little) {
    Uuid u{};
    const auto raw = b.bytes(offset, 16);
    if (raw.empty()) return u;
    // time_low, time_mid and time_hi_and_version follow the data representation; clock_seq
    // and node are bytes.
    static constexpr uint8_t kLittleOrder[16] = {3, 2, 1,  0,  5,  4,  7,  6,
                                                 8, 9, 10, 11, 12, 13, 14, 15};
    for (size_t i = 0; i < 16; ++i)
        u.bytes[i] = raw[little ? kLittleOrder[i] : i];
    return u;
}

void read_contexts(const Pdu &pdu, Visitor &visitor) {
    const unsigned count = pdu.bytes.u8(kContextCountOffset);
    size_t at = kFirstContextOffset;
    for (unsigned i = 0; i < count; ++i) {
        if (!pdu.bytes.has(at, kContextFixedSize)) return;
        const uint16_t context_id = pdu.u16(at);
        const size_t transfer_syntaxes = pdu.bytes.u8(at + 2);
        visitor.context(context_id, read_uuid(pdu.bytes, at + 4, pdu.little));
        at += kContextFixedSize + transfer_syntaxes * kSyntaxSize;
    }
}

}  // namespace

bool looks_like_pdu(const ByteReader &data) {
    if (data.size() < kHeaderSize || data.u8(0) != kVersion || data.u8(1) > 1) return false;
    const bool little = (data.u8(4) & kLittleEndian) != 0;
    const uint16_t raw = data.le16(kFragLengthOffset);
    const uint16_t length = little ? raw : static_cast<uint16_t>((raw >> 8) | (raw << 8));
    return length >= kHeaderSize;
}

int scan(ByteReader data, Visitor &visitor) {
    int pdus = 0;
    while (pdus < kMaxPdus && looks_like_pdu(data)) {
        const bool little = (data.u8(4) & kLittleEndian) != 0;
        const Pdu whole{data, little};
        const uint16_t length = whole.u16(kFragLengthOffset);
        // The fixed fields are read from what is held of the fragment, even a cut one.
        const Pdu pdu{data.first(length), little};
        ++pdus;
        switch (data.u8(2)) {
            case kRequest:
                if (pdu.bytes.has(kRequestOpnumOffset, 2))
                    visitor.request(pdu.u16(kRequestContextOffset), pdu.u16(kRequestOpnumOffset),
                                    (data.u8(3) & kFirstFragment) != 0);
                break;
            case kBind:
            case kAlterContext:
                read_contexts(pdu, visitor);
                break;
            default:
                break;
        }
        if (!data.has(0, length)) break;  // the fragment goes on beyond the data
        data = data.from(length);
    }
    return pdus;
}

void uuid_text(const Uuid &u, char (&out)[37]) {
    const uint8_t *b = u.bytes;
    std::snprintf(out, sizeof out,
                  "%02x%02x%02x%02x-%02x%02x-%02x%02x-%02x%02x-%02x%02x%02x%02x%02x%02x", b[0],
                  b[1], b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13],
                  b[14], b[15]);
}

}  // namespace smb::dcerpc
