#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "crc.h"
#include "crc_fixed.h"
#include "crc_paths.h"
#include "cv_log.h"

namespace {

const std::string kDigits = "123456789";

using Crc32Path = uint32_t (*)(const uint8_t *, uint64_t, uint32_t);

uint32_t exported(const uint8_t *p, uint64_t n, uint32_t seed) {
    return corvaneexp_crc32c(p, n, seed);
}
uint32_t logging(const uint8_t *p, uint64_t n, uint32_t seed) {
    return CvLog_crc32c(p, n, seed);
}

struct PathCase {
    const char *name;
    Crc32Path fn;
    bool needs_sse42;
};

class Crc32cPaths : public testing::TestWithParam<PathCase> {
  protected:
    void SetUp() override {
        if (GetParam().needs_sse42 && !cv::crc::cpu_has_sse42()) GTEST_SKIP() << "no SSE4.2";
    }
};

TEST_P(Crc32cPaths, ReferenceValuesAtEveryAlignment) {
    alignas(16) uint8_t buf[32];
    for (size_t offset = 0; offset < 16; ++offset) {
        std::memcpy(buf + offset, kDigits.data(), kDigits.size());
        EXPECT_EQ(GetParam().fn(buf + offset, 9, 0xFFFFFFFFu), 0xE3069283u) << offset;
        EXPECT_EQ(GetParam().fn(buf + offset, 9, 0), 0xA71C05DFu) << offset;
    }
}

TEST_P(Crc32cPaths, EmptyInputIsComplementOfSeed) {
    EXPECT_EQ(GetParam().fn(nullptr, 0, 0), 0xFFFFFFFFu);
    EXPECT_EQ(GetParam().fn(nullptr, 0, 0x12345678u), ~0x12345678u);
}

TEST_P(Crc32cPaths, ChainsByComplementedSeed) {
    auto *p = reinterpret_cast<const uint8_t *>(kDigits.data());
    uint32_t first = GetParam().fn(p, 5, 0xFFFFFFFFu);
    EXPECT_EQ(GetParam().fn(p + 5, 4, ~first), 0xE3069283u);
}

INSTANTIATE_TEST_SUITE_P(All, Crc32cPaths,
                         testing::Values(PathCase{"hardware", cv::crc::crc32c_hw, true},
                                         PathCase{"software", cv::crc::crc32c_sw, false},
                                         PathCase{"exported", exported, false},
                                         PathCase{"logging", logging, false}),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(Crc32c, HardwareAndSoftwareAgreeForEveryLengthAndAlignment) {
    if (!cv::crc::cpu_has_sse42()) GTEST_SKIP() << "no SSE4.2";
    std::mt19937_64 rng(20261123);
    std::vector<uint8_t> buf(600);
    for (auto &b : buf)
        b = static_cast<uint8_t>(rng());
    for (size_t offset = 0; offset < 8; ++offset) {
        for (size_t len = 0; len <= 520; ++len) {
            uint32_t seed = static_cast<uint32_t>(rng());
            ASSERT_EQ(cv::crc::crc32c_hw(buf.data() + offset, len, seed),
                      cv::crc::crc32c_sw(buf.data() + offset, len, seed))
                << "offset " << offset << " length " << len;
        }
    }
}

struct Crc64Case {
    std::vector<uint8_t> bytes;
    uint64_t seed;
    uint64_t expected;
};

class Crc64Reference : public testing::TestWithParam<Crc64Case> {};

TEST_P(Crc64Reference, Value) {
    const auto &c = GetParam();
    EXPECT_EQ(corvaneexp_crc64(c.bytes.data(), int32_t(c.bytes.size()), c.seed), c.expected);
}

std::vector<uint8_t> digits() {
    return {kDigits.begin(), kDigits.end()};
}

INSTANTIATE_TEST_SUITE_P(
    Values, Crc64Reference,
    testing::Values(Crc64Case{digits(), 0, 0xC0FFA656E4ABEF82ull},
                    Crc64Case{digits(), ~0ull, 0x81C973816219523Full},
                    Crc64Case{{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}, 0, 0x3E7DEDE5B3880C23ull},
                    Crc64Case{{1, 0, 0, 0}, 0, 0xFE29373A8E2FBBB3ull},
                    Crc64Case{std::vector<uint8_t>(8, 0), 0, 0}, Crc64Case{{}, 0x1234, 0x1234}));

TEST(Crc64, SplitIntoTwoCallsGivesAnotherValue) {
    auto d = digits();
    uint64_t first = corvaneexp_crc64(d.data(), 5, 0);
    EXPECT_EQ(corvaneexp_crc64(d.data() + 5, 4, first), 0x48C332F21DEC618Cull);
}

// The inline forms that fold integers must give what the general functions give over the same
// little-endian bytes, for every key length the tables use and across the hash's word/byte split.
template <size_t N>
void expect_fixed_matches(const uint8_t *pattern) {
    std::array<uint8_t, N> key;
    std::memcpy(key.data(), pattern, N);
    for (uint32_t seed : {0u, 0xFFFFFFFFu, 0x9E3779B9u})
        EXPECT_EQ(cv::crc::crc32c_fixed(key, seed), corvaneexp_crc32c(key.data(), N, seed))
            << "length " << N << " seed " << seed;
}

TEST(Crc32cFixed, EveryKeyLengthMatchesTheGeneralFunction) {
    uint8_t pattern[24];
    for (size_t i = 0; i < sizeof pattern; ++i)
        pattern[i] = uint8_t(0xF1 - 37 * i);
    [&]<size_t... N>(std::index_sequence<N...>) {
        (expect_fixed_matches<N + 1>(pattern), ...);
    }
    (std::make_index_sequence<sizeof pattern>{});
}

TEST(Crc64Steps, IntegerFoldsMatchTheByteFunction) {
    const struct {
        uint64_t seed;
        uint32_t word;
        uint64_t wide;
    } cases[] = {{0, 0, 0},
                 {~0ull, 0xFFFFFFFFu, ~0ull},
                 {0xC0FFA656E4ABEF82ull, 0x00000001u, 0x8000000000000001ull},
                 {0x1234, 0xA1B2C3D4u, 0x0102030405060708ull}};
    for (const auto &c : cases) {
        uint8_t bytes[12];
        for (int i = 0; i < 4; ++i)
            bytes[i] = uint8_t(c.word >> (8 * i));
        for (int i = 0; i < 8; ++i)
            bytes[4 + i] = uint8_t(c.wide >> (8 * i));
        // Four bytes: byte steps only. Eight: one word step, then bytes. Twelve: two, then bytes.
        EXPECT_EQ(cv::crc::crc64_tail_bytes(c.seed, c.word), corvaneexp_crc64(bytes, 4, c.seed));
        uint64_t eight = cv::crc::crc64_word_step(c.seed, uint32_t(c.wide));
        eight = cv::crc::crc64_tail_bytes(eight, uint32_t(c.wide >> 32));
        EXPECT_EQ(eight, corvaneexp_crc64(bytes + 4, 8, c.seed));
        uint64_t twelve = cv::crc::crc64_word_step(c.seed, c.word);
        twelve = cv::crc::crc64_word_step(twelve, uint32_t(c.wide));
        twelve = cv::crc::crc64_tail_bytes(twelve, uint32_t(c.wide >> 32));
        EXPECT_EQ(twelve, corvaneexp_crc64(bytes, 12, c.seed));
    }
}

// The four-byte tail is folded into table lookups: every byte value of the word, against every
// byte of the register that reaches an index, each on a seed with its other bits set.
TEST(Crc64Steps, TailLookupsMatchTheByteLoop) {
    for (int pos = 0; pos < 8; ++pos)
        for (uint32_t v = 0; v < 256; ++v) {
            const uint64_t seed = (uint64_t{v} << (8 * pos)) ^ 0x5A5A5A5A5A5A5A5Aull;
            const uint32_t word = pos < 4 ? v << (8 * pos) : 0xC3u * v;
            const uint8_t bytes[4] = {uint8_t(word), uint8_t(word >> 8), uint8_t(word >> 16),
                                      uint8_t(word >> 24)};
            ASSERT_EQ(cv::crc::crc64_tail_bytes(seed, word), corvaneexp_crc64(bytes, 4, seed))
                << pos << " " << v;
        }
}

}  // namespace
