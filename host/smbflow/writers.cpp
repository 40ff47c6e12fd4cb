#include "writers.h"

#include <algorithm>
#include <array>

#include <fmt/format.h>

#include "special_bytes.h"
#include "terminal_text.h"

namespace smbflow {

namespace {

// The table's column widths follow the first rows (up to kWidthRows of them, or fewer if the
// output is flushed earlier); later rows with longer values overflow their column.
constexpr size_t kWidthRows = 1000;
constexpr const char *kNullText = "-";

size_t text_width(const std::string &s) {
    return display_width(s);
}

class TextTableWriter : public RecordWriter {
  public:
    TextTableWriter(FILE *out, bool live, ColumnPick pick, const std::vector<Column> &cols)
        : out_(out), live_(live), pick_(std::move(pick)), cols_(cols) {
        // Widths of typical values, for a table that cannot wait for its first rows.
        static const size_t typical[] = {27, 27, 15, 5,  15, 5,  4,  7, 9, 7,  9, 8,
                                         8,  10, 20, 10, 20, 16, 24, 9, 1, 12, 4};
        for (size_t k : pick_) {
            widths_.push_back(text_width(cols_[k].name));
            if (live_ && k < std::size(typical))
                widths_.back() = std::max(widths_.back(), typical[k]);
        }
    }

    void write(const Row &row) override {
        std::vector<std::string> texts;
        texts.reserve(pick_.size());
        // Names come from the wire: control characters are shown, never sent to the terminal.
        for (size_t k : pick_)
            texts.push_back(visible_text(row.shown(k).value_or(kNullText)));
        if (started_) {
            print(texts);
            return;
        }
        for (size_t i = 0; i < texts.size() && i < widths_.size(); ++i)
            widths_[i] = std::max(widths_[i], text_width(texts[i]));
        pending_.push_back(std::move(texts));
        if (live_ || pending_.size() >= kWidthRows) flush();
    }

    void flush() override {
        if (!started_) {
            started_ = true;
            std::vector<std::string> header;
            for (size_t k : pick_)
                header.push_back(cols_[k].name);
            print(header, true);
        }
        for (const auto &texts : pending_)
            print(texts);
        pending_.clear();
        fflush(out_);
    }

    void finish() override { flush(); }

  private:
    void print(const std::vector<std::string> &texts, bool header = false) {
        std::string line;
        for (size_t i = 0; i < texts.size(); ++i) {
            const size_t w = i < widths_.size() ? widths_[i] : 0;
            const size_t pad = w > text_width(texts[i]) ? w - text_width(texts[i]) : 0;
            const Column *col = i < pick_.size() ? &cols_[pick_[i]] : nullptr;
            const bool right = !header && col && (col->number || col->number_text);
            if (i) line += "  ";
            if (right) line.append(pad, ' ');
            line += texts[i];
            if (!right && i + 1 < texts.size()) line.append(pad, ' ');
        }
        line += '\n';
        fputs(line.c_str(), out_);
    }

    FILE *out_;
    bool live_;
    ColumnPick pick_;
    std::vector<Column> cols_;
    std::vector<size_t> widths_;
    std::vector<std::vector<std::string>> pending_;
    bool started_ = false;
};

// A writer of one line per row, each line made whole before it is written.
class LineWriter : public RecordWriter {
  public:
    LineWriter(FILE *out, bool live, ColumnPick pick, const std::vector<Column> &cols)
        : out_(out), live_(live), pick_(std::move(pick)), cols_(cols) {}

    void flush() override {
        write_out();
        fflush(out_);
    }
    void finish() override { flush(); }
    // Lines still gathered reach the stream, which its owner flushes or closes afterwards.
    ~LineWriter() override { write_out(); }

  protected:
    // Lines from a capture file are gathered into blocks of about 64 KiB, each written with
    // one call (a write per line, or stdio's copy of each line into its own 4 KiB buffer, was
    // a system call every dozen records); a live capture's lines go out as they come.
    // A writer starts its line at the end of line_ and ends it with emit().
    void emit() {
        line_ += '\n';
        if (live_ || line_.size() >= kBlock) {
            write_out();
            if (live_) fflush(out_);
        }
    }

    FILE *out_;
    bool live_;
    ColumnPick pick_;
    std::vector<Column> cols_;
    TextBuffer line_;  // the lines not written yet; reused from block to block

  private:
    static constexpr size_t kBlock = 64 * 1024;
    void write_out() {
        if (!line_.empty()) fwrite(line_.data(), 1, line_.size(), out_);
        line_.clear();
    }
};

class CsvWriter : public LineWriter {
  public:
    CsvWriter(FILE *out, bool live, ColumnPick pick, const std::vector<Column> &cols)
        : LineWriter(out, live, std::move(pick), cols) {
        every_column_ = pick_.size() == cols_.size();
        for (size_t i = 0; i < pick_.size(); ++i) {
            every_column_ &= pick_[i] == i;
            if (i) line_ += ',';
            line_ += cols_[pick_[i]].name;
        }
        emit();
    }

    // Every column in order: the formatter writes the line itself, without a row between.
    void write(const FlowFormatter &formatter, const corvane_host::ExportedFlow &flow,
               Row &scratch) override {
        if (!every_column_ || formatter.column_count() != cols_.size()) {
            RecordWriter::write(formatter, flow, scratch);
            return;
        }
        formatter.render_csv(flow, line_);
        emit();
    }
    using RecordWriter::write;

    void write(const Row &row) override {
        const auto &cols = cols_;
        for (size_t i = 0; i < pick_.size(); ++i) {
            if (i) line_ += ',';
            const size_t k = pick_[i];
            if (!row.has_value(k)) continue;
            if (cols[k].verbatim)
                line_ += row.value(k);
            else
                append_csv_field(line_, row.value(k));
        }
        emit();
    }

  private:
    bool every_column_ = false;
};

class JsonWriter : public LineWriter {
  public:
    JsonWriter(FILE *out, bool live, ColumnPick pick, const std::vector<Column> &cols)
        : LineWriter(out, live, std::move(pick), cols) {
        for (size_t i = 0; i < pick_.size(); ++i) {
            const Column &c = cols_[pick_[i]];
            const std::string key = std::string(i ? "," : "{") + "\"" + c.name + "\":";
            Key k{};
            k.short_key = key.size() <= sizeof k.text;
            if (k.short_key) {
                memcpy(k.text, key.data(), key.size());
                k.len = static_cast<uint8_t>(key.size());
            }
            k.form = c.number        ? Form::Number
                     : c.number_text ? Form::NumberText
                     : c.verbatim    ? Form::Verbatim
                                     : Form::Text;
            k.verbatim = c.verbatim;
            keys_.push_back(k);
            long_keys_.push_back(k.short_key ? std::string() : key);
        }
    }

    void write(const Row &row) override {
        if (pick_.empty()) line_ += '{';
        for (size_t i = 0; i < pick_.size(); ++i) {
            const size_t k = pick_[i];
            const Key &key = keys_[i];
            // The separator, the name and the colon: one fixed-size copy.
            if (key.short_key) {
                char *const p = line_.room(sizeof key.text);
                memcpy(p, key.text, sizeof key.text);
                line_.commit(p + key.len);
            } else {
                line_ += long_keys_[i];
            }
            if (!row.has_value(k)) {
                line_ += "null";
                continue;
            }
            const std::string_view v = row.value(k);
            switch (key.form) {
                case Form::NumberText:
                    if (!is_json_integer(v)) {
                        if (key.verbatim)
                            quoted(v);
                        else
                            text(v);
                        break;
                    }
                    [[fallthrough]];
                case Form::Number:
                    line_ += v;
                    break;
                case Form::Verbatim:
                    quoted(v);
                    break;
                case Form::Text:
                    text(v);
                    break;
            }
        }
        line_ += '}';
        emit();
    }

  private:
    // A text that needs no escapes, in quotes: copied in blocks of 16 bytes from the row's
    // text, whose buffer has bytes to spare past its end.
    void quoted(std::string_view v) {
        const size_t n = v.size();
        char *const p = line_.room(n + 2 + TextBuffer::kSlack);
        *p = '"';
        for (size_t at = 0; at < n; at += TextBuffer::kSlack)
            TextBuffer::copy16(p + 1 + at, v.data() + at);
        p[n + 1] = '"';
        line_.commit(p + n + 2);
    }
    // A text of the row as a JSON string: looked at 16 bytes at a time (reading into the
    // bytes the row's buffer has to spare), and escaped only when it holds a quote, a
    // backslash or a control character.
    void text(std::string_view v) {
        if (corvane_host::any_byte_of<corvane_host::JsonSpecial>(v.data(), v.size()))
            append_json_string(line_, v);
        else
            quoted(v);
    }

    enum class Form : uint8_t { Number, NumberText, Verbatim, Text };
    // What precedes a column's value, made once: `,"name":` (`{"name":` for the first).
    struct Key {
        char text[32];
        uint8_t len;
        bool short_key;  // fits `text`; else in long_keys_
        Form form;
        bool verbatim;  // the column's text needs no escapes
    };
    std::vector<Key> keys_;  // by position in the pick
    std::vector<std::string> long_keys_;
};

}  // namespace

template <typename Out>
void csv_field(Out &out, std::string_view s) {
    if (!needs_csv_quotes(s)) {
        out += s;
        return;
    }
    out += '"';
    for (char c : s) {
        if (c == '"') out += '"';
        out += c;
    }
    out += '"';
}

template <typename Out>
void json_string_to(Out &out, std::string_view s) {
    out += '"';
    size_t plain = 0;  // start of the run of bytes that need no escape
    for (size_t i = 0; i < s.size(); ++i) {
        const auto c = static_cast<unsigned char>(s[i]);
        if (c >= 0x20 && c != '"' && c != '\\') continue;
        out.append(s.data() + plain, i - plain);
        plain = i + 1;
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                out += std::string_view(fmt::format("\\u{:04x}", c));
        }
    }
    out.append(s.data() + plain, s.size() - plain);
    out += '"';
}

void append_csv_field(std::string &out, std::string_view s) {
    csv_field(out, s);
}
void append_csv_field(TextBuffer &out, std::string_view s) {
    csv_field(out, s);
}
void append_json_string(std::string &out, std::string_view s) {
    json_string_to(out, s);
}
void append_json_string(TextBuffer &out, std::string_view s) {
    json_string_to(out, s);
}

std::string csv_quote(const std::string &s) {
    std::string out;
    append_csv_field(out, s);
    return out;
}

std::string json_string(const std::string &s) {
    std::string out;
    append_json_string(out, s);
    return out;
}

bool is_json_integer(std::string_view s) {
    return !s.empty() && (s.size() == 1 || s[0] != '0') &&
           std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

std::variant<ColumnPick, std::string> pick_columns(const std::vector<std::string> &names,
                                                   const std::vector<Column> &cols) {
    ColumnPick pick;
    for (const std::string &name : names) {
        auto it =
            std::find_if(cols.begin(), cols.end(), [&](const Column &c) { return name == c.name; });
        if (it == cols.end()) return name;
        pick.push_back(static_cast<size_t>(it - cols.begin()));
    }
    if (pick.empty())
        for (size_t k = 0; k < cols.size(); ++k)
            pick.push_back(k);
    return pick;
}

std::unique_ptr<RecordWriter> make_writer(Format format, FILE *out, bool live, ColumnPick pick,
                                          const std::vector<Column> &cols) {
    if (pick.empty()) pick = std::get<ColumnPick>(pick_columns({}, cols));
    switch (format) {
        case Format::Text:
            return std::make_unique<TextTableWriter>(out, live, std::move(pick), cols);
        case Format::Csv:
            return std::make_unique<CsvWriter>(out, live, std::move(pick), cols);
        case Format::Json:
            return std::make_unique<JsonWriter>(out, live, std::move(pick), cols);
    }
    return nullptr;
}

}  // namespace smbflow
