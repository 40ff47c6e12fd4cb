// UTF-16LE name buffers rendered as UTF-8: end at the first zero unit, surrogate pairs joined,
// unpaired surrogates replaced.
#include <gtest/gtest.h>

#include <vector>

#include "utf16.h"

namespace {

TEST(Utf16, RendersAsUtf8) {
    const struct {
        std::vector<uint16_t> units;
        size_t buffer_size;  // bytes handed over; 0: exactly the units
        std::string expected;
    } cases[] = {
        {{'a', '.', 't', 'x', 't'}, 128, "a.txt"},  // in a zero-filled 128-byte buffer
        {{'\\', '\\', 's', 'r', 'v', '\\', 'p'}, 128, "\\\\srv\\p"},
        {{}, 128, ""},
        {{'a', 0, 'b'}, 128, "a"},  // stops at the first zero unit
        {{0xe9, 't', 0xe9}, 0, "\xc3\xa9t\xc3\xa9"},
        {{0x20ac, 0x4e2d}, 0, "\xe2\x82\xac\xe4\xb8\xad"},
        {{0xd83d, 0xde00}, 0, "\xf0\x9f\x98\x80"},  // a surrogate pair
        {{0xd83d, 'x'}, 0, "\xef\xbf\xbdx"},        // lone high surrogates
        {{'x', 0xd83d}, 0, "x\xef\xbf\xbd"},
        {{0xd83d, 0, 'x'}, 0, "\xef\xbf\xbd"},
        {{0xde00, 'y'}, 0, "\xef\xbf\xbdy"},  // a lone low surrogate
        {{0xd800, 0xd83d, 0xde00}, 0, "\xef\xbf\xbd\xf0\x9f\x98\x80"},
        {std::vector<uint16_t>(64, 'z'), 128, std::string(64, 'z')},  // full, no zero
        {{'a', 'b'}, 3, "a"},  // odd byte count: the last byte is ignored
        // ASCII is taken four units at a time: the first unit that is not, at each position of
        // a group, and groups cut by the end of the buffer.
        {{'a', 'b', 'c', 0xe9, 'd', 'e', 'f', 'g', 'h'},
         0,
         "abc\xc3\xa9"
         "defgh"},
        {{'a', 'b', 'c', 'd', 'e', 0, 'x', 'y'}, 128, "abcde"},
        {{0x7f, 'a', 'b', 'c', 0x80},
         0,
         "\x7f"
         "abc\xc2\x80"},
        {{'a', 'b', 'c', 'd', 0x0100, 'e'},
         0,
         "abcd\xc4\x80"
         "e"},
        {{'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 0xd83d, 0xde00}, 0, "abcdefgh\xf0\x9f\x98\x80"},
        {{'a', 'b', 'c', 'd', 'e', 'f', 'g'}, 0, "abcdefg"},
        {{0x4100, 'b', 'c', 'd'},
         0,
         "\xe4\x84\x80"
         "bcd"},  // a zero low byte is no terminator
    };
    for (const auto &c : cases) {
        std::vector<uint8_t> b(c.buffer_size ? c.buffer_size : c.units.size() * 2, 0);
        for (size_t i = 0; i < c.units.size() && 2 * i + 1 < b.size(); ++i) {
            b[2 * i] = c.units[i] & 0xff;
            b[2 * i + 1] = c.units[i] >> 8;
        }
        EXPECT_EQ(corvane_host::utf16le_to_utf8(b.data(), b.size()), c.expected) << c.expected;
    }
    EXPECT_EQ(corvane_host::utf16le_to_utf8(nullptr, 128), "");
}

// ASCII is taken eight and four units at a time: a non-ASCII unit, a unit with a zero low
// byte and a terminator at every position of a 20-unit name, into a string and in place
// into a text buffer that already holds text.
TEST(Utf16, EveryPositionOfTheWideSteps) {
    const struct {
        uint16_t unit;
        const char *utf8;  // null: the unit ends the text
    } kinds[] = {{0xe9, "\xc3\xa9"}, {0x4100, "\xe4\x84\x80"}, {0, nullptr}};
    for (const auto &kind : kinds) {
        for (size_t at = 0; at < 20; ++at) {
            std::vector<uint8_t> b;
            std::string expected;
            bool ended = false;
            for (size_t i = 0; i < 20; ++i) {
                const uint16_t u = i == at ? kind.unit : static_cast<uint16_t>('a' + i);
                b.push_back(u & 0xff);
                b.push_back(u >> 8);
                if (i == at && !kind.utf8) ended = true;
                if (!ended) expected += i == at ? kind.utf8 : std::string(1, char('a' + i));
            }
            EXPECT_EQ(corvane_host::utf16le_to_utf8(b.data(), b.size()), expected) << at;
            corvane_host::TextBuffer in_place("x=");
            corvane_host::append_utf16le_as_utf8(in_place, b.data(), b.size());
            EXPECT_EQ(in_place, "x=" + expected) << at;
        }
    }
}

}  // namespace
