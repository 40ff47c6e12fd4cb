// Output of rendered flow records: an aligned text table, CSV (RFC 4180) or JSON Lines.
#pragma once

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "flow_format.h"
#include "special_bytes.h"

namespace smbflow {

enum class Format { Text, Csv, Json };

// The columns a writer writes, as indices into its column list (columns() unless given), in
// their output order.
using ColumnPick = std::vector<size_t>;

// The pick for a comma-separated list of column names (empty: every column, in order), or the
// first name that is not a column.
std::variant<ColumnPick, std::string> pick_columns(const std::vector<std::string> &names,
                                                   const std::vector<Column> &cols = columns());

class RecordWriter {
  public:
    virtual ~RecordWriter() = default;
    virtual void write(const Row &row) = 0;
    // A flow record as `formatter` renders it (into `scratch`, unless the writer can do
    // without a row).
    virtual void write(const FlowFormatter &formatter, const corvane_host::ExportedFlow &flow,
                       Row &scratch) {
        formatter.render(flow, scratch);
        write(scratch);
    }
    // Rows so far should reach the output now (a live capture went quiet).
    virtual void flush() {}
    // End of output.
    virtual void finish() {}
};

// `live`: rows reach the output one by one as they come (a live capture); the table then
// takes its column widths from typical values instead of from the first rows.
// `cols`: the columns of the rows (output_columns() with a plug-in's further fields).
std::unique_ptr<RecordWriter> make_writer(Format format, FILE *out, bool live = false,
                                          ColumnPick pick = {},
                                          const std::vector<Column> &cols = columns());

// Pieces, exposed for tests. The append_ forms add to `out`.
// Whether a CSV field needs quotes (it holds a comma, quote or line break). For a text whose
// buffer has no bytes to spare after it; the text outputs scan their own lines in blocks.
inline bool needs_csv_quotes(std::string_view s) {
    for (char c : s)
        if (corvane_host::CsvSpecial::has(static_cast<unsigned char>(c))) return true;
    return false;
}
void append_csv_field(std::string &out, std::string_view s);
void append_csv_field(TextBuffer &out, std::string_view s);
void append_json_string(std::string &out, std::string_view s);
void append_json_string(TextBuffer &out, std::string_view s);
std::string csv_quote(const std::string &s);
std::string json_string(const std::string &s);
// Whether a text is a JSON number as written: decimal digits, no leading zero.
bool is_json_integer(std::string_view s);

}  // namespace smbflow
