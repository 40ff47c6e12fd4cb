// The plug-in's fields beyond the six SMB elements as IPFIX elements: enterprise-specific
// elements numbered from 7 in registration order, typed by the field's type code and size,
// named in camelCase after the field. Their values follow FlowRecord in the in-memory record
// that libfixbuf reads, laid out here so that every member is naturally aligned.
#pragma once

#include <fixbuf/public.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "exporter.h"
#include "flow_format.h"

namespace smbflow::ipfix {

// The id of the first of these elements, after the six SMB elements.
inline constexpr uint16_t kFirstExtraId = 7;

struct ExtraElement {
    std::string name;  // camelCase of the field name
    uint16_t id = 0;
    fbInfoElementDataType_t type = FB_OCTET_ARRAY;
    uint16_t length = 0;           // on the wire; FB_IE_VARLEN for strings
    FlowFormatter::Extra field{};  // the plug-in field behind it
    size_t offset = 0;             // of the value in the extras part of the in-memory record
    size_t memory_size = 0;        // bytes it takes there (an fbVarfield_t for a string)
    std::string description;
};

struct ExtraLayout {
    std::vector<ExtraElement> elements;  // in registration order
    size_t size = 0;                     // bytes of the extras part
    std::vector<size_t> string_offsets;  // of the strings' fbVarfield_t in it

    bool empty() const { return elements.empty(); }
};

// `SMB_BYTES_READ` -> `smbBytesRead`.
std::string element_name(const std::string &field_name);

// The IPFIX type and wire length of a field: numbers of 1, 2, 4 or 8 bytes are unsigned
// integers, strings variable-length UTF-8, anything else `size` octets.
void element_type(const corvane_host::FieldDef &field, fbInfoElementDataType_t &type,
                  uint16_t &length);

ExtraLayout extra_layout(const std::vector<FlowFormatter::Extra> &extras);

// The values of a flow's extra fields in the layout's form (`bytes` gets the layout's size):
// numbers in network byte order, octets as they are, strings as their UTF-8 text in `text` with the
// length and the offset into `text` where the fbVarfield_t goes (the pointer is set when the
// record is sent). Absent values are zero and empty. `bytes` and `text` are reused. True when
// the flow has a value of any of them (FlowFormatter::extra_value).
bool pack_extras(const corvane_host::ExportedFlow &flow, const ExtraLayout &layout,
                 std::vector<uint8_t> &bytes, std::string &text);

// The in-memory record to append: `base` followed by the packed extras (pack_extras' bytes,
// the layout's size; null: every value absent) with their string pointers set into `text`,
// built in `buf`. Without extras the record is `base` itself.
const uint8_t *record_with_extras(const void *base, size_t base_size, const ExtraLayout &layout,
                                  const uint8_t *packed, std::string_view text,
                                  std::vector<uint8_t> &buf, size_t &size);

// Element specifications of the extras: in layout order for the internal template, in
// registration order for the external ones; each carries `flags`, and the list ends with
// FB_IESPEC_NULL. The names point into `layout`.
std::vector<fbInfoElementSpec_t> internal_extra_spec(const ExtraLayout &layout, uint32_t flags);
std::vector<fbInfoElementSpec_t> external_extra_spec(const ExtraLayout &layout, uint32_t flags);

// Adds the extras' elements under `pen` to a model.
void add_extra_elements(fbInfoModel_t *model, uint32_t pen, const ExtraLayout &layout);

}  // namespace smbflow::ipfix
