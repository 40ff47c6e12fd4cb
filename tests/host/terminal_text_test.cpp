// What the text table shows of names that a client chose.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

#include "terminal_text.h"
#include "writers.h"

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
        // The four characters \x1b in a name differ from an escaped ESC; path separators stay.
        {"\\x1b", "\\\\x1b"},
        {"\\u009b", "\\\\u009b"},
        {"\\\x1b", "\\\\\\x1b"},
        {"\\\\x1b", "\\\\\\\\x1b"},  // an even run before an escape-like text
        {"\\\\", "\\\\"},
        {"\\\\server\\share", "\\\\server\\share"},
        {"dir\\sub\\file.txt", "dir\\sub\\file.txt"},
        {"share\\xray\\u1", "share\\xray\\u1"},  // no escape could start here
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

// A file name with an escape sequence and line breaks stays one visible row of the table.
TEST(TerminalText, TableWritesHostileNamesAsOneVisibleRow) {
    Row row(columns().size());
    for (size_t k = 0; k < row.size(); ++k)
        if (std::string(columns()[k].name) == "smb_file_name") row.set(k, "a\x1b]2;pwn\x07\r\nb");
    char *text = nullptr;
    size_t size = 0;
    FILE *out = open_memstream(&text, &size);
    auto writer = make_writer(Format::Text, out, false, {});
    writer->write(row);
    writer->finish();
    fclose(out);
    const std::string table(text, size);
    free(text);
    EXPECT_NE(table.find("a\\x1b]2;pwn\\x07\\x0d\\x0ab"), std::string::npos) << table;
    EXPECT_EQ(std::count(table.begin(), table.end(), '\n'), 2) << "the header and one row";
    EXPECT_EQ(table.find('\x1b'), std::string::npos);
}

}  // namespace
}  // namespace smbflow
