#include "ipfix_record.h"

#include <cstddef>

namespace smbflow::ipfix {

namespace {

// libfixbuf reads the internal template's elements at consecutive offsets; these checks
// keep the struct and the specification below in step.
static_assert(offsetof(FlowRecord, smbTree) == 48);
static_assert(offsetof(FlowRecord, sourceIPv6Address) == 80);
static_assert(offsetof(FlowRecord, sourceIPv4Address) == 112);
static_assert(offsetof(FlowRecord, sourceTransportPort) == 128);
static_assert(offsetof(FlowRecord, protocolIdentifier) == 136);

#define SPEC(name, len, flags) \
    { const_cast<char *>(name), len, flags }
const fbInfoElementSpec_t kSpec[] = {
    SPEC("flowStartMilliseconds", 8, 0),
    SPEC("flowEndMilliseconds", 8, 0),
    SPEC("packetDeltaCount", 8, 0),
    SPEC("octetDeltaCount", 8, 0),
    SPEC("reversePacketDeltaCount", 8, kReverse),
    SPEC("reverseOctetDeltaCount", 8, kReverse),
    SPEC("smbTree", FB_IE_VARLEN, kSmb),
    SPEC("smbFileName", FB_IE_VARLEN, kSmb),
    SPEC("sourceIPv6Address", 16, kIPv6),
    SPEC("destinationIPv6Address", 16, kIPv6),
    SPEC("sourceIPv4Address", 4, kIPv4),
    SPEC("destinationIPv4Address", 4, kIPv4),
    SPEC("smbCommandRequest", 4, kSmb),
    SPEC("smbCommandResponse", 4, kSmb),
    SPEC("sourceTransportPort", 2, 0),
    SPEC("destinationTransportPort", 2, 0),
    SPEC("tcpControlBits", 2, 0),
    SPEC("reverseTcpControlBits", 2, kReverse),
    SPEC("protocolIdentifier", 1, 0),
    SPEC("flowEndReason", 1, 0),
    SPEC("smbFileType", 1, kSmb),
    SPEC("smbOperation", 1, kSmb),
    SPEC("paddingOctets", 4, kInternal),
    FB_IESPEC_NULL,
};
#undef SPEC

}  // namespace

uint16_t template_id(uint32_t flags) {
    return static_cast<uint16_t>(256 + ((flags & kIPv6) ? 1 : 0) + ((flags & kSmb) ? 2 : 0) +
                                 ((flags & kReverse) ? 4 : 0));
}

const fbInfoElementSpec_t *record_spec() {
    return kSpec;
}

namespace {

// The entries of record_spec() and then of `extra` that a template with `flags` carries (as
// libfixbuf picks them), and the end marker.
std::vector<fbInfoElementSpec_t> joined(uint32_t flags,
                                        const std::vector<fbInfoElementSpec_t> &extra) {
    std::vector<fbInfoElementSpec_t> elements;
    auto take = [&](const fbInfoElementSpec_t *s) {
        for (; s->name; ++s)
            if ((s->flags & flags) == s->flags) elements.push_back(*s);
    };
    take(kSpec);
    take(extra.data());
    elements.push_back(FB_IESPEC_NULL);
    return elements;
}

}  // namespace

std::vector<fbInfoElementSpec_t> internal_spec(const ExtraLayout &extras) {
    return joined(UINT32_MAX, internal_extra_spec(extras, 0));
}

std::vector<fbInfoElementSpec_t> external_spec(const ExtraLayout &extras, uint32_t variant) {
    return joined(variant, external_extra_spec(extras, kSmb));
}

fbInfoModel_t *make_model(uint32_t pen, const ExtraLayout &extras) {
    fbInfoModel_t *model = fbInfoModelAlloc();
    add_extra_elements(model, pen, extras);
    for (const SmbElement &e : kSmbElements) {
        const fbInfoElement_t ie =
            FB_IE_INIT_FULL(e.name, pen, e.id, e.length, e.semantics | FB_IE_F_ENDIAN, 0, 0,
                            static_cast<uint8_t>(e.type), const_cast<char *>(e.description));
        fbInfoModelAddElement(model, const_cast<fbInfoElement_t *>(&ie));
    }
    return model;
}

uint8_t flow_end_reason(corvane_host::ExportReason reason) {
    switch (reason) {
        case corvane_host::ExportReason::Inactive:
            return 1;  // idle timeout
        case corvane_host::ExportReason::Active:
            return 2;  // active timeout
        case corvane_host::ExportReason::End:
            break;
    }
    return 4;  // forced end: the input ended with the flow still open
}

}  // namespace smbflow::ipfix
