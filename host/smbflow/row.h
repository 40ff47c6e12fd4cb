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

namespace smbflow {

// A growing byte buffer whose appends are a bounds test and a copy, inlined.
class TextBuffer {
  public:
    void clear() { size_ = 0; }
    size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    const char *data() const { return buf_.data(); }
    std::string_view view() const { return {buf_.data(), size_}; }
    std::string_view view(size_t begin, size_t end) const {
        return {buf_.data() + begin, end - begin};
    }

    // Room for `n` more bytes: write them at the pointer returned, then commit what was written.
    char *room(size_t n) {
        if (n > buf_.size() - size_) grow(n);
        return buf_.data() + size_;
    }
    void commit(char *end) { size_ = static_cast<size_t>(end - buf_.data()); }
    // Drops what follows the first `size` bytes.
    void truncate(size_t size) { size_ = std::min(size_, size); }

    void append(std::string_view s) {
        const size_t n = s.size();
        char *p = room(n);
        copy_small(p, s.data(), n);
        size_ += n;
    }
    void append(const char *s, size_t n) { append(std::string_view(s, n)); }
    void push_back(char c) {
        *room(1) = c;
        ++size_;
    }
    TextBuffer &operator+=(std::string_view s) {
        append(s);
        return *this;
    }
    TextBuffer &operator+=(char c) {
        push_back(c);
        return *this;
    }

  private:
    void grow(size_t n) { buf_.resize(std::max(buf_.size() * 2, size_ + n + 256)); }

    // Most of what a record appends is a few bytes (numbers, words, short names): up to 16
    // bytes are copied inline, as two fixed-size copies that may overlap, with no call.
    static void copy_small(char *to, const char *from, size_t n) {
        if (n >= 8 && n <= 16) {
            memcpy(to, from, 8);
            memcpy(to + n - 8, from + n - 8, 8);
        } else if (n >= 4 && n < 8) {
            memcpy(to, from, 4);
            memcpy(to + n - 4, from + n - 4, 4);
        } else if (n > 16) {
            memcpy(to, from, n);
        } else {
            for (size_t i = 0; i < n; ++i)
                to[i] = from[i];
        }
    }

    std::vector<char> buf_;
    size_t size_ = 0;
};

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
