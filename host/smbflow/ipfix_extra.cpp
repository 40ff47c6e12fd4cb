#include "ipfix_extra.h"

#include <endian.h>

#include <algorithm>
#include <cctype>
#include <cstring>

#include <fmt/format.h>

namespace smbflow::ipfix {

using corvane_host::FieldDef;
using corvane_host::FieldValue;

std::string element_name(const std::string &field_name) {
    std::string out;
    bool upper = false;
    for (char ch : field_name) {
        const auto c = static_cast<unsigned char>(ch);
        if (c == '_' || c == '-' || c == ' ') {
            upper = !out.empty();
            continue;
        }
        out += static_cast<char>(upper ? toupper(c) : tolower(c));
        upper = false;
    }
    return out;
}

void element_type(const FieldDef &field, fbInfoElementDataType_t &type, uint16_t &length) {
    if (field.type == CORVANE_FIELD_STRING) {
        type = FB_STRING;
        length = FB_IE_VARLEN;
        return;
    }
    if (field.type == CORVANE_FIELD_NUMBER) {
        length = static_cast<uint16_t>(field.size);
        switch (field.size) {
            case 1:
                type = FB_UINT_8;
                return;
            case 2:
                type = FB_UINT_16;
                return;
            case 4:
                type = FB_UINT_32;
                return;
            case 8:
                type = FB_UINT_64;
                return;
        }
    }
    type = FB_OCTET_ARRAY;
    length = static_cast<uint16_t>(std::min<uint32_t>(field.size, 65534));
}

namespace {

// Alignment class of a value in memory: strings (fbVarfield_t) and 8-byte numbers first,
// then 4, 2 and 1; octet arrays, which need none, last.
int alignment_rank(const ExtraElement &e) {
    switch (e.type) {
        case FB_STRING:
        case FB_UINT_64:
            return 0;
        case FB_UINT_32:
            return 1;
        case FB_UINT_16:
            return 2;
        case FB_UINT_8:
            return 3;
        default:
            return 4;
    }
}

}  // namespace

ExtraLayout extra_layout(const std::vector<FlowFormatter::Extra> &extras) {
    ExtraLayout layout;
    for (size_t i = 0; i < extras.size(); ++i) {
        const FieldDef &def = *extras[i].def;
        ExtraElement e;
        e.name = element_name(def.name);
        e.id = static_cast<uint16_t>(kFirstExtraId + i);
        element_type(def, e.type, e.length);
        e.field = extras[i];
        e.memory_size = e.type == FB_STRING ? sizeof(fbVarfield_t) : e.length;
        e.description = fmt::format("The plug-in field {}", def.name);
        layout.elements.push_back(std::move(e));
    }
    std::vector<ExtraElement *> order;
    for (auto &e : layout.elements)
        order.push_back(&e);
    std::stable_sort(order.begin(), order.end(), [](const ExtraElement *a, const ExtraElement *b) {
        return alignment_rank(*a) < alignment_rank(*b);
    });
    for (ExtraElement *e : order) {
        e->offset = layout.size;
        layout.size += e->memory_size;
        if (e->type == FB_STRING) layout.string_offsets.push_back(e->offset);
    }
    return layout;
}

namespace {

// A host-order number of `given` bytes (up to T's size, zero-extended) at `at` in network
// byte order.
template <typename T>
void put_wire(uint8_t *at, const uint8_t *value, size_t given) {
    T n = 0;
    if (given == sizeof n)
        memcpy(&n, value, sizeof n);
    else
        memcpy(&n, value, given);
    if constexpr (sizeof n == 2)
        n = htobe16(n);
    else if constexpr (sizeof n == 4)
        n = htobe32(n);
    else
        n = htobe64(n);
    memcpy(at, &n, sizeof n);
}

}  // namespace

bool pack_extras(const corvane_host::ExportedFlow &flow, const ExtraLayout &layout,
                 std::vector<uint8_t> &bytes, std::string &text) {
    bytes.resize(layout.size);
    if (layout.size) memset(bytes.data(), 0, layout.size);
    text.clear();
    bool any = false;
    for (const ExtraElement &e : layout.elements) {
        const FieldValue *v = FlowFormatter::extra_value(flow, e.field);
        if (!v) continue;
        any = true;
        uint8_t *at = bytes.data() + e.offset;
        const size_t given = std::min<size_t>(v->binary.size(), e.memory_size);
        switch (e.type) {
            case FB_STRING: {
                const size_t start = text.size();
                append_field_text(text, *e.field.def, *v);
                const size_t len = text.size() - start;
                memcpy(at, &len, sizeof len);
                memcpy(at + sizeof len, &start, sizeof start);  // an offset until sent
                break;
            }
            // Numbers go in network byte order, as the wire has them: the export's templates
            // copy them as they are.
            case FB_UINT_16:
                put_wire<uint16_t>(at, v->binary.data(), given);
                break;
            case FB_UINT_32:
                put_wire<uint32_t>(at, v->binary.data(), given);
                break;
            case FB_UINT_64:
                put_wire<uint64_t>(at, v->binary.data(), given);
                break;
            default:
                memcpy(at, v->binary.data(), given);
                break;
        }
    }
    return any;
}

const uint8_t *record_with_extras(const void *base, size_t base_size, const ExtraLayout &layout,
                                  const uint8_t *packed, std::string_view text,
                                  std::vector<uint8_t> &buf, size_t &size) {
    if (layout.empty()) {
        size = base_size;
        return static_cast<const uint8_t *>(base);
    }
    // Every byte is written below: nothing of the last record stays.
    buf.resize(base_size + layout.size);
    memcpy(buf.data(), base, base_size);
    uint8_t *extras = buf.data() + base_size;
    if (!packed) {
        memset(extras, 0, layout.size);
    } else {
        memcpy(extras, packed, layout.size);
        for (const size_t string_offset : layout.string_offsets) {
            fbVarfield_t v;
            uint8_t *at = extras + string_offset;
            size_t offset = 0;
            memcpy(&v.len, at, sizeof v.len);
            memcpy(&offset, at + sizeof v.len, sizeof offset);
            v.buf = v.len && offset + v.len <= text.size()
                        ? reinterpret_cast<uint8_t *>(const_cast<char *>(text.data() + offset))
                        : nullptr;
            if (!v.buf) v.len = 0;
            memcpy(at, &v, sizeof v);
        }
    }
    size = buf.size();
    return buf.data();
}

namespace {

fbInfoElementSpec_t spec_of(const ExtraElement &e, uint32_t flags) {
    return {const_cast<char *>(e.name.c_str()), e.length, flags};
}

}  // namespace

std::vector<fbInfoElementSpec_t> internal_extra_spec(const ExtraLayout &layout, uint32_t flags) {
    std::vector<const ExtraElement *> order;
    for (const auto &e : layout.elements)
        order.push_back(&e);
    std::sort(order.begin(), order.end(),
              [](const ExtraElement *a, const ExtraElement *b) { return a->offset < b->offset; });
    std::vector<fbInfoElementSpec_t> elements;
    for (const ExtraElement *e : order)
        elements.push_back(spec_of(*e, flags));
    elements.push_back(FB_IESPEC_NULL);
    return elements;
}

std::vector<fbInfoElementSpec_t> external_extra_spec(const ExtraLayout &layout, uint32_t flags) {
    std::vector<fbInfoElementSpec_t> elements;
    for (const auto &e : layout.elements)
        elements.push_back(spec_of(e, flags));
    elements.push_back(FB_IESPEC_NULL);
    return elements;
}

void add_extra_elements(fbInfoModel_t *model, uint32_t pen, const ExtraLayout &layout) {
    for (const ExtraElement &e : layout.elements) {
        // What a field means is the plug-in's: no semantics are claimed for it. Only numbers
        // change byte order on the wire.
        const bool number = e.type != FB_STRING && e.type != FB_OCTET_ARRAY;
        const fbInfoElement_t ie = FB_IE_INIT_FULL(
            e.name.c_str(), pen, e.id, e.length,
            uint32_t{FB_IE_DEFAULT} | (number ? uint32_t{FB_IE_F_ENDIAN} : 0u), 0, 0,
            static_cast<uint8_t>(e.type), const_cast<char *>(e.description.c_str()));
        fbInfoModelAddElement(model, const_cast<fbInfoElement_t *>(&ie));
    }
}

}  // namespace smbflow::ipfix
