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

struct ExportedFlow {
    host_flow_record rec{};
    uint64_t flow_hash = 0;
    ExportReason reason = ExportReason::End;
    std::vector<FieldValue> fields;  // in the order of Host::fields()
    uint32_t plugin_records = 0;     // bit i: plug-in i had a record in the flow's slot
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

    const std::vector<const FieldDef *> &fields() const { return fields_; }

  private:
    // What the export of one field needs, by position, side by side: the callbacks it asks
    // (a form it does not ask has none) and the field's default.
    struct Plan {
        void *ctx;
        corvane_validity_fn validity;
        corvane_length_fn length;
        corvane_fill_fn fill;
        corvane_fill_fn fill_txt;
        size_t plugin_index;
        const FieldDef *def;
        std::string default_text;
    };
    void evaluate(const Plan &plan, uint32_t position, host_flow_record &rec, host_slot *slot,
                  FieldValue &value);

    const Host &host_;
    std::vector<const FieldDef *> fields_;
    std::vector<Plan> plans_;  // by position
};

// Text of a field's default value, as the text writers would render it.
std::string default_text(const FieldDef &field);

// Lower-case hex digits of a value (the text of an octets field without a text fill).
void append_hex_octets(std::string &out, const uint8_t *bytes, size_t size);

}  // namespace corvane_host
