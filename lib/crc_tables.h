// Compile-time CRC tables, shared by the support library and the logging facility (each keeps
// its own instance so the logging facility depends on nothing else).
#pragma once

#include <array>
#include <cstdint>

namespace cv::crc {

using Crc32cTables = std::array<std::array<uint32_t, 256>, 8>;
using Crc64Tables = std::array<std::array<uint64_t, 256>, 4>;

// Slicing-by-8 tables for the reflected Castagnoli polynomial 0x82F63B78: T0 is the byte table,
// Tk[i] = (Tk-1[i] >> 8) ^ T0[Tk-1[i] & 0xff].
consteval Crc32cTables make_crc32c_tables() {
    Crc32cTables t{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t c = i;
        for (int b = 0; b < 8; ++b)
            c = (c & 1) ? (c >> 1) ^ 0x82F63B78u : c >> 1;
        t[0][i] = c;
    }
    for (int k = 1; k < 8; ++k)
        for (uint32_t i = 0; i < 256; ++i)
            t[k][i] = (t[k - 1][i] >> 8) ^ t[0][t[k - 1][i] & 0xff];
    return t;
}

// Reflected CRC-64/ECMA-182 polynomial 0xC96C5795D7870F42 and three slices built the same way.
consteval Crc64Tables make_crc64_tables() {
    Crc64Tables t{};
    for (uint64_t i = 0; i < 256; ++i) {
        uint64_t c = i;
        for (int b = 0; b < 8; ++b)
            c = (c & 1) ? (c >> 1) ^ 0xC96C5795D7870F42ull : c >> 1;
        t[0][i] = c;
    }
    for (int k = 1; k < 4; ++k)
        for (uint64_t i = 0; i < 256; ++i)
            t[k][i] = (t[k - 1][i] >> 8) ^ t[0][t[k - 1][i] & 0xff];
    return t;
}

// The four byte steps that end every chained 64-bit hash, folded into four lookups. Over a
// 32-bit word w the steps turn the register c into (c << 32) ^ H(v), v = (c >> 32) ^ bswap(w):
// each step's index is the register's top byte, which only the top four bytes of c and the
// bytes of w reach, and the table is linear (T0[a ^ b] = T0[a] ^ T0[b]). Table k holds H of a
// byte in bits 8k..8k+7 of v: four byte steps over zeros from a register of v << 32.
consteval Crc64Tables make_crc64_tail_tables(const Crc64Tables &t) {
    Crc64Tables h{};
    for (int k = 0; k < 4; ++k)
        for (uint64_t i = 0; i < 256; ++i) {
            uint64_t r = (i << (8 * k)) << 32;
            for (int step = 0; step < 4; ++step)
                r = (r << 8) ^ t[0][r >> 56];
            h[k][i] = r;
        }
    return h;
}

}  // namespace cv::crc
