// Name buffers as the plug-in keeps them: 128 bytes of UTF-16LE, zero-filled behind the name.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

namespace testnames {

using Name = std::array<uint8_t, 128>;

// An ASCII name in UTF-16LE.
inline Name utf16_name(std::string_view ascii) {
    Name n{};
    for (size_t i = 0; i < ascii.size() && 2 * i + 1 < n.size(); ++i)
        n[2 * i] = uint8_t(ascii[i]);
    return n;
}

// The first 128 bytes of a byte string, or the 128 bytes at an address (none for null).
inline Name name_of(const std::vector<uint8_t> &b) {
    Name n{};
    std::memcpy(n.data(), b.data(), std::min<size_t>(b.size(), n.size()));
    return n;
}
inline Name name_of(const void *p) {
    Name n{};
    if (p) std::memcpy(n.data(), p, n.size());
    return n;
}

}  // namespace testnames
