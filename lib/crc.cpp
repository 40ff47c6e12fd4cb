#include "crc.h"

#include "crc32c_impl.h"
#include "crc_paths.h"

namespace {

constexpr cv::crc::Crc32cTables kCrc32c = cv::crc::make_crc32c_tables();
constexpr cv::crc::Crc64Tables kCrc64 = cv::crc::make_crc64_tables();

// The slicing-by-8 tables by the bit offset that each serves.
[[maybe_unused]] constexpr const auto &crc_tableil8_o32 = kCrc32c[0];
[[maybe_unused]] constexpr const auto &crc_tableil8_o88 = kCrc32c[7];

static_assert(kCrc64[0][1] == 0xB32E4CBE03A75F6Full);
static_assert(kCrc64[0][128] == 0xC96C5795D7870F42ull);

}  // namespace

// Exported in the flat layout the hash consumers index: table 0 first, then 1, 2, 3.
const uint64_t corvaneexp_crc64_table[4][256] = {
#define CV_ROW(k) \
    { CV_ROW_ENTRIES(k, 0), CV_ROW_ENTRIES(k, 64), CV_ROW_ENTRIES(k, 128), CV_ROW_ENTRIES(k, 192) }
#define CV_E(k, i) kCrc64[k][i]
#define CV_E4(k, i) CV_E(k, i), CV_E(k, i + 1), CV_E(k, i + 2), CV_E(k, i + 3)
#define CV_E16(k, i) CV_E4(k, i), CV_E4(k, i + 4), CV_E4(k, i + 8), CV_E4(k, i + 12)
#define CV_ROW_ENTRIES(k, i) CV_E16(k, i), CV_E16(k, i + 16), CV_E16(k, i + 32), CV_E16(k, i + 48)
    CV_ROW(0), CV_ROW(1), CV_ROW(2), CV_ROW(3)
#undef CV_ROW
#undef CV_E
#undef CV_E4
#undef CV_E16
#undef CV_ROW_ENTRIES
};

namespace cv::crc {

bool cpu_has_sse42() {
    return impl::sse42_available();
}

uint32_t crc32c_hw(const uint8_t *data, uint64_t length, uint32_t crc) {
    return impl::hw(data, length, crc);
}

uint32_t crc32c_sw(const uint8_t *data, uint64_t length, uint32_t crc) {
    return impl::sw(kCrc32c, data, length, crc);
}

}  // namespace cv::crc

uint32_t corvaneexp_crc32c(const void *data, uint64_t length, uint32_t seed) {
    const auto *p = static_cast<const uint8_t *>(data);
    return cv::crc::impl::sse42_available() ? cv::crc::impl::hw(p, length, seed)
                                            : cv::crc::impl::sw(kCrc32c, p, length, seed);
}

uint64_t corvaneexp_crc64(const void *data, int32_t length, uint64_t seed) {
    const auto *p = static_cast<const uint8_t *>(data);
    const auto &t = corvaneexp_crc64_table;
    uint64_t c = seed;
    int32_t n = length;
    // Words are taken while more than four bytes remain, so 1 to 4 bytes always end in the byte
    // step: the split is part of the hash, not an optimisation.
    while (n > 4) {
        uint32_t x = cv::crc::impl::load_le32(p) ^ static_cast<uint32_t>(c);
        c = (c << 32) ^ t[3][x & 0xff] ^ t[2][(x >> 8) & 0xff] ^ t[1][(x >> 16) & 0xff] ^
            t[0][x >> 24];
        p += 4;
        n -= 4;
    }
    while (n-- > 0)
        c = (c << 8) ^ t[0][(*p++ ^ (c >> 56)) & 0xff];
    return c;
}
