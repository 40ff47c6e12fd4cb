// What the text table shows of names that a client chose.
#include <gtest/gtest.h>

#include "terminal_text.h"

namespace smbflow {
namespace {

TEST(TerminalText, ControlCharactersBecomeVisibleEscapes) {
    const std::pair<std::string, std::string> cases[] = {
        {"plain.txt", "plain.txt"},
        {"a\x1b[2Jb", "a\\x1b[2Jb"},  // ESC: a screen clear never reaches the terminal
        {"line\r\nnext\a", "line\\x0d\\x0anext\\x07"},  // one record stays on one line
        {std::string("nul\0x", 5), "nul\\x00x"},
        {"del\x7f", "del\\x7f"},
        {"c1\xc2\x9b"
         "31m",
         "c1\\u009b31m"},  // the one-character CSI of the C1 set
        {"Gr\xc3\xbc\xc3\x9f"
         "e",
         "Gr\xc3\xbc\xc3\x9f"
         "e"},                           // U+00FC, U+00DF stay as they are
        {"cut\xe6\x97", "cut\xe6\x97"},  // a truncated sequence is left alone
    };
    for (const auto &[in, out] : cases)
        EXPECT_EQ(visible_text(in), out) << in;
}

TEST(TerminalText, DisplayWidthCountsColumns) {
    const std::pair<std::string, size_t> cases[] = {
        {"abc", 3},
        {"Gr\xc3\xbc\xc3\x9f"
         "e",
         5},
        {"\xe6\x97\xa5\xe6\x9c\xac", 4},  // two CJK ideographs
        {"\xf0\x9f\x98\x80", 2},          // an emoji
        {"e\xcc\x81", 1},                 // e and a combining acute accent
    };
    for (const auto &[in, width] : cases)
        EXPECT_EQ(display_width(in), width) << in;
}

}  // namespace
}  // namespace smbflow
