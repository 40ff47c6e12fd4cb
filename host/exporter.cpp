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
    for (const FieldDef *f : fields_)
        default_texts_.push_back(f->has_default ? default_text(*f) : std::string());
    for (size_t i = 0; i < fields_.size(); ++i) {
        const FieldDef *f = fields_[i];
        const uint8_t wanted = forms_of(*f, forms, host_rendered);
        plans_.push_back({f->validity, f->ctx, f->length, wanted & kBinaryForm ? f->fill : nullptr,
                          wanted & kTextForm ? f->fill_txt : nullptr, f, &default_texts_[i],
                          static_cast<uint32_t>(f->plugin_index), f->has_default});
    }
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
    const FieldPlan *const plans = plans_.data();
    FieldValue *const values = out.fields.data();
    host_slot *const slots = flow.slots.data();
    if (deferred_.empty()) {
        for (uint32_t pos = 0; pos < n; ++pos)
            evaluate_field(plans[pos], pos, flow.rec, slots, values[pos]);
        out.pending = nullptr;
    } else {
        for (const uint32_t pos : staged_)
            evaluate_field(plans[pos], pos, flow.rec, slots, values[pos]);
        pending_ = {plans,
                    deferred_.data(),
                    static_cast<uint32_t>(deferred_.size()),
                    &flow.rec,
                    slots,
                    values,
                    false};
        out.pending = &pending_;
    }
    out.rec = flow.rec;
    out.flow_hash = flow.flow_hash;
    out.reason = flow.reason;
    out.plugin_records = flow.plugin_records;
    if (!out.pending) discard(flow);
}

void Exporter::defer(const std::vector<uint32_t> &positions) {
    std::vector<uint8_t> deferred(plans_.size(), 0);
    for (const uint32_t pos : positions)
        if (pos < deferred.size()) deferred[pos] = 1;
    staged_.clear();
    deferred_.clear();
    for (uint32_t pos = 0; pos < plans_.size(); ++pos)
        (deferred[pos] ? deferred_ : staged_).push_back(pos);
}

void Exporter::complete_pending(FlowHandoff &flow, ExportedFlow &out) {
    if (!out.pending->taken) {
        out.pending->evaluate_all();
        out.pending->taken = true;
    }
    out.pending = nullptr;
    discard(flow);
}

void Exporter::discard(FlowHandoff &flow) {
    for (size_t i = 0; i < host_.plugin_count(); ++i)
        host_.plugin(i).free_slot(&flow.slots[i]);
}

}  // namespace corvane_host
