// The scan for bytes that the text outputs quote or escape, against a plain search for the
// same bytes: one such byte at every position of texts that end inside, at and past a block
// of 16, and the bytes behind a text's end ignored however they are set.
#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "special_bytes.h"
#include "text_buffer.h"

namespace corvane_host {
namespace {

// The bytes of each set, written out rather than taken from the sets under test.
constexpr std::string_view kControls(
    "\x00\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x0d\x0e\x0f"
    "\x10\x11\x12\x13\x14\x15\x16\x17\x18\x19\x1a\x1b\x1c\x1d\x1e\x1f",
    32);
const std::string kCsv = ",\"\r\n";
const std::string kJson = std::string(kControls) + "\"\\";
const std::string kAny = kJson + ",";

template <typename Set>
bool scan(const std::string &text, char behind) {
    // The text in a buffer with its spare bytes after it, all set to `behind`.
    TextBuffer b;
    char *p = b.room(text.size() + TextBuffer::kSlack);
    std::string(text.size() + TextBuffer::kSlack, behind).copy(p, text.size() + 16);
    text.copy(p, text.size());
    b.commit(p + text.size());
    return any_byte_of<Set>(b.data(), b.size());
}

template <typename Set>
void check_set(const std::string &members) {
    for (size_t n = 0; n <= 40; ++n) {
        const std::string clean(n, 'a');
        for (const char behind : members) {
            SCOPED_TRACE(testing::Message() << "length " << n << ", behind 0x" << std::hex
                                            << int(static_cast<unsigned char>(behind)));
            EXPECT_FALSE(scan<Set>(clean, behind));
        }
        for (size_t at = 0; at < n; ++at) {
            for (int c = 0; c < 256; ++c) {
                std::string text = clean;
                text[at] = static_cast<char>(c);
                const bool want = members.find(static_cast<char>(c)) != std::string::npos;
                if (scan<Set>(text, 'a') != want)
                    ADD_FAILURE() << "length " << n << ", byte 0x" << std::hex << c << " at "
                                  << std::dec << at << ": expected " << want;
            }
        }
    }
}

TEST(SpecialBytes, CsvQuotesCommaQuoteAndLineBreaks) {
    check_set<CsvSpecial>(kCsv);
}
TEST(SpecialBytes, JsonEscapesQuoteBackslashAndControls) {
    check_set<JsonSpecial>(kJson);
}
TEST(SpecialBytes, AnyOutputsBytesAreBothSets) {
    check_set<AnySpecial>(kAny);
}

}  // namespace
}  // namespace corvane_host
