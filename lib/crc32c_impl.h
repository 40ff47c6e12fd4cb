// CRC-32C hardware and software paths as inline templates over a table set, so the support
// library and the logging facility compile the same algorithm against their own tables.
#pragma once

#include <cpuid.h>
#include <nmmintrin.h>

#include <cstdint>
#include <cstring>

#include "crc_tables.h"

namespace cv::crc::impl {

inline bool sse42_available() {
    // Asked on every call, as cheap as the instruction itself once the CPUID leaf is cached by
    // the compiler runtime.
    return __builtin_cpu_supports("sse4.2");
}

__attribute__((target("sse4.2"))) inline uint32_t hw(const uint8_t *p, uint64_t n, uint32_t crc) {
    uint64_t c = crc;
    uint64_t words = n / 8;
    // Unrolled by 8 words: the CRC32 instruction has a 3-cycle latency, so a long run of them is
    // limited by the dependency chain, not by the loop overhead, but the overhead still shows.
    while (words >= 8) {
        uint64_t w[8];
        std::memcpy(w, p, sizeof w);
        for (uint64_t v : w)
            c = _mm_crc32_u64(c, v);
        p += 64;
        words -= 8;
    }
    while (words--) {
        uint64_t v;
        std::memcpy(&v, p, 8);
        c = _mm_crc32_u64(c, v);
        p += 8;
    }
    uint32_t c32 = static_cast<uint32_t>(c);
    for (uint64_t i = 0; i < n % 8; ++i)
        c32 = _mm_crc32_u8(c32, p[i]);
    return ~c32;
}

inline uint32_t load_le32(const uint8_t *p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

inline uint32_t sw(const Crc32cTables &t, const uint8_t *p, uint64_t n, uint32_t crc) {
    uint64_t head = (0 - reinterpret_cast<uintptr_t>(p)) & 3;
    if (head > n) head = n;
    for (uint64_t i = 0; i < head; ++i)
        crc = (crc >> 8) ^ t[0][(crc ^ *p++) & 0xff];
    n -= head;
    for (uint64_t blocks = n / 8; blocks; --blocks, p += 8) {
        uint32_t x = crc ^ load_le32(p);
        uint32_t w1 = load_le32(p + 4);
        crc = t[7][x & 0xff] ^ t[6][(x >> 8) & 0xff] ^ t[5][(x >> 16) & 0xff] ^ t[4][x >> 24] ^
              t[3][w1 & 0xff] ^ t[2][(w1 >> 8) & 0xff] ^ t[1][(w1 >> 16) & 0xff] ^ t[0][w1 >> 24];
    }
    for (uint64_t i = 0; i < n % 8; ++i)
        crc = (crc >> 8) ^ t[0][(crc ^ *p++) & 0xff];
    return ~crc;
}

}  // namespace cv::crc::impl
