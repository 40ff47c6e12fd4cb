#include "exporter.h"

#include "utf16.h"

namespace corvane_host {

uint64_t FieldValue::number() const {
    uint64_t v = 0;
    for (size_t i = 0; i < binary.size() && i < 8; ++i)
        v |= static_cast<uint64_t>(binary[i]) << (8 * i);
    return v;
}

std::string default_text(const FieldDef &field) {
    const auto &v = field.default_value;
    if (field.type == CORVANE_FIELD_STRING) return utf16le_to_utf8(v.data(), v.size());
    return number_text(v.data(), static_cast<uint32_t>(v.size()));
}

Exporter::Exporter(const Host &host) : host_(host), fields_(host.fields()) {}

FieldValue Exporter::evaluate(const FieldDef &field, uint32_t position, host_flow_record &rec,
                              host_slot *slot) const {
    FieldValue value;
    const int valid = field.validity ? field.validity(field.ctx, &rec, slot) : 1;
    if (valid) {
        if (field.length) field.length(field.ctx, &rec, slot);
        FieldOutput binary, text;
        if (field.fill) field.fill(field.ctx, &rec, slot, &binary, position, kByteOrderHost);
        if (field.fill_txt) field.fill_txt(field.ctx, &rec, slot, &text, position, kByteOrderHost);
        // A valid field whose fill writes nothing has no value for this flow, and its
        // default does not stand in for it either.
        if (binary.writes == 0 && text.writes == 0) return value;
        value.kind = FieldValue::Kind::Value;
        value.binary = std::move(binary.binary);
        value.text = std::move(text.text);
        return value;
    }
    if (field.has_default) {
        value.kind = FieldValue::Kind::Default;
        value.binary = field.default_value;
        value.text = default_text(field);
    }
    return value;
}

ExportedFlow Exporter::run(FlowHandoff &flow) {
    ExportedFlow out;
    const size_t n = host_.plugin_count();
    for (size_t i = 0; i < n; ++i) {
        const PluginInstance &p = host_.plugin(i);
        if (flow.slots[i]) out.plugin_records |= 1u << i;
        if (p.postprocess) p.postprocess(p.postprocess_ctx, &flow.rec, &flow.slots[i]);
    }
    out.fields.reserve(fields_.size());
    for (uint32_t pos = 0; pos < fields_.size(); ++pos) {
        const FieldDef &f = *fields_[pos];
        out.fields.push_back(evaluate(f, pos, flow.rec, &flow.slots[f.plugin_index]));
    }
    out.rec = flow.rec;
    out.flow_hash = flow.flow_hash;
    out.reason = flow.reason;
    discard(flow);
    return out;
}

void Exporter::discard(FlowHandoff &flow) {
    for (size_t i = 0; i < host_.plugin_count(); ++i)
        host_.plugin(i).free_slot(&flow.slots[i]);
}

}  // namespace corvane_host
