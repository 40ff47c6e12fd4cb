#include "utf16.h"

namespace corvane_host {

namespace {

constexpr uint32_t kReplacement = 0xfffd;

bool is_high_surrogate(uint32_t u) {
    return u >= 0xd800 && u <= 0xdbff;
}
bool is_low_surrogate(uint32_t u) {
    return u >= 0xdc00 && u <= 0xdfff;
}

}  // namespace

void append_utf8(std::string &out, uint32_t cp) {
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xc0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3f));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xe0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3f));
        out += static_cast<char>(0x80 | (cp & 0x3f));
    } else {
        out += static_cast<char>(0xf0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3f));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3f));
        out += static_cast<char>(0x80 | (cp & 0x3f));
    }
}

std::string utf16le_to_utf8(const uint8_t *buf, size_t size) {
    std::string out;
    if (!buf) return out;
    const size_t units = size / 2;
    auto unit = [buf](size_t i) -> uint32_t { return buf[2 * i] | (buf[2 * i + 1] << 8); };
    for (size_t i = 0; i < units; ++i) {
        const uint32_t u = unit(i);
        if (u == 0) break;
        if (is_high_surrogate(u)) {
            if (i + 1 < units && is_low_surrogate(unit(i + 1))) {
                append_utf8(out, 0x10000 + ((u - 0xd800) << 10) + (unit(i + 1) - 0xdc00));
                ++i;
            } else {
                append_utf8(out, kReplacement);  // the next unit is looked at on its own
            }
        } else if (is_low_surrogate(u)) {
            append_utf8(out, kReplacement);
        } else {
            append_utf8(out, u);
        }
    }
    return out;
}

}  // namespace corvane_host
