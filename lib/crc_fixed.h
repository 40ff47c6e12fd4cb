// CRC-32C of a short key whose length is known at compile time: the value of
// corvaneexp_crc32c over the same bytes, with the CRC32 instruction steps unrolled inline
// (8, 4, 2 and 1 bytes at a time) where the processor has them. Table lookups key every
// packet, so the call, the loops and the length tests of the general function show there.
#pragma once

#include <nmmintrin.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "crc.h"

namespace cv::crc {

namespace fixed_detail {

template <size_t N>
__attribute__((target("sse4.2"))) inline uint32_t hw(const uint8_t *p, uint32_t seed) {
    uint64_t c = seed;
    size_t i = 0;
    for (; i + 8 <= N; i += 8) {
        uint64_t v;
        std::memcpy(&v, p + i, 8);
        c = _mm_crc32_u64(c, v);
    }
    auto c32 = static_cast<uint32_t>(c);
    if constexpr (N % 8 >= 4) {
        uint32_t v;
        std::memcpy(&v, p + i, 4);
        c32 = _mm_crc32_u32(c32, v);
        i += 4;
    }
    if constexpr (N % 4 >= 2) {
        uint16_t v;
        std::memcpy(&v, p + i, 2);
        c32 = _mm_crc32_u16(c32, v);
        i += 2;
    }
    if constexpr (N % 2 == 1) c32 = _mm_crc32_u8(c32, p[i]);
    return ~c32;
}

}  // namespace fixed_detail

template <size_t N>
inline uint32_t crc32c_fixed(const std::array<uint8_t, N> &bytes, uint32_t seed) {
    if (__builtin_cpu_supports("sse4.2")) return fixed_detail::hw<N>(bytes.data(), seed);
    return corvaneexp_crc32c(bytes.data(), N, seed);
}

}  // namespace cv::crc
