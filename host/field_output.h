// The output object that the host hands to a field's fill callbacks, and that the four
// record writers (record_universal_*) write into. A binary fill produces the value's bytes,
// a text fill its text.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "text_buffer.h"

namespace corvane_host {

// The fill callbacks' argument b, passed on by plug-ins to record_universal_get_num, selects
// the byte order of a binary number: 0 as in memory (this host: little-endian), non-zero
// network order. Argument a is the field's position in the host's field list.
inline constexpr uint32_t kByteOrderHost = 0;
inline constexpr uint32_t kByteOrderNetwork = 1;

// The binary form of a value: bytes appended in place, like TextBuffer's text. A fill's
// number is a bounds test and a copy of at most 8 bytes, where a vector's resize() zeroes the
// bytes first, out of line, for every number of every record.
class ByteBuffer {
  public:
    void clear() { size_ = 0; }
    size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    const uint8_t *data() const { return buf_.data(); }
    const uint8_t *begin() const { return buf_.data(); }
    const uint8_t *end() const { return buf_.data() + size_; }
    uint8_t operator[](size_t i) const { return buf_[i]; }

    // Room for `n` more bytes at the pointer returned; commit(n) then keeps them.
    uint8_t *room(size_t n) {
        if (n > buf_.size() - size_) buf_.resize(std::max(buf_.size() * 2, size_ + n + 16));
        return buf_.data() + size_;
    }
    void commit(size_t n) { size_ += n; }

    void append(const uint8_t *bytes, size_t n) {
        if (n) memcpy(room(n), bytes, n);
        size_ += n;
    }
    void push_back(uint8_t b) {
        *room(1) = b;
        ++size_;
    }
    template <typename It>
    void assign(It first, It last) {
        clear();
        for (; first != last; ++first)
            push_back(*first);
    }

    friend bool operator==(const ByteBuffer &a, const std::vector<uint8_t> &b) {
        return a.size_ == b.size() && std::equal(b.begin(), b.end(), a.begin());
    }

  private:
    std::vector<uint8_t> buf_;
    size_t size_ = 0;
};

// The last UTF-16LE text that the string writer converted for one output, and its UTF-8: a
// field's text is most often the one it had in the record before (the session's user name,
// the dialect, the share), and a comparison of a few bytes is cheaper than their conversion.
struct Utf16Memo {
    static constexpr uint32_t kMaxBytes = 128;  // a name buffer; longer texts are converted
    uint32_t size = UINT32_MAX;                 // of `bytes`; none yet
    bool plain = false;                         // `text` holds no special character
    uint8_t bytes[kMaxBytes];
    TextBuffer text;
};

// Whether a text holds a character that some output quotes or escapes: a CSV separator or
// quote, a backslash, a control character.
bool has_special_character(const TextBuffer &text);

struct FieldOutput {
    ByteBuffer binary;
    TextBuffer text;      // written in place by the text writers
    unsigned writes = 0;  // successful writer calls; 0 means the fill gave no value
    // Since clear(), every byte of `text` came from a writer that knows it holds no special
    // character (has_special_character): the text outputs then write it without looking.
    // False for a text written into the buffer by any other means.
    bool plain = false;
    Utf16Memo memo;  // kept by the string writer from one record to the next

    void clear() {
        binary.clear();
        text.clear();
        writes = 0;
        plain = true;
    }
};

// Text of an unsigned little-endian number of 1 to 8 bytes, in decimal.
std::string number_text(const uint8_t *value, uint32_t size);

}  // namespace corvane_host
