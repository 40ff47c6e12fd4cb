// UTF-16LE name buffers rendered as UTF-8: end at the first zero unit, surrogate pairs joined,
// unpaired surrogates replaced.
#include <gtest/gtest.h>

#include <vector>

#include "utf16.h"

namespace {

struct Utf16Case {
    const char *what;
    std::vector<uint16_t> units;
    size_t buffer_size;  // bytes handed over; 0: exactly the units
    std::string expected;
    friend void PrintTo(const Utf16Case &c, std::ostream *os) { *os << c.what; }
};

std::vector<uint8_t> buffer_of(const Utf16Case &c) {
    std::vector<uint8_t> b(c.buffer_size ? c.buffer_size : c.units.size() * 2, 0);
    for (size_t i = 0; i < c.units.size() && 2 * i + 1 < b.size(); ++i) {
        b[2 * i] = c.units[i] & 0xff;
        b[2 * i + 1] = c.units[i] >> 8;
    }
    return b;
}

class Utf16Render : public testing::TestWithParam<Utf16Case> {};

TEST_P(Utf16Render, RendersAsUtf8) {
    const auto buf = buffer_of(GetParam());
    EXPECT_EQ(corvane_host::utf16le_to_utf8(buf.data(), buf.size()), GetParam().expected)
        << GetParam().what;
}

INSTANTIATE_TEST_SUITE_P(
    Names, Utf16Render,
    testing::Values(
        Utf16Case{
            "ascii in a zero-filled 128-byte buffer", {'a', '.', 't', 'x', 't'}, 128, "a.txt"},
        Utf16Case{"share path", {'\\', '\\', 's', 'r', 'v', '\\', 'p'}, 128, "\\\\srv\\p"},
        Utf16Case{"empty name", {}, 128, ""},
        Utf16Case{"stops at the first zero unit", {'a', 0, 'b'}, 128, "a"},
        Utf16Case{"two-byte UTF-8", {0xe9, 't', 0xe9}, 0, "\xc3\xa9t\xc3\xa9"},
        Utf16Case{"three-byte UTF-8", {0x20ac, 0x4e2d}, 0, "\xe2\x82\xac\xe4\xb8\xad"},
        Utf16Case{"surrogate pair", {0xd83d, 0xde00}, 0, "\xf0\x9f\x98\x80"},
        Utf16Case{"lone high surrogate before text", {0xd83d, 'x'}, 0, "\xef\xbf\xbdx"},
        Utf16Case{"lone high surrogate at the end", {'x', 0xd83d}, 0, "x\xef\xbf\xbd"},
        Utf16Case{"lone high surrogate before the zero", {0xd83d, 0, 'x'}, 0, "\xef\xbf\xbd"},
        Utf16Case{"lone low surrogate", {0xde00, 'y'}, 0, "\xef\xbf\xbdy"},
        Utf16Case{"two high surrogates, then a pair",
                  {0xd800, 0xd83d, 0xde00},
                  0,
                  "\xef\xbf\xbd\xf0\x9f\x98\x80"},
        Utf16Case{"a full buffer without zero ends at its end", std::vector<uint16_t>(64, 'z'), 128,
                  std::string(64, 'z')},
        Utf16Case{"odd byte count: the last byte is ignored", {'a', 'b'}, 3, "a"}));

TEST(Utf16, NullBufferIsEmpty) {
    EXPECT_EQ(corvane_host::utf16le_to_utf8(nullptr, 128), "");
}

}  // namespace
