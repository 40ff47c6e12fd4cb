// The four record writers that field fill callbacks call. Each returns the number of bytes it
// appended to the output (binary form) or the length of the text it appended, or -1 for an
// argument it cannot use.
#include <bit>
#include <charconv>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "field_output.h"
#include "host_interface.h"
#include "special_bytes.h"
#include "utf16.h"

#define HOST_API extern "C" __attribute__((visibility("default")))

namespace corvane_host {

std::string number_text(const uint8_t *value, uint32_t size) {
    uint64_t v = 0;
    for (uint32_t i = 0; i < size && i < 8; ++i)
        v |= static_cast<uint64_t>(value[i]) << (8 * i);
    return std::to_string(v);
}

bool has_special_character(const TextBuffer &text) {
    // The last block is read from the bytes the buffer has to spare.
    return any_byte_of<AnySpecial>(text.data(), text.size());
}

}  // namespace corvane_host

using corvane_host::FieldOutput;
using corvane_host::TextBuffer;

namespace {

uint64_t load8(const uint8_t *p) {
    uint64_t v;
    std::memcpy(&v, p, 8);
    return v;
}

// Whether two texts of 4 to 128 bytes are the same, as fixed-size comparisons (the last may
// overlap the one before), with no call: a hexadecimal code of eight digits is twenty bytes
// in UTF-16LE, a share's path a few dozen.
__attribute__((always_inline)) inline bool same_text(const uint8_t *a, const uint8_t *b, size_t n) {
    if (n >= 16) {
#if defined(__SSE2__)
        auto equal16 = [a, b](size_t at) {
            const __m128i vx = _mm_loadu_si128(reinterpret_cast<const __m128i *>(a + at));
            const __m128i vy = _mm_loadu_si128(reinterpret_cast<const __m128i *>(b + at));
            return _mm_movemask_epi8(_mm_cmpeq_epi8(vx, vy)) == 0xffff;
        };
        for (size_t at = 0; at + 16 < n; at += 16)
            if (!equal16(at)) return false;
        return equal16(n - 16);
#else
        return std::memcmp(a, b, n) == 0;
#endif
    }
    if (n >= 8) return ((load8(a) ^ load8(b)) | (load8(a + n - 8) ^ load8(b + n - 8))) == 0;
    uint32_t a0, a1, b0, b1;
    std::memcpy(&a0, a, 4);
    std::memcpy(&b0, b, 4);
    std::memcpy(&a1, a + n - 4, 4);
    std::memcpy(&b1, b + n - 4, 4);
    return ((a0 ^ b0) | (a1 ^ b1)) == 0;
}

// The string writer's conversion of a text it did not convert last (`compare`: unless the
// memo is compared here first), which the memo then keeps when it is not too long.
__attribute__((noinline)) int append_utf16(FieldOutput &out, const uint8_t *bytes, uint32_t size,
                                           bool compare) {
    const size_t before = out.text.size();
    corvane_host::Utf16Memo &memo = out.memo;
    constexpr uint32_t kMax = corvane_host::Utf16Memo::kMaxBytes;
    if (compare && size <= kMax && size == memo.size && std::memcmp(bytes, memo.bytes, size) == 0) {
        out.text += memo.text;
    } else {
        corvane_host::append_utf16le_as_utf8(out.text, bytes, size);
        if (size <= kMax) {
            memo.size = size;
            std::memcpy(memo.bytes, bytes, size);
            memo.text.assign(out.text.view(before, out.text.size()));
            // Looked at for the short texts of the plug-ins' further fields (a status, a
            // name); a path is taken as it is, not plain.
            memo.plain = memo.text.size() <= 2 * TextBuffer::kSlack &&
                         !corvane_host::has_special_character(memo.text);
        }
    }
    out.plain = out.plain && size <= kMax && memo.plain;
    ++out.writes;
    return static_cast<int>(out.text.size() - before);
}

// The decimal writer's general case.
__attribute__((noinline)) int append_decimal(FieldOutput &out, uint64_t v) {
    constexpr size_t kDigits = 20;  // of the largest 64-bit number
    char *const text = out.text.room(kDigits);
    char *const end = std::to_chars(text, text + kDigits, v).ptr;
    out.text.commit(end);
    ++out.writes;
    return static_cast<int>(end - text);
}

bool number_size_ok(uint32_t size) {
    return size == 1 || size == 2 || size == 4 || size == 8;
}

}  // namespace

HOST_API int record_universal_get_num(void *output, const void *value, uint32_t size, uint32_t,
                                      uint32_t byte_order) {
    if (!output || !value || !number_size_ok(size)) return -1;
    auto *out = static_cast<FieldOutput *>(output);
    const auto *bytes = static_cast<const uint8_t *>(value);
    if (byte_order == corvane_host::kByteOrderHost) {
        // Called for every number of every record: a bounds test and a copy of at most 8
        // bytes.
        uint8_t *const to = out->binary.room(8);
        switch (size) {
            case 1:
                *to = *bytes;
                break;
            case 2:
                std::memcpy(to, bytes, 2);
                break;
            case 4:
                std::memcpy(to, bytes, 4);
                break;
            default:
                std::memcpy(to, bytes, 8);
                break;
        }
        out->binary.commit(size);
    } else {
        for (uint32_t i = size; i-- > 0;)
            out->binary.push_back(bytes[i]);
    }
    ++out->writes;
    return static_cast<int>(size);
}

HOST_API int record_universal_get_txt_num(void *output, const void *value, uint32_t size, uint32_t,
                                          uint32_t) {
    if (!output || !value || !number_size_ok(size)) return -1;
    auto *out = static_cast<FieldOutput *>(output);
    const auto *bytes = static_cast<const uint8_t *>(value);
    // The decimal writer of every counter of every record: a fixed-size load, and the one or
    // two digits of the small counters most records have without the general conversion.
    uint64_t v = 0;
    if constexpr (std::endian::native == std::endian::little) {
        switch (size) {
            case 1:
                v = *bytes;
                break;
            case 2:
                std::memcpy(&v, bytes, 2);
                break;
            case 4:
                std::memcpy(&v, bytes, 4);
                break;
            default:
                std::memcpy(&v, bytes, 8);
                break;
        }
    } else {
        for (uint32_t i = 0; i < size; ++i)
            v |= static_cast<uint64_t>(bytes[i]) << (8 * i);
    }
    // The other numbers, and a buffer that has to grow, out of line: the short case then
    // saves no register.
    if (v >= 100 || out->text.spare() < 2) return append_decimal(*out, v);
    char *const text = out->text.room(2);
    char *end;
    if (v < 10) {
        text[0] = static_cast<char>('0' + v);
        end = text + 1;
    } else {
        text[0] = static_cast<char>('0' + v / 10);
        text[1] = static_cast<char>('0' + v % 10);
        end = text + 2;
    }
    out->text.commit(end);
    ++out->writes;
    return static_cast<int>(end - text);
}

HOST_API int record_universal_get_txt_string(void *output, const void *buffer, uint32_t size,
                                             uint32_t, uint32_t) {
    if (!output || !buffer) return -1;
    auto *out = static_cast<FieldOutput *>(output);
    const auto *bytes = static_cast<const uint8_t *>(buffer);
    // Most often a short text that this output had in the record before (a dialect, a
    // status, a user name): its UTF-8 is copied as one block of 16 bytes, with no call.
    const corvane_host::Utf16Memo &memo = out->memo;
    const size_t n = memo.text.size();
    if (size == memo.size && size - 4 <= corvane_host::Utf16Memo::kMaxBytes - 4 && n != 0) {
        if (!same_text(bytes, memo.bytes, size)) return append_utf16(*out, bytes, size, false);
        if (out->text.spare() >= n + TextBuffer::kSlack) {
            out->text.append_blocks(memo.text);
            out->plain &= memo.plain;
            ++out->writes;
            return static_cast<int>(n);
        }
    }
    return append_utf16(*out, bytes, size, true);
}

HOST_API int record_universal_get_array(void *output, const void *buffer, uint32_t size, uint32_t,
                                        uint32_t) {
    if (!output || !buffer) return -1;
    auto *out = static_cast<FieldOutput *>(output);
    const auto *bytes = static_cast<const uint8_t *>(buffer);
    out->binary.append(bytes, size);
    ++out->writes;
    return static_cast<int>(size);
}
