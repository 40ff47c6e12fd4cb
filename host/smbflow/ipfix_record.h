// The flow record as smbflow exports it over IPFIX: one in-memory layout (libfixbuf's
// internal template) from which each external template takes its elements, the SMB
// plug-in's six fields as enterprise-specific elements, and the templates themselves.
#pragma once

#include <fixbuf/public.h>

#include <cstdint>
#include <string>
#include <vector>

#include "exporter.h"
#include "ipfix_extra.h"

namespace smbflow::ipfix {

// RFC 5612 reserves this Private Enterprise Number for documentation; operators set their own.
inline constexpr uint32_t kDocumentationPen = 32473;

struct SmbElement {
    const char *name;
    uint16_t id;
    fbInfoElementDataType_t type;
    uint16_t length;  // FB_IE_VARLEN for strings
    uint32_t semantics;
    const char *description;
};

inline constexpr SmbElement kSmbElements[] = {
    {"smbCommandRequest", 1, FB_UINT_32, 4, FB_IE_FLAGS,
     "SMB commands seen in requests: bit 8+n for SMB2 command n, the low byte the last SMB1 "
     "command (0xff none), bit 31 an encrypted message"},
    {"smbCommandResponse", 2, FB_UINT_32, 4, FB_IE_FLAGS,
     "SMB commands seen in responses, as smbCommandRequest"},
    {"smbTree", 3, FB_STRING, FB_IE_VARLEN, FB_IE_DEFAULT,
     "The share (tree) of the last file opened in the flow, UTF-8"},
    {"smbFileName", 4, FB_STRING, FB_IE_VARLEN, FB_IE_DEFAULT,
     "The name of the last file opened in the flow, relative to its share, UTF-8"},
    {"smbFileType", 5, FB_UINT_8, 1, FB_IE_IDENTIFIER, "1 directory, 2 file, 255 unknown"},
    {"smbOperation", 6, FB_UINT_8, 1, FB_IE_IDENTIFIER,
     "The CREATE's outcome: bits 0-5 CreateAction (or the request's disposition when it "
     "failed), bit 6 delete on close, bit 7 failed"},
};

// One layout for every template: libfixbuf copies the elements that an external template
// names from here. The export fills its numbers in network byte order, as its external
// templates take them (ipfix_export.cpp); decoded with the model's marks they come out in
// host order. Ordered by size so that every
// member is naturally aligned and the struct has no padding, as the internal template
// requires.
struct FlowRecord {
    uint64_t flowStartMilliseconds;
    uint64_t flowEndMilliseconds;
    uint64_t packetDeltaCount;
    uint64_t octetDeltaCount;
    uint64_t reversePacketDeltaCount;
    uint64_t reverseOctetDeltaCount;
    fbVarfield_t smbTree;
    fbVarfield_t smbFileName;
    uint8_t sourceIPv6Address[16];
    uint8_t destinationIPv6Address[16];
    uint32_t sourceIPv4Address;
    uint32_t destinationIPv4Address;
    uint32_t smbCommandRequest;
    uint32_t smbCommandResponse;
    uint16_t sourceTransportPort;
    uint16_t destinationTransportPort;
    uint16_t tcpControlBits;
    uint16_t reverseTcpControlBits;
    uint8_t protocolIdentifier;
    uint8_t flowEndReason;
    uint8_t smbFileType;
    uint8_t smbOperation;
    uint8_t paddingOctets[4];  // to the struct's size, so that libfixbuf reads it whole
};
static_assert(sizeof(FlowRecord) == 144);

// Which of the record's elements a template carries.
enum TemplateFlags : uint32_t {
    kIPv4 = 1,
    kIPv6 = 2,
    kSmb = 4,
    kReverse = 8,    // RFC 5103 biflow: the reverse direction's counters and flags
    kInternal = 16,  // the in-memory layout only
};

inline constexpr uint16_t kInternalTid = 0x8000;
// External template ids: one per address family, with and without the SMB elements, biflow
// or uniflow.
uint16_t template_id(uint32_t flags);
inline constexpr uint32_t kTemplateVariants[] = {
    kIPv4,
    kIPv6,
    kIPv4 | kSmb,
    kIPv6 | kSmb,
    kIPv4 | kReverse,
    kIPv6 | kReverse,
    kIPv4 | kSmb | kReverse,
    kIPv6 | kSmb | kReverse,
};

// The element specifications of the record, in layout order; an entry's flags say which
// templates carry it (0: all).
const fbInfoElementSpec_t *record_spec();

// An information model with the standard elements and the six SMB elements under `pen`, and
// the plug-in's further fields when it registered them.
fbInfoModel_t *make_model(uint32_t pen, const ExtraLayout &extras = {});

// The internal template's specification: record_spec() followed by the extras in layout
// order; an external template's: record_spec() for `variant`, then (with kSmb) the extras in
// registration order. Names point into record_spec() and `extras`.
std::vector<fbInfoElementSpec_t> internal_spec(const ExtraLayout &extras);
std::vector<fbInfoElementSpec_t> external_spec(const ExtraLayout &extras, uint32_t variant);

// RFC 5102 flowEndReason for the host's export reasons: idle timeout, active timeout, and the
// end of input (a forced end).
uint8_t flow_end_reason(corvane_host::ExportReason reason);

}  // namespace smbflow::ipfix
