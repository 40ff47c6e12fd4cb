// The four record writers: binary and text forms, byte order, bad arguments.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "field_output.h"
#include "host_interface.h"

namespace {

using corvane_host::FieldOutput;

TEST(RecordWriters, NumbersInBinaryFollowTheRequestedByteOrder) {
    const uint32_t word = 0x000020ff;
    FieldOutput host_order, network_order;
    EXPECT_EQ(record_universal_get_num(&host_order, &word, 4, 0, corvane_host::kByteOrderHost), 4);
    EXPECT_EQ(
        record_universal_get_num(&network_order, &word, 4, 0, corvane_host::kByteOrderNetwork), 4);
    EXPECT_EQ(host_order.binary, (std::vector<uint8_t>{0xff, 0x20, 0x00, 0x00}));
    EXPECT_EQ(network_order.binary, (std::vector<uint8_t>{0x00, 0x00, 0x20, 0xff}));
    const uint8_t byte = 0x81;
    FieldOutput one;
    EXPECT_EQ(record_universal_get_num(&one, &byte, 1, 5, 1),
              1);  // fifth argument 1 as plug-ins pass it
    EXPECT_EQ(one.binary, std::vector<uint8_t>{0x81});
    EXPECT_EQ(one.writes, 1u);
}

TEST(RecordWriters, NumbersAsTextAreDecimal) {
    struct Case {
        uint64_t value;
        uint32_t size;
        const char *text;
    } cases[] = {{0xff, 1, "255"},
                 {0x3f, 1, "63"},
                 {0x000020ff, 4, "8447"},
                 {0xffffffff, 4, "4294967295"},
                 {0x0102, 2, "258"},
                 {~0ull, 8, "18446744073709551615"},
                 // one and two digits, and the first of three; only `size` bytes are read
                 {0, 8, "0"},
                 {9, 1, "9"},
                 {10, 2, "10"},
                 {99, 4, "99"},
                 {100, 8, "100"},
                 {0xff0a, 1, "10"},
                 {0xffff0063, 2, "99"},
                 {0xffffffff00000064, 4, "100"}};
    for (const Case &c : cases) {
        FieldOutput out;
        EXPECT_EQ(record_universal_get_txt_num(&out, &c.value, c.size, 0, 0),
                  static_cast<int>(strlen(c.text)));
        EXPECT_EQ(out.text, c.text) << c.value;
    }
}

TEST(RecordWriters, ArraysAreCopiedWholeAndStringsRenderedAsUtf8) {
    uint8_t name[128] = {};
    const char16_t text[] = u"a\u00e9";
    for (size_t i = 0; i < 2; ++i) {
        name[2 * i] = text[i] & 0xff;
        name[2 * i + 1] = text[i] >> 8;
    }
    FieldOutput bin, txt;
    EXPECT_EQ(record_universal_get_array(&bin, name, 128, 0, 0), 128);
    ASSERT_EQ(bin.binary.size(), 128u);
    EXPECT_EQ(0, memcmp(bin.binary.data(), name, 128));
    EXPECT_EQ(record_universal_get_txt_string(&txt, name, 128, 0, 0), 3);
    EXPECT_EQ(txt.text, "a\xc3\xa9");
}

// One output reused from record to record, as the exporter reuses a field's: the string
// writer keeps its last conversion, which must never stand in for different bytes (same size,
// a change past the first zero unit, a text appended after another).
TEST(RecordWriters, StringsOfSuccessiveRecordsAreEachTheirOwn) {
    auto units = [](const char *ascii, size_t size) {
        std::vector<uint8_t> b(size, 0);
        for (size_t i = 0; ascii[i] && 2 * i < size; ++i)
            b[2 * i] = static_cast<uint8_t>(ascii[i]);
        return b;
    };
    struct Write {
        std::vector<uint8_t> bytes;
        bool keep;  // appended to the text before instead of starting a record
        const char *want;
    } writes[] = {
        {units("root", 8), false, "root"},
        {units("root", 8), false, "root"},
        {units("rook", 8), false, "rook"},
        {units("rook", 8), true, "rookrook"},
        {units("ab", 128), false, "ab"},
        {units("ab", 128), false, "ab"},
        {units("abc", 128), false, "abc"},
        {units("SMBGEN", 12), false, "SMBGEN"},
        {units("", 2), false, ""},
        {units("SMBGEN", 12), false, "SMBGEN"},
        {units("0x00000000", 20), false, "0x00000000"},
        {units("0x00000001", 20), false, "0x00000001"},
        {units("abcdefghijklmnop", 32), false, "abcdefghijklmnop"},
        {units("abcdefghXjklmnop", 32), false, "abcdefghXjklmnop"},
        {std::vector<uint8_t>(300, 'x'), false, ""},
    };
    writes[3].bytes[7] = 0x01;  // the last unit's high byte alone differs: U+016B
    writes[3].want = "rookroo\xc5\xab";
    writes[5].bytes[100] = 'z';  // "ab" again, with other bytes after the zero unit
    std::string long_x;
    for (int i = 0; i < 150; ++i)
        long_x += "\xe7\xa1\xb8";  // U+7878, as 0x78 0x78 reads
    writes[std::size(writes) - 1].want = long_x.c_str();
    FieldOutput out;
    for (const Write &w : writes) {
        if (!w.keep) out.clear();
        const size_t before = out.text.size();
        const int n = record_universal_get_txt_string(&out, w.bytes.data(),
                                                      static_cast<uint32_t>(w.bytes.size()), 0, 0);
        EXPECT_EQ(out.text, w.want);
        EXPECT_EQ(n, static_cast<int>(out.text.size() - before));
    }
}

TEST(RecordWriters, RejectUnusableArguments) {
    const uint32_t v = 1;
    FieldOutput out;
    EXPECT_EQ(record_universal_get_num(nullptr, &v, 4, 0, 0), -1);
    EXPECT_EQ(record_universal_get_num(&out, nullptr, 4, 0, 0), -1);
    EXPECT_EQ(record_universal_get_num(&out, &v, 3, 0, 0), -1);
    EXPECT_EQ(record_universal_get_txt_num(&out, &v, 0, 0, 0), -1);
    EXPECT_EQ(record_universal_get_txt_string(&out, nullptr, 128, 0, 0), -1);
    EXPECT_EQ(record_universal_get_array(nullptr, &v, 4, 0, 0), -1);
    EXPECT_EQ(out.writes, 0u);
    EXPECT_TRUE(out.binary.empty());
}

}  // namespace
