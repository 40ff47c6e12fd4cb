#include "utf16.h"

#include <bit>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace corvane_host {

namespace {

constexpr uint32_t kReplacement = 0xfffd;

bool is_high_surrogate(uint32_t u) {
    return u >= 0xd800 && u <= 0xdbff;
}
bool is_low_surrogate(uint32_t u) {
    return u >= 0xdc00 && u <= 0xdfff;
}

}  // namespace

namespace {

// Writes the UTF-8 encoding of one code point at p; returns the end.
char *put_utf8(char *p, uint32_t cp) {
    if (cp < 0x80) {
        *p++ = static_cast<char>(cp);
    } else if (cp < 0x800) {
        *p++ = static_cast<char>(0xc0 | (cp >> 6));
        *p++ = static_cast<char>(0x80 | (cp & 0x3f));
    } else if (cp < 0x10000) {
        *p++ = static_cast<char>(0xe0 | (cp >> 12));
        *p++ = static_cast<char>(0x80 | ((cp >> 6) & 0x3f));
        *p++ = static_cast<char>(0x80 | (cp & 0x3f));
    } else {
        *p++ = static_cast<char>(0xf0 | (cp >> 18));
        *p++ = static_cast<char>(0x80 | ((cp >> 12) & 0x3f));
        *p++ = static_cast<char>(0x80 | ((cp >> 6) & 0x3f));
        *p++ = static_cast<char>(0x80 | (cp & 0x3f));
    }
    return p;
}

}  // namespace

void append_utf8(std::string &out, uint32_t cp) {
    char buf[4];
    out.append(buf, put_utf8(buf, cp));
}

namespace {

// Writes the UTF-8 text of the first `units` UTF-16LE units of buf (up to a zero unit) at
// base, which has room for 3 bytes a unit (a unit takes at most 3 bytes of UTF-8, a surrogate
// pair 4 for its two units); returns the end.
char *utf16le_to_utf8_at(char *const base, const uint8_t *buf, size_t units) {
    char *p = base;
    auto unit = [buf](size_t i) -> uint32_t { return buf[2 * i] | (buf[2 * i + 1] << 8); };
    size_t i = 0;
#if defined(__SSE2__)
    // Names are mostly ASCII: eight units at a time while every one is below 0x80 and none is
    // the terminating zero, packed to eight bytes in one step.
    const __m128i high = _mm_set1_epi16(static_cast<short>(0xff80));
    const __m128i zero = _mm_setzero_si128();
    for (; i + 8 <= units; i += 8, p += 8) {
        const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i *>(buf + 2 * i));
        const __m128i ascii = _mm_cmpeq_epi16(_mm_and_si128(x, high), zero);
        const __m128i ends = _mm_cmpeq_epi16(x, zero);
        if (_mm_movemask_epi8(_mm_andnot_si128(ends, ascii)) != 0xffff) break;
        _mm_storel_epi64(reinterpret_cast<__m128i *>(p), _mm_packus_epi16(x, x));
    }
#endif
    if constexpr (std::endian::native == std::endian::little) {
        // Then four units at a time while none is 0x80 or more and none is the terminating zero
        // (with every unit below 0x80, a unit minus one borrows into its top bit only when it is
        // zero); the loop below takes over at the first that is.
        constexpr uint64_t kHigh = 0xff80ff80ff80ff80ull, kOnes = 0x0001000100010001ull,
                           kTops = 0x8000800080008000ull;
        for (uint64_t x; i + 4 <= units; i += 4, p += 4) {
            memcpy(&x, buf + 2 * i, 8);
            if ((x & kHigh) || ((x - kOnes) & ~x & kTops)) break;
            p[0] = static_cast<char>(x);
            p[1] = static_cast<char>(x >> 16);
            p[2] = static_cast<char>(x >> 32);
            p[3] = static_cast<char>(x >> 48);
        }
    }
    for (; i < units; ++i) {
        const uint32_t u = unit(i);
        if (u == 0) break;
        if (u < 0x80) {
            *p++ = static_cast<char>(u);
        } else if (is_high_surrogate(u)) {
            if (i + 1 < units && is_low_surrogate(unit(i + 1))) {
                p = put_utf8(p, 0x10000 + ((u - 0xd800) << 10) + (unit(i + 1) - 0xdc00));
                ++i;
            } else {
                p = put_utf8(p, kReplacement);  // the next unit is looked at on its own
            }
        } else if (is_low_surrogate(u)) {
            p = put_utf8(p, kReplacement);
        } else {
            p = put_utf8(p, u);
        }
    }
    return p;
}

}  // namespace

// Every name of every flow record passes through here: a name buffer's text is written on
// the stack and appended once, with no byte of the string written twice (a resize to the
// most the text could take would clear a name buffer's 192 bytes first, for names that are
// mostly a few dozen).
void append_utf16le_as_utf8(std::string &out, const uint8_t *buf, size_t size) {
    if (!buf) return;
    const size_t units = size / 2;
    constexpr size_t kOnStack = 512;  // names are 128-byte buffers: 64 units, 192 bytes at most
    if (3 * units <= kOnStack) {
        char text[kOnStack];
        out.append(text, utf16le_to_utf8_at(text, buf, units));
        return;
    }
    const size_t start = out.size();
    out.resize(start + 3 * units);
    char *const end = utf16le_to_utf8_at(out.data() + start, buf, units);
    out.resize(static_cast<size_t>(end - out.data()));
}

// A field's text is written straight at the end of its buffer, which keeps its capacity from
// one record to the next.
void append_utf16le_as_utf8(TextBuffer &out, const uint8_t *buf, size_t size) {
    if (!buf) return;
    const size_t units = size / 2;
    out.commit(utf16le_to_utf8_at(out.room(3 * units), buf, units));
}

std::string utf16le_to_utf8(const uint8_t *buf, size_t size) {
    std::string out;
    append_utf16le_as_utf8(out, buf, size);
    return out;
}

}  // namespace corvane_host
