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
#include <utility>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace corvane_host {

class TextBuffer {
  public:
    TextBuffer() = default;
    TextBuffer(std::string_view s) { append(s); }  // NOLINT: converts like a string
    TextBuffer &operator=(std::string_view s) {
        assign(s);
        return *this;
    }
    TextBuffer(const TextBuffer &other) { append(other.view()); }
    TextBuffer &operator=(const TextBuffer &other) {
        if (this != &other) assign(other.view());
        return *this;
    }
    TextBuffer(TextBuffer &&other) noexcept { swap(other); }
    TextBuffer &operator=(TextBuffer &&other) noexcept {
        swap(other);
        return *this;
    }
    ~TextBuffer() { delete[] begin_; }

    void clear() { end_ = begin_; }
    size_t size() const { return static_cast<size_t>(end_ - begin_); }
    bool empty() const { return end_ == begin_; }
    const char *data() const { return begin_; }
    std::string_view view() const { return {begin_, size()}; }
    std::string_view view(size_t begin, size_t end) const { return {begin_ + begin, end - begin}; }
    operator std::string_view() const { return view(); }  // NOLINT: reads like a string
    std::string str() const { return std::string(view()); }

    // Room for `n` more bytes: write them at the pointer returned, then commit what was written.
    // The buffer is three pointers, so that the bounds test is one subtraction of two of them
    // (a vector's size would be one more).
    char *room(size_t n) {
        if (n > static_cast<size_t>(limit_ - end_)) grow(n);
        return end_;
    }
    void commit(char *end) { end_ = end; }
    // Drops what follows the first `size` bytes.
    void truncate(size_t size) {
        if (size < this->size()) end_ = begin_ + size;
    }

    void assign(std::string_view s) {
        clear();
        append(s);
    }
    void assign(const char *s, size_t n) { assign(std::string_view(s, n)); }
    void append(std::string_view s) {
        const size_t n = s.size();
        char *p = room(n);
        copy_small(p, s.data(), n);
        end_ = p + n;
    }
    void append(const char *s, size_t n) { append(std::string_view(s, n)); }
    void push_back(char c) {
        char *p = room(1);
        *p = c;
        end_ = p + 1;
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

    // Appends another buffer's text, in blocks of 16 bytes (the last one read from the bytes
    // the other buffer has to spare): no call and no dispatch on the length for the few
    // dozen bytes of a record's texts.
    __attribute__((always_inline)) void append(const TextBuffer &other) {
        if (other.empty()) return;
        room(other.size() + kSlack);
        append_blocks(other);
    }
    __attribute__((always_inline)) TextBuffer &operator+=(const TextBuffer &other) {
        append(other);
        return *this;
    }

    // Bytes that may be read past the room of a buffer that has any (they belong to it, their
    // values do not matter): a text of up to this many bytes is read as one fixed-size block.
    static constexpr size_t kSlack = 16;

    // append() where spare() is already 16 more than the other's size.
    void append_blocks(const TextBuffer &other) {
        const size_t n = other.size();
        for (size_t at = 0; at < n; at += kSlack)
            copy16(end_ + at, other.begin_ + at);
        end_ += n;
    }
    // Bytes of room there are without growing.
    size_t spare() const { return static_cast<size_t>(limit_ - end_); }

    static void copy16(char *to, const char *from) {
#if defined(__SSE2__)
        _mm_storeu_si128(reinterpret_cast<__m128i *>(to),
                         _mm_loadu_si128(reinterpret_cast<const __m128i *>(from)));
#else
        memcpy(to, from, kSlack);
#endif
    }

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

  private:
    void swap(TextBuffer &other) noexcept {
        std::swap(begin_, other.begin_);
        std::swap(end_, other.end_);
        std::swap(limit_, other.limit_);
    }
    void grow(size_t n) {
        const size_t size = this->size();
        const size_t capacity = std::max(2 * static_cast<size_t>(limit_ - begin_), size + n + 64);
        char *const to = new char[capacity + kSlack];
        if (size) memcpy(to, begin_, size);
        delete[] begin_;
        begin_ = to;
        end_ = to + size;
        limit_ = to + capacity;
    }

    char *begin_ = nullptr;
    char *end_ = nullptr;    // of the text
    char *limit_ = nullptr;  // of the room
};

}  // namespace corvane_host
