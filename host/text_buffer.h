// A growing byte buffer of text whose appends are a bounds test and a copy, inlined. The
// fields' texts and the text outputs' lines are written into buffers of this kind: they keep
// their capacity from one record to the next, and a writer may put its bytes straight into
// room() and commit them, with no copy from a buffer of its own.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace corvane_host {

class TextBuffer {
  public:
    TextBuffer() = default;
    TextBuffer(std::string_view s) { append(s); }  // NOLINT: converts like a string
    TextBuffer &operator=(std::string_view s) {
        assign(s);
        return *this;
    }

    void clear() { size_ = 0; }
    size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    const char *data() const { return buf_.data(); }
    std::string_view view() const { return {buf_.data(), size_}; }
    std::string_view view(size_t begin, size_t end) const {
        return {buf_.data() + begin, end - begin};
    }
    operator std::string_view() const { return view(); }  // NOLINT: reads like a string
    std::string str() const { return std::string(view()); }

    // Room for `n` more bytes: write them at the pointer returned, then commit what was written.
    char *room(size_t n) {
        if (n > buf_.size() - size_) grow(n);
        return buf_.data() + size_;
    }
    void commit(char *end) { size_ = static_cast<size_t>(end - buf_.data()); }
    // Drops what follows the first `size` bytes.
    void truncate(size_t size) { size_ = std::min(size_, size); }

    void assign(std::string_view s) {
        clear();
        append(s);
    }
    void assign(const char *s, size_t n) { assign(std::string_view(s, n)); }
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

    friend bool operator==(const TextBuffer &a, std::string_view b) { return a.view() == b; }
    friend bool operator==(const TextBuffer &a, const TextBuffer &b) {
        return a.view() == b.view();
    }

  private:
    void grow(size_t n) { buf_.resize(std::max(buf_.size() * 2, size_ + n + 64)); }

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

}  // namespace corvane_host
