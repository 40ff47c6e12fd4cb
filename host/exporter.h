// Export of flow records: runs the plug-ins' post-processing on a flow record handed over by
// a queue, asks each field's validity, length and fill callbacks for its value (binary and
// text form), falls back to the field's default, and frees the plug-ins' records.
#pragma once

#include <string>
#include <vector>

#include "field_output.h"
#include "queue.h"

namespace corvane_host {

// A field's value is the output its fill callbacks write into: the fills write straight into
// the record's value, with nothing exchanged or copied after them.
struct FieldValue : FieldOutput {
    enum class Kind : uint8_t {
        Absent,   // no value and no default (or a valid field whose fill wrote nothing)
        Default,  // the field's registered default
        Value,    // what the fill callbacks wrote
    };
    Kind kind = Kind::Absent;

    bool present() const { return kind != Kind::Absent; }
    // The binary value as an unsigned little-endian number (for number fields).
    uint64_t number() const;
};

// What the export of one field needs, side by side in 64 bytes: the callbacks it asks (a form
// it does not ask has none), its plug-in's slot and its default.
struct FieldPlan {
    corvane_validity_fn validity;
    void *ctx;
    corvane_length_fn length;
    corvane_fill_fn fill;
    corvane_fill_fn fill_txt;
    const FieldDef *def;
    const std::string *default_text;  // as the text writers would render it
    uint32_t plugin_index;
    bool has_default;
};

// Asks one field of a flow for its value: the validity callback; for a valid field its length
// callback (a plug-in may expect it before the fills; the size the host keeps is what the
// fills write), then the fills, straight into `value`. An invalid field takes its default
// (or has no value without one); a valid field whose fill writes nothing has no value, and its
// default does not stand in for it either. Inline: it runs for every field of every record.
__attribute__((always_inline)) inline FieldValue::Kind evaluate_field(const FieldPlan &plan,
                                                                      uint32_t position,
                                                                      host_flow_record &rec,
                                                                      host_slot *slots,
                                                                      FieldValue &value) {
    host_slot *const slot = &slots[plan.plugin_index];
    const int valid = plan.validity ? plan.validity(plan.ctx, &rec, slot) : 1;
    if (!valid) {
        if (!plan.has_default) {
            value.clear();
            return value.kind = FieldValue::Kind::Absent;
        }
        if (value.kind != FieldValue::Kind::Default) {
            // `value` is this position's of the record before: a default it holds already
            // (the common case of counters at zero) is not copied again.
            const std::vector<uint8_t> &bytes = plan.def->default_value;
            value.binary.clear();
            value.binary.append(bytes.data(), bytes.size());
            value.text.assign(*plan.default_text);
        }
        return value.kind = FieldValue::Kind::Default;
    }
    if (plan.length) plan.length(plan.ctx, &rec, slot);
    // The writers take the output as a FieldOutput.
    FieldOutput *const out = &value;
    out->clear();
    if (plan.fill) plan.fill(plan.ctx, &rec, slot, out, position, kByteOrderHost);
    if (plan.fill_txt) plan.fill_txt(plan.ctx, &rec, slot, out, position, kByteOrderHost);
    return value.kind = value.writes ? FieldValue::Kind::Value : FieldValue::Kind::Absent;
}

// The fields of an exported record that the exporter left to the record's consumer (see
// Exporter::defer): a text output asks for each one as it writes its column and writes the
// value at once, with no second pass over the record's values. Until Exporter::complete()
// the flow's slots are held, and `fields` at those positions are what the record before left.
struct PendingFields {
    const FieldPlan *plans = nullptr;     // by position in the host's field list
    const uint32_t *positions = nullptr;  // of the deferred fields, in increasing order
    uint32_t count = 0;                   // of deferred fields
    host_flow_record *rec = nullptr;      // the flow record as the plug-ins exported it
    host_slot *slots = nullptr;           // the flow's, by plug-in
    FieldValue *values = nullptr;         // the record's `fields`, which take the values
    bool taken = false;                   // a consumer asked for them

    // Asks every deferred field for its value, into the record's `fields`.
    void evaluate_all() const {
        for (uint32_t i = 0; i < count; ++i)
            evaluate_field(plans[positions[i]], positions[i], *rec, slots, values[positions[i]]);
    }
};

struct ExportedFlow {
    host_flow_record rec{};
    uint64_t flow_hash = 0;
    ExportReason reason = ExportReason::End;
    std::vector<FieldValue> fields;  // in the order of Host::fields()
    uint32_t plugin_records = 0;     // bit i: plug-in i had a record in the flow's slot
    // Non-null while fields are left to the consumer (see PendingFields): the record's one
    // consumer asks for them, marks them taken, and reads `fields` at their positions then.
    PendingFields *pending = nullptr;
};

// Which of a field's fill callbacks the exporter asks for its value.
enum class FillForms : uint8_t {
    Both,      // binary and text, for every field
    Readable,  // what a reader of numbers and names needs: the binary form of a number field,
               // the text form of a string field, both of an octets field; number fields the
               // program does not render itself are asked for their text as well (their
               // presentation is the plug-in's)
    Text,      // what text outputs alone need: as Readable, but a number field that the program
               // does not render itself and that has a text fill is asked for its text only
};

class Exporter {
  public:
    // `host_rendered`: names of number fields whose text the program makes itself from the
    // binary form (with FillForms::Readable their text fill is not called).
    explicit Exporter(const Host &host, FillForms forms = FillForms::Both,
                      const std::vector<std::string> &host_rendered = {});
    // The plans point into the exporter's own texts, and records it exports into its state.
    Exporter(const Exporter &) = delete;
    Exporter &operator=(const Exporter &) = delete;

    // Post-processes and exports one flow record, then frees the records in its slots.
    ExportedFlow run(FlowHandoff &flow);
    // The same into `out`, whose buffers are reused from one record to the next (the export
    // thread's loop makes no allocation per record this way).
    void run(FlowHandoff &flow, ExportedFlow &out);

    // run() in two steps, which may be taken on different threads: post-processing, where the
    // plug-ins may consult the state their queue shares with them; then the fields' values,
    // which come from the flow record and its slots alone, and the freeing of the slots.
    void postprocess(FlowHandoff &flow);
    void export_postprocessed(FlowHandoff &flow, ExportedFlow &out);

    // Frees the records of a flow record that will not be exported.
    void discard(FlowHandoff &flow);

    // Leaves the fields at `positions` to the consumer of each record: export_postprocessed()
    // and run() then ask the other fields alone, hand the rest over as `out.pending`, and
    // keep the flow's slots until complete(). An empty list (the default): every field.
    void defer(const std::vector<uint32_t> &positions);
    // After the record's consumer: asks the deferred fields that no consumer took (every
    // field's callbacks are asked for every record, written or not), then frees the flow's
    // slots. Nothing to do when no field is deferred.
    void complete(FlowHandoff &flow, ExportedFlow &out) {
        if (out.pending) complete_pending(flow, out);
    }

    const std::vector<const FieldDef *> &fields() const { return fields_; }

  private:
    void complete_pending(FlowHandoff &flow, ExportedFlow &out);

    const Host &host_;
    std::vector<const FieldDef *> fields_;
    std::vector<FieldPlan> plans_;            // by position
    std::vector<std::string> default_texts_;  // by position, what the plans point to
    std::vector<uint32_t> staged_;    // positions asked by the exporter itself, when deferring
    std::vector<uint32_t> deferred_;  // positions left to the consumer; empty: none
    PendingFields pending_;
};

// Text of a field's default value, as the text writers would render it.
std::string default_text(const FieldDef &field);

// Lower-case hex digits of a value (the text of an octets field without a text fill).
void append_hex_octets(std::string &out, const uint8_t *bytes, size_t size);

}  // namespace corvane_host
