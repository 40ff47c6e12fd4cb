// The logging facility's own CRC-32C, with its own tables, so that it needs nothing from the
// support library.
#include "../../lib/crc32c_impl.h"
#include "cv_log.h"

namespace {
constexpr cv::crc::Crc32cTables kTables = cv::crc::make_crc32c_tables();
}

uint32_t CvLog_crc32c(const void *data, uint64_t length, uint32_t seed) {
    const auto *p = static_cast<const uint8_t *>(data);
    return cv::crc::impl::sse42_available() ? cv::crc::impl::hw(p, length, seed)
                                            : cv::crc::impl::sw(kTables, p, length, seed);
}
