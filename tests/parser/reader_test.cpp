// The bounds of the parser's byte reader (its byte orders are every parser test's).
#include <gtest/gtest.h>

#include <vector>

#include "smb_reader.h"

namespace {

TEST(ByteReader, NeverReadsPastItsBytes) {
    const std::vector<uint8_t> b{0xff, 0xff, 0xff, 0xff};
    const smb::ByteReader r(b.data(), 3);  // the fourth byte is not ours
    EXPECT_EQ(r.le32(0), 0u);
    EXPECT_EQ(r.be32(0), 0u);
    EXPECT_EQ(r.le16(2), 0u);
    EXPECT_EQ(r.u8(3), 0u);
    EXPECT_EQ(r.le64(SIZE_MAX - 2), 0u);  // offset + width overflows
    EXPECT_TRUE(r.bytes(1, 3).empty());
    EXPECT_EQ(r.bytes(1, 2).size(), 2u);
    EXPECT_EQ(r.from(3).size(), 0u);
    EXPECT_EQ(r.from(4).size(), 0u);
    EXPECT_EQ(r.first(10).size(), 3u);
    EXPECT_EQ(smb::ByteReader(nullptr, 10).size(), 0u);
}

}  // namespace
