#include "exporter.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "utf16.h"

namespace corvane_host {

uint64_t FieldValue::number() const {
    uint64_t v = 0;
    if constexpr (std::endian::native == std::endian::little) {
        // Fixed-size copies for the sizes a number has.
        const uint8_t *b = binary.data();
        switch (binary.size()) {
            case 0:
                break;
            case 1:
                v = b[0];
                break;
            case 2:
                memcpy(&v, b, 2);
                break;
            case 4:
                memcpy(&v, b, 4);
                break;
            default:
                memcpy(&v, b, std::min<size_t>(binary.size(), 8));
                break;
        }
    } else {
        for (size_t i = 0; i < binary.size() && i < 8; ++i)
            v |= static_cast<uint64_t>(binary[i]) << (8 * i);
    }
    return v;
}

namespace {

constexpr uint8_t kBinaryForm = 1, kTextForm = 2;

uint8_t forms_of(const FieldDef &field, FillForms forms,
                 const std::vector<std::string> &host_rendered) {
    if (forms == FillForms::Both) return kBinaryForm | kTextForm;
    switch (field.type) {
        case CORVANE_FIELD_STRING:
            return kTextForm;
        case CORVANE_FIELD_NUMBER:
            for (const std::string &name : host_rendered)
                if (name == field.name) return kBinaryForm;
            return forms == FillForms::Text && field.fill_txt ? kTextForm : kBinaryForm | kTextForm;
        default:
            return kBinaryForm | kTextForm;
    }
}

}  // namespace

void append_hex_octets(std::string &out, const uint8_t *bytes, size_t size) {
    static const char hex[] = "0123456789abcdef";
    for (size_t i = 0; i < size; ++i) {
        out += hex[bytes[i] >> 4];
        out += hex[bytes[i] & 15];
    }
}

std::string default_text(const FieldDef &field) {
    const auto &v = field.default_value;
    if (field.type == CORVANE_FIELD_STRING) return utf16le_to_utf8(v.data(), v.size());
    if (field.type == CORVANE_FIELD_OCTETS) {
        std::string out;
        append_hex_octets(out, v.data(), v.size());
        return out;
    }
    return number_text(v.data(), static_cast<uint32_t>(v.size()));
}

Exporter::Exporter(const Host &host, FillForms forms, const std::vector<std::string> &host_rendered)
    : host_(host), fields_(host.fields()) {
    for (const FieldDef *f : fields_) {
        const uint8_t wanted = forms_of(*f, forms, host_rendered);
        plans_.push_back({f->ctx, f->validity, f->length, wanted & kBinaryForm ? f->fill : nullptr,
                          wanted & kTextForm ? f->fill_txt : nullptr, f->plugin_index, f,
                          f->has_default ? default_text(*f) : std::string()});
    }
}

// Inlined into the loop over a record's fields: it runs for every field of every record.
__attribute__((always_inline)) inline void Exporter::evaluate(const Plan &plan, uint32_t position,
                                                              host_flow_record &rec,
                                                              host_slot *slot, FieldValue &value) {
    const int valid = plan.validity ? plan.validity(plan.ctx, &rec, slot) : 1;
    if (!valid) {
        const FieldDef &field = *plan.def;
        if (!field.has_default) {
            value.kind = FieldValue::Kind::Absent;
            value.clear();
        } else if (value.kind != FieldValue::Kind::Default) {
            // `value` is this position's of the record before: a default it holds already
            // (the common case of counters at zero) is not copied again.
            value.kind = FieldValue::Kind::Default;
            value.binary.clear();
            value.binary.append(field.default_value.data(), field.default_value.size());
            value.text.assign(plan.default_text);
        }
        return;
    }
    // A plug-in may expect its length callback before the fills; the size the host keeps is
    // what the fills write.
    if (plan.length) plan.length(plan.ctx, &rec, slot);
    // The writers take the output as a FieldOutput.
    FieldOutput *const out = &value;
    out->clear();
    if (plan.fill) plan.fill(plan.ctx, &rec, slot, out, position, kByteOrderHost);
    if (plan.fill_txt) plan.fill_txt(plan.ctx, &rec, slot, out, position, kByteOrderHost);
    // A valid field whose fill writes nothing has no value for this flow, and its default
    // does not stand in for it either.
    value.kind = value.writes ? FieldValue::Kind::Value : FieldValue::Kind::Absent;
}

ExportedFlow Exporter::run(FlowHandoff &flow) {
    ExportedFlow out;
    run(flow, out);
    return out;
}

void Exporter::run(FlowHandoff &flow, ExportedFlow &out) {
    postprocess(flow);
    export_postprocessed(flow, out);
}

void Exporter::postprocess(FlowHandoff &flow) {
    flow.plugin_records = 0;
    const size_t n = host_.plugin_count();
    for (size_t i = 0; i < n; ++i) {
        const PluginInstance &p = host_.plugin(i);
        if (flow.slots[i]) flow.plugin_records |= 1u << i;
        if (p.postprocess) p.postprocess(p.postprocess_ctx, &flow.rec, &flow.slots[i]);
    }
}

void Exporter::export_postprocessed(FlowHandoff &flow, ExportedFlow &out) {
    const size_t n = plans_.size();
    out.fields.resize(n);
    // Locals, kept in registers across the callbacks.
    const Plan *const plans = plans_.data();
    FieldValue *const values = out.fields.data();
    host_slot *const slots = flow.slots.data();
    for (uint32_t pos = 0; pos < n; ++pos)
        evaluate(plans[pos], pos, flow.rec, &slots[plans[pos].plugin_index], values[pos]);
    out.rec = flow.rec;
    out.flow_hash = flow.flow_hash;
    out.reason = flow.reason;
    out.plugin_records = flow.plugin_records;
    discard(flow);
}

void Exporter::discard(FlowHandoff &flow) {
    for (size_t i = 0; i < host_.plugin_count(); ++i)
        host_.plugin(i).free_slot(&flow.slots[i]);
}

}  // namespace corvane_host
