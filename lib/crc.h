// CRC-32C (Castagnoli) and the chained 64-bit hash built on the CRC-64/ECMA-182 tables.
#pragma once

#include <stdint.h>

#include "export.h"
#ifdef __cplusplus
#include "crc_tables.h"
#endif

// Standard CRC-32C register update: the register starts at `seed` (not complemented) and the
// complement of the final register is returned, so seed 0xFFFFFFFF gives the usual CRC-32C.
CV_EXPORT uint32_t corvaneexp_crc32c(const void *data, uint64_t length, uint32_t seed);

// Chained 64-bit hash: four bytes per table step while more than four bytes remain, then
// single bytes; the register shifts toward the high end and is returned uncomplemented.
CV_EXPORT uint64_t corvaneexp_crc64(const void *data, int32_t length, uint64_t seed);

// Four 256-entry tables: reflected CRC-64/ECMA-182 (the CRC-64/XZ table) and its slices.
CV_EXPORT_DATA const uint64_t corvaneexp_crc64_table[4][256];

#ifdef __cplusplus
namespace cv::crc {

// The two steps of corvaneexp_crc64, for callers that fold fixed groups of integers without
// laying them out as bytes first. A call over n bytes is ((n - 1) / 4) word steps over the
// little-endian words from the start, then a byte step for each byte left (1 to 4).
inline uint64_t crc64_word_step(uint64_t c, uint32_t word) {
    const auto &t = corvaneexp_crc64_table;
    const uint32_t x = word ^ static_cast<uint32_t>(c);
    return (c << 32) ^ t[3][x & 0xff] ^ t[2][(x >> 8) & 0xff] ^ t[1][(x >> 16) & 0xff] ^
           t[0][x >> 24];
}

inline uint64_t crc64_byte_step(uint64_t c, uint8_t byte) {
    return (c << 8) ^ corvaneexp_crc64_table[0][(byte ^ (c >> 56)) & 0xff];
}

inline constexpr Crc64Tables kCrc64Tail = make_crc64_tail_tables(make_crc64_tables());

// Four byte steps over a word's little-endian bytes (how every call ends), as four lookups
// (see make_crc64_tail_tables): the parser folds identifiers into every packet's hash.
inline uint64_t crc64_tail_bytes(uint64_t c, uint32_t word) {
    const uint32_t v = static_cast<uint32_t>(c >> 32) ^ __builtin_bswap32(word);
    const auto &h = kCrc64Tail;
    return (c << 32) ^ h[3][v >> 24] ^ h[2][(v >> 16) & 0xff] ^ h[1][(v >> 8) & 0xff] ^
           h[0][v & 0xff];
}

}  // namespace cv::crc
#endif
