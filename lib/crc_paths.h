// The two CRC-32C implementations behind corvaneexp_crc32c, reachable one by one so that the
// tests can hold them against each other. Not part of the exported interface.
#pragma once

#include <cstddef>
#include <cstdint>

namespace cv::crc {

bool cpu_has_sse42();
uint32_t crc32c_hw(const uint8_t *data, uint64_t length, uint32_t crc);
uint32_t crc32c_sw(const uint8_t *data, uint64_t length, uint32_t crc);

}  // namespace cv::crc
