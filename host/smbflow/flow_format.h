// The columns of smbflow's output and how each flow record is rendered into them: times,
// addresses, counters, and the SMB plug-in's six fields in readable form (command masks in
// hex and as command names, names as UTF-8, file type and operation as words and codes), and
// every other field a plug-in registers as a column of its own with the field's text.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "exporter.h"
#include "row.h"

namespace smbflow {

struct Column {
    std::string name;
    bool number;  // a JSON number and right-aligned in the table
    // Made here from digits, letters and punctuation that no output quotes or escapes; the
    // others (names seen on the wire, words joined by commas) are looked at character by
    // character.
    bool verbatim;
    // A plug-in's number field: a JSON number when its text is a decimal number, else a
    // string (the text is the plug-in's: a status in hex, a version); right-aligned.
    bool number_text = false;
};

// smbflow's own columns (flow columns and the SMB plug-in's six fields).
const std::vector<Column> &columns();

// The names of the number fields that smbflow renders itself from their binary form.
const std::vector<std::string> &host_rendered_fields();

// The column of a plug-in field that smbflow does not present itself: the field's name in
// lower case.
Column plugin_column(const corvane_host::FieldDef &field);

// The display column that names the remote-call service of a record.
inline constexpr const char *kServiceColumn = "smb_rpc_service";

// Every column of a run: columns(), then one per other field of `fields`, in their order,
// then the service column when the plug-in registers SMB_RPC_INTERFACE.
std::vector<Column> output_columns(const std::vector<const corvane_host::FieldDef *> &fields);

// The SMB plug-in's fields of one flow record; null for a field without a value.
struct SmbValues {
    const corvane_host::FieldValue *cmd_request = nullptr, *cmd_response = nullptr, *tree = nullptr,
                                   *file_type = nullptr, *file_name = nullptr, *op = nullptr;
};

// Finds the SMB plug-in's fields among the host's fields by their names.
class FlowFormatter {
  public:
    // False for a flow that never carried an SMB record: it has only the fields' defaults
    // (the invalid markers), which no output shows as if they were data.
    bool smb_values(const corvane_host::ExportedFlow &flow, SmbValues &out) const;
    explicit FlowFormatter(const std::vector<const corvane_host::FieldDef *> &fields);
    // A record whose further fields the exporter left to its output (ExportedFlow::pending)
    // has them asked here, each as its column is written, into the record's fields.
    Row render(const corvane_host::ExportedFlow &flow) const;
    // The same into `row`, reusing its buffers (no allocation per record once they have grown).
    void render(const corvane_host::ExportedFlow &flow, Row &row) const;
    // Appends the record's CSV line (every column, in order, without the line end) to `line`:
    // what a CSV writer of render()'s row writes, made without the row.
    void render_csv(const corvane_host::ExportedFlow &flow, TextBuffer &line) const;
    // The number of columns of render()'s rows (output_columns() of the fields).
    size_t column_count() const { return verbatim_.size(); }
    // Timestamps with nine fractional digits instead of six (the capture has them).
    void set_nanoseconds(bool on) { nano_ = on; }

    // The fields behind the columns after columns(), in column order.
    struct Extra {
        uint32_t position;  // in the host's field list
        const corvane_host::FieldDef *def;
    };
    const std::vector<Extra> &extras() const { return extras_; }
    // The positions of the extras' fields: what a run whose one output is this formatter's
    // text leaves to it (Exporter::defer), to ask for as it writes them.
    const std::vector<uint32_t> &extra_positions() const { return extra_positions_; }
    // The display column behind the extras that names the service of SMB_RPC_INTERFACE
    // (text outputs only: IPFIX carries the interface itself).
    bool has_service_column() const { return interface_extra_ >= 0; }
    // Whether the flow has a value for an extra field to show: its own, or the field's
    // default when the field's plug-in had a record of the flow.
    static const corvane_host::FieldValue *extra_value(const corvane_host::ExportedFlow &flow,
                                                       const Extra &extra) {
        if (extra.position >= flow.fields.size()) return nullptr;
        const corvane_host::FieldValue &v = flow.fields[extra.position];
        if (v.kind == corvane_host::FieldValue::Kind::Value) return &v;
        const bool had_record = (flow.plugin_records >> extra.def->plugin_index) & 1;
        return v.kind == corvane_host::FieldValue::Kind::Default && had_record ? &v : nullptr;
    }

  private:
    template <typename Sink>
    void render_to(const corvane_host::ExportedFlow &flow, Sink &sink) const;
    // The extras' columns from column `k` on; returns the column after them.
    template <typename Sink>
    size_t render_extras(const corvane_host::ExportedFlow &flow, Sink &sink, size_t k) const;

    enum Smb { CmdRequest, CmdResponse, Tree, FileType, FileName, Op, kSmbFields };
    int index_[kSmbFields];
    std::vector<Extra> extras_;
    std::vector<uint32_t> extra_positions_;
    // How each extra's value is written, by its index in extras_.
    struct ExtraPlan {
        uint32_t position;  // in the host's field list
        const corvane_host::FieldDef *def;
        bool decimal;         // a counter written in decimal from its binary form
        bool default_plain;   // the text of its default needs no quotes
        bool text_fill;       // a value's text is what the field's text fill wrote
        bool verbatim;        // its column needs no quotes in any output
        uint32_t plugin_bit;  // its plug-in's bit in ExportedFlow::plugin_records
        // The default's text after a separator (",0"), for a default of at most 15 bytes
        // that needs no quotes: written as one fixed-size copy. Length 0: none.
        char default_cell[16];
        uint8_t default_cell_len;
    };
    std::vector<ExtraPlan> plans_;
    int interface_extra_ = -1;       // index into extras_ of SMB_RPC_INTERFACE
    std::vector<uint8_t> verbatim_;  // by column: 1 for a column no output quotes
    bool nano_ = false;
};

// The text of an extra field's value: what its text fill wrote, or when it has none the
// binary value in decimal (numbers) or hex (octets).
void append_field_text_from_binary(TextBuffer &out, const corvane_host::FieldDef &def,
                                   const corvane_host::FieldValue &value);
inline void append_field_text(TextBuffer &out, const corvane_host::FieldDef &def,
                              const corvane_host::FieldValue &value) {
    // A default, or a value from a fill that writes no text: the binary form speaks.
    if ((value.kind == corvane_host::FieldValue::Kind::Value && def.fill_txt) ||
        value.kind == corvane_host::FieldValue::Kind::Default)
        out += value.text;
    else
        append_field_text_from_binary(out, def, value);
}
void append_field_text(std::string &out, const corvane_host::FieldDef &def,
                       const corvane_host::FieldValue &value);

// Pieces, exposed for tests. The append_ forms add to `out`.
void append_time(TextBuffer &out, uint64_t ns, bool nanoseconds = false);
void append_uint(TextBuffer &out, uint64_t v);
void append_command_names(TextBuffer &out, uint32_t word);
std::string format_time(uint64_t ns);
std::string format_addr(const host_addr &addr, uint8_t ip_version);
std::string format_tcp_flags(uint8_t flags);
std::string command_names(uint32_t word);
std::string file_type_word(uint8_t type);
std::string op_word(uint8_t op);
std::string protocol_name(uint8_t protocol);

}  // namespace smbflow
