// One flow record rendered for the text outputs: the text of every column in one buffer, with
// where each column's value (and, for the protocol, the word the table shows instead) begins
// and ends. A record is rendered by appending to that one buffer, which keeps its capacity
// from record to record: no string per column and no allocation per record, which for
// records of a few packets each was most of the cost of the text outputs.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>
#include <vector>

#include "text_buffer.h"

namespace smbflow {

using corvane_host::TextBuffer;

class Row {
  public:
    Row() = default;
    explicit Row(size_t columns) { reset(columns); }

    // Every column null, for a record of `columns` columns; the buffers are kept.
    void reset(size_t columns) {
        text_.clear();
        spans_.assign(columns, Span{});
    }
    size_t size() const { return spans_.size(); }

    bool has_value(size_t k) const { return spans_[k].value_end != kNull; }
    // The column's value (empty when null: has_value() tells the two apart).
    std::string_view value(size_t k) const {
        const Span &s = spans_[k];
        return s.value_end == kNull ? std::string_view() : text_.view(s.value_begin, s.value_end);
    }
    std::optional<std::string_view> value_or_null(size_t k) const {
        if (!has_value(k)) return std::nullopt;
        return value(k);
    }
    // What the text table shows: the column's display text when it has one, else its value.
    std::optional<std::string_view> shown(size_t k) const {
        const Span &s = spans_[k];
        if (s.display_end != kNull) return text_.view(s.display_begin, s.display_end);
        return value_or_null(k);
    }

    void set(size_t k, std::string_view v) {
        const uint32_t from = mark();
        text_ += v;
        close(k, from);
    }
    void set_display(size_t k, std::string_view v) {
        const uint32_t from = mark();
        text_ += v;
        spans_[k].display_begin = from;
        spans_[k].display_end = mark();
    }

    // Rendering in place: column k's value is what was appended to text() between mark()
    // and close(k, mark).
    TextBuffer &text() { return text_; }
    uint32_t mark() const { return static_cast<uint32_t>(text_.size()); }
    void close(size_t k, uint32_t from) {
        spans_[k].value_begin = from;
        spans_[k].value_end = mark();
    }

  private:
    static constexpr uint32_t kNull = UINT32_MAX;
    struct Span {
        uint32_t value_begin = 0, value_end = kNull;
        uint32_t display_begin = 0, display_end = kNull;
    };
    TextBuffer text_;
    std::vector<Span> spans_;
};

}  // namespace smbflow
