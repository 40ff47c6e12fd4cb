// CRC-32C (Castagnoli) and the chained 64-bit hash built on the CRC-64/ECMA-182 tables.
#pragma once

#include <stdint.h>

#include "export.h"

// Standard CRC-32C register update: the register starts at `seed` (not complemented) and the
// complement of the final register is returned, so seed 0xFFFFFFFF gives the usual CRC-32C.
CV_EXPORT uint32_t corvaneexp_crc32c(const void *data, uint64_t length, uint32_t seed);

// Chained 64-bit hash: four bytes per table step while more than four bytes remain, then
// single bytes; the register shifts toward the high end and is returned uncomplemented.
CV_EXPORT uint64_t corvaneexp_crc64(const void *data, int32_t length, uint64_t seed);

// Four 256-entry tables: reflected CRC-64/ECMA-182 (the CRC-64/XZ table) and its slices.
CV_EXPORT_DATA const uint64_t corvaneexp_crc64_table[4][256];
