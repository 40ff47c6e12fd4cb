#include "terminal_text.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

#include <fmt/format.h>

namespace smbflow {

namespace {

// The code point starting at s[i], and its length in bytes; a byte that does not start a
// well-formed sequence stands for itself.
std::pair<char32_t, size_t> decode(std::string_view s, size_t i) {
    const auto b = static_cast<unsigned char>(s[i]);
    const size_t len = b < 0x80         ? 1
                       : (b >> 5) == 6  ? 2
                       : (b >> 4) == 14 ? 3
                       : (b >> 3) == 30 ? 4
                                        : 0;
    if (len <= 1 || i + len > s.size()) return {b, 1};
    char32_t cp = b & (0x7f >> len);
    for (size_t k = 1; k < len; ++k) {
        const auto c = static_cast<unsigned char>(s[i + k]);
        if ((c & 0xc0) != 0x80) return {b, 1};
        cp = cp << 6 | (c & 0x3f);
    }
    return {cp, len};
}

bool is_control(char32_t cp) {
    return cp < 0x20 || cp == 0x7f || (cp >= 0x80 && cp <= 0x9f);
}

struct Range {
    char32_t first, last;
};

// East Asian Wide and Fullwidth blocks, and the emoji blocks terminals draw two columns wide.
constexpr Range kWide[] = {
    {0x1100, 0x115f},   {0x2e80, 0x303e},   {0x3041, 0x33ff},   {0x3400, 0x4dbf},
    {0x4e00, 0x9fff},   {0xa000, 0xa4cf},   {0xac00, 0xd7a3},   {0xf900, 0xfaff},
    {0xfe30, 0xfe4f},   {0xff00, 0xff60},   {0xffe0, 0xffe6},   {0x1f300, 0x1f64f},
    {0x1f900, 0x1f9ff}, {0x20000, 0x2fffd}, {0x30000, 0x3fffd},
};

// Combining marks that take no column of their own.
constexpr Range kZero[] = {{0x0300, 0x036f}, {0x200b, 0x200f}, {0xfe00, 0xfe0f}};

bool in(const Range *first, const Range *last, char32_t cp) {
    for (; first != last; ++first)
        if (cp >= first->first && cp <= first->last) return true;
    return false;
}

}  // namespace

std::string visible_text(std::string_view s) {
    // Most texts are printable ASCII with no backslash: they are shown as they are.
    if (std::all_of(s.begin(), s.end(), [](char c) {
            const auto b = static_cast<unsigned char>(c);
            return b >= 0x20 && b < 0x7f && b != '\\';
        }))
        return std::string(s);
    std::string out;
    out.reserve(s.size());
    // Whether the text from `at` on starts what the table reads as an escape after a
    // backslash: 'x' and two hex digits, 'u' and four, or a control character (which is
    // written as \xNN or \uNNNN).
    const auto escape_follows = [&](size_t at) {
        if (at >= s.size()) return false;
        const auto [cp, len] = decode(s, at);
        const auto hex_after = [&](size_t n) {
            return at + 1 + n <= s.size() &&
                   std::all_of(s.begin() + at + 1, s.begin() + at + 1 + n,
                               [](char c) { return isxdigit(static_cast<unsigned char>(c)) != 0; });
        };
        if (cp == 'x') return hex_after(2);
        if (cp == 'u') return hex_after(4);
        return ((len == 1 && cp < 0x80) || len == 2) && is_control(cp);
    };
    for (size_t i = 0; i < s.size();) {
        // A run of backslashes right before an escape, or before what would read as one, is
        // doubled: an odd run then ends in an escape, an even one in text, so "\x1b" in a name
        // and an escaped ESC look different. Other backslashes (Windows paths, \\server) stay.
        if (s[i] == '\\') {
            size_t end = i;
            while (end < s.size() && s[end] == '\\')
                ++end;
            out.append((end - i) * (escape_follows(end) ? 2 : 1), '\\');
            i = end;
            continue;
        }
        const auto [cp, len] = decode(s, i);
        if (len == 1 && cp < 0x80 && is_control(cp))
            out += fmt::format("\\x{:02x}", static_cast<unsigned>(cp));
        else if (len == 2 && is_control(cp))
            out += fmt::format("\\u{:04x}", static_cast<unsigned>(cp));
        else
            out.append(s.substr(i, len));
        i += len;
    }
    return out;
}

size_t display_width(std::string_view s) {
    size_t width = 0;
    for (size_t i = 0; i < s.size();) {
        // ASCII, most of every table, takes a column a byte: eight bytes at a time while none
        // has its top bit set, then a byte at a time.
        if (i + 8 <= s.size()) {
            uint64_t eight;
            memcpy(&eight, s.data() + i, 8);
            if (!(eight & 0x8080808080808080ull)) {
                width += 8;
                i += 8;
                continue;
            }
        }
        if (static_cast<unsigned char>(s[i]) < 0x80) {
            ++width;
            ++i;
            continue;
        }
        const auto [cp, len] = decode(s, i);
        i += len;
        if (in(std::begin(kZero), std::end(kZero), cp)) continue;
        width += in(std::begin(kWide), std::end(kWide), cp) ? 2 : 1;
    }
    return width;
}

}  // namespace smbflow
