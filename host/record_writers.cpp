// The four record writers that field fill callbacks call. Each returns the number of bytes it
// appended to the output (binary form) or the length of the text it appended, or -1 for an
// argument it cannot use.
#include <bit>
#include <charconv>
#include <cstring>

#include "field_output.h"
#include "host_interface.h"
#include "utf16.h"

#define HOST_API extern "C" __attribute__((visibility("default")))

namespace corvane_host {

std::string number_text(const uint8_t *value, uint32_t size) {
    uint64_t v = 0;
    for (uint32_t i = 0; i < size && i < 8; ++i)
        v |= static_cast<uint64_t>(value[i]) << (8 * i);
    return std::to_string(v);
}

}  // namespace corvane_host

using corvane_host::FieldOutput;

namespace {

uint64_t load8(const uint8_t *p) {
    uint64_t v;
    std::memcpy(&v, p, 8);
    return v;
}

// Names and short texts: up to 32 bytes as two or four fixed-size comparisons that may
// overlap, with no call (a hexadecimal code of eight digits is twenty bytes in UTF-16LE).
bool same_bytes(const uint8_t *a, const uint8_t *b, size_t n) {
    if (n > 16 && n <= 32) {
        const uint64_t head = (load8(a) ^ load8(b)) | (load8(a + 8) ^ load8(b + 8));
        const uint64_t tail =
            (load8(a + n - 16) ^ load8(b + n - 16)) | (load8(a + n - 8) ^ load8(b + n - 8));
        return (head | tail) == 0;
    }
    if (n >= 8 && n <= 16) {
        uint64_t a0, a1, b0, b1;
        std::memcpy(&a0, a, 8);
        std::memcpy(&b0, b, 8);
        std::memcpy(&a1, a + n - 8, 8);
        std::memcpy(&b1, b + n - 8, 8);
        return ((a0 ^ b0) | (a1 ^ b1)) == 0;
    }
    if (n >= 4 && n < 8) {
        uint32_t a0, a1, b0, b1;
        std::memcpy(&a0, a, 4);
        std::memcpy(&b0, b, 4);
        std::memcpy(&a1, a + n - 4, 4);
        std::memcpy(&b1, b + n - 4, 4);
        return ((a0 ^ b0) | (a1 ^ b1)) == 0;
    }
    return std::memcmp(a, b, n) == 0;
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
    constexpr size_t kDigits = 20;  // of the largest 64-bit number
    char *const text = out->text.room(kDigits);
    char *end;
    if (v < 10) {
        text[0] = static_cast<char>('0' + v);
        end = text + 1;
    } else if (v < 100) {
        text[0] = static_cast<char>('0' + v / 10);
        text[1] = static_cast<char>('0' + v % 10);
        end = text + 2;
    } else {
        end = std::to_chars(text, text + kDigits, v).ptr;
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
    const size_t before = out->text.size();
    corvane_host::Utf16Memo &memo = out->memo;
    if (size <= corvane_host::Utf16Memo::kMaxBytes && size == memo.size &&
        same_bytes(bytes, memo.bytes, size)) {
        out->text += memo.text.view();
    } else {
        corvane_host::append_utf16le_as_utf8(out->text, bytes, size);
        if (size <= corvane_host::Utf16Memo::kMaxBytes) {
            memo.size = size;
            std::memcpy(memo.bytes, bytes, size);
            memo.text.assign(out->text.view(before, out->text.size()));
        }
    }
    ++out->writes;
    return static_cast<int>(out->text.size() - before);
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
