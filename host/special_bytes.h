// The bytes that the text outputs quote or escape, and a scan of a text for them sixteen bytes
// at a time. Every column of every record that may hold such a byte is looked at, so the scan
// is inline and, with SSE2, tests a block of 16 bytes with a few compares.
#pragma once

#include <cstddef>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace corvane_host {

// A set of bytes: `has` tests one byte; with SSE2, `lanes` marks the bytes of a block that are
// in the set (0xff in their lanes).

// What makes a CSV field need quotes (RFC 4180): a comma, a quote, a line break.
struct CsvSpecial {
    static bool has(unsigned char c) { return c == ',' || c == '"' || c == '\r' || c == '\n'; }
#if defined(__SSE2__)
    static __m128i lanes(__m128i x) {
        return _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(x, _mm_set1_epi8(',')),
                                         _mm_cmpeq_epi8(x, _mm_set1_epi8('"'))),
                            _mm_or_si128(_mm_cmpeq_epi8(x, _mm_set1_epi8('\r')),
                                         _mm_cmpeq_epi8(x, _mm_set1_epi8('\n'))));
    }
#endif
};

// What a JSON string escapes (RFC 8259): a quote, a backslash, a control character.
struct JsonSpecial {
    static bool has(unsigned char c) { return c < 0x20 || c == '"' || c == '\\'; }
#if defined(__SSE2__)
    static __m128i lanes(__m128i x) {
        // A control character is one that max(c, 0x1f) leaves at 0x1f.
        const __m128i controls = _mm_set1_epi8(0x1f);
        return _mm_or_si128(_mm_cmpeq_epi8(_mm_max_epu8(x, controls), controls),
                            _mm_or_si128(_mm_cmpeq_epi8(x, _mm_set1_epi8('"')),
                                         _mm_cmpeq_epi8(x, _mm_set1_epi8('\\'))));
    }
#endif
};

// What any of the text outputs quotes or escapes: either of the above.
struct AnySpecial {
    static bool has(unsigned char c) { return JsonSpecial::has(c) || c == ','; }
#if defined(__SSE2__)
    static __m128i lanes(__m128i x) {
        return _mm_or_si128(JsonSpecial::lanes(x), _mm_cmpeq_epi8(x, _mm_set1_epi8(',')));
    }
#endif
};

// Whether any of the `n` bytes at `p` is in `Set`. With SSE2 the text is read in blocks of 16
// bytes, the last one past its end (the bytes beyond are masked off): `p` must have readable
// bytes up to the next multiple of 16 of `n`, as a TextBuffer's spare bytes give.
template <typename Set>
__attribute__((always_inline)) inline bool any_byte_of(const char *p, size_t n) {
#if defined(__SSE2__)
    for (size_t at = 0; at < n; at += 16) {
        const __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p + at));
        unsigned mask = static_cast<unsigned>(_mm_movemask_epi8(Set::lanes(x)));
        if (n - at < 16) mask &= (1u << (n - at)) - 1;
        if (mask) return true;
    }
    return false;
#else
    for (size_t i = 0; i < n; ++i)
        if (Set::has(static_cast<unsigned char>(p[i]))) return true;
    return false;
#endif
}

}  // namespace corvane_host
