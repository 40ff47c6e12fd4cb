// Small stateless helpers: trivial callbacks, swaps, bit counts, hex strings, numbers, host name.
#define CV_LOG_SOURCE "lib/utils"
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <bit>

#include "cv_log.h"
#include "utils_alloc.h"
#include "utils_process.h"

int corvaneexp_return_zero(void) {
    return 0;
}
int corvaneexp_return_one(void) {
    return 1;
}

void corvaneexp_xchg(void *a, void *b, size_t size) {
    auto *x = static_cast<unsigned char *>(a);
    std::swap_ranges(x, x + size, static_cast<unsigned char *>(b));
}

char *corvaneexp_str2hexa(const void *bytes, size_t count) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    auto *in = static_cast<const unsigned char *>(bytes);
    auto *out = static_cast<char *>(corvaneexp_malloc(2 * count + 1, 0));
    for (size_t i = 0; i < count; ++i) {
        out[2 * i] = kDigits[in[i] >> 4];
        out[2 * i + 1] = kDigits[in[i] & 0xf];
    }
    return out;
}

uint32_t ones32(uint32_t x) {
    return uint32_t(std::popcount(x));
}

uint64_t corvaneexp_count_ones(const void *bytes, size_t count) {
    auto *in = static_cast<const unsigned char *>(bytes);
    uint64_t ones = 0;
    for (size_t i = 0; i < count; ++i)
        ones += uint64_t(std::popcount(in[i]));
    return ones;
}

int32_t corvaneexp_test_positive_number(const char *string) {
    if (!string) return -1;
    uint32_t value = 0;  // wraps like the 32-bit result it becomes
    for (const char *c = string; *c; ++c) {
        if (*c < '0' || *c > '9') return -1;
        value = value * 10 + uint32_t(*c - '0');
    }
    return int32_t(value);
}

char *corvaneexp_hostname_get(void) {
    constexpr size_t kSize = 256;
    auto *name = static_cast<char *>(corvaneexp_malloc(kSize, 0));
    // One byte short of the buffer, so that a cut name stays terminated.
    if (gethostname(name, kSize - 1) != 0) memset(name, 0, kSize);
    return name;
}

void corvaneexp_set_deadline(void) {
    CV_LOG(CVLOG_WARN, "Deadline scheduler not available at compile time.");
}
