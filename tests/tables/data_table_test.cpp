// The data table: replacing inserts and saves, segment accounting and removal as sequences of
// calls, and the continuation call that appends a segment and hands out a completed message.
#include <gtest/gtest.h>

#include <array>
#include <vector>

#include "smb_data_table.h"
#include "table_test_support.h"

using namespace tables_test;

namespace {

constexpr uint32_t kAddr = 0xc0a80a0b;
constexpr uint16_t kPort = 51000;
constexpr uint32_t U = 0xeeeeeeee;  // an output the lookup left untouched

// Bytes [from, from + count) of every test message.
std::vector<uint8_t> message_bytes(size_t from, size_t count) {
    std::vector<uint8_t> v(count);
    for (size_t i = 0; i < count; ++i)
        v[i] = uint8_t((from + i) * 7 + 3);
    return v;
}

// What datatable_get_ids reports; outputs start as U.
struct Ids {
    int32_t result;
    uint32_t tree_id = U;
    uint64_t file_id = U;
    uint32_t total_length = U, saved_length = U, segments = U, segment_bytes = U;
    bool operator==(const Ids &) const = default;
};

// K = (kAddr, kPort, request), R = K as a response, C = a key on K's slot found by search.
enum class Key { K, R, C };
enum class Op { insert, save, update, remove };
using enum Key;
using enum Op;

struct Step {
    Op op;
    Key key;
    uint32_t a = 0, b = 0, c = 0;  // insert: tree, file; save: total, length, counter;
                                   // update: saved length, counter
};

class DataTable : public ::testing::Test {
  protected:
    void SetUp() override {
        t = datatable_create(1024);
        collider_addr = uint32_t(colliding_id(t, kAddr, [](uint64_t a) {
            return le({{a, 4}, {kPort, 2}, {0, 1}});
        }));
    }
    void TearDown() override { datatable_free(t); }

    std::pair<uint32_t, uint8_t> key(Key k) const {
        if (k == Key::C) return {collider_addr, 0};
        return {kAddr, k == Key::R};
    }
    void run(const Step &s) {
        auto [addr, dir] = key(s.key);
        const auto bytes = message_bytes(0, s.b);
        switch (s.op) {
            case Op::insert:
                datatable_insert(t, s.a, s.b, addr, kPort, dir);
                break;
            case Op::save:
                datatable_save_data(t, addr, kPort, dir, s.a, bytes.data(), s.b, s.c);
                break;
            case Op::update:
                datatable_update_data_len(t, addr, kPort, dir, s.a, s.b);
                break;
            case Op::remove:
                datatable_remove_record(t, addr, kPort, dir);
                break;
        }
    }
    Ids get(Key k, uint8_t **buffer = nullptr) {
        auto [addr, dir] = key(k);
        Ids i;
        i.result = datatable_get_ids(t, addr, kPort, dir, &i.tree_id, &i.file_id, &i.total_length,
                                     buffer, &i.saved_length, &i.segments, &i.segment_bytes);
        return i;
    }

    datatable *t = nullptr;
    uint32_t collider_addr = 0;
};

struct Sequence {
    const char *name;
    std::vector<Step> steps;
    std::vector<std::pair<Key, Ids>> expect;
};

class DataTableSequence : public DataTable, public ::testing::WithParamInterface<Sequence> {};

TEST_P(DataTableSequence, LookupsAfterTheSteps) {
    for (const Step &s : GetParam().steps)
        run(s);
    for (const auto &[k, expected] : GetParam().expect) {
        SCOPED_TRACE(int(k));
        uint8_t *buffer = nullptr;
        const Ids got = get(k, &buffer);
        EXPECT_EQ(got, expected);
        EXPECT_EQ(buffer != nullptr, expected.result == 1);
        if (buffer && got.segments == 1) {  // the saved bytes, zeros behind them
            auto held = message_bytes(0, got.saved_length);
            held.resize(got.total_length);
            EXPECT_EQ(std::vector<uint8_t>(buffer, buffer + got.total_length), held);
        }
    }
}

// clang-format off
const Sequence kSequences[] = {
    {"Empty", {}, {{K, {-1}}}},
    {"SaveHandsOutTheBufferNotTheIds", {{save, K, 300, 100, 150}},
     {{K, {1, U, U, 300, 100, 1, 150}}, {R, {-1}}}},
    {"InsertHandsOutTheIds", {{insert, R, 7, 9}}, {{R, {0, 7, 9, 0, 0, U, U}}, {K, {-1}}}},
    {"InsertOverABufferFreesIt", {{save, K, 300, 100, 1}, {insert, K, 7, 9}},
     {{K, {0, 7, 9, 0, 0, U, U}}}},
    {"SaveReplacesTheSameKeysBuffer",
     {{save, K, 300, 100, 1}, {update, K, 200, 5}, {save, K, 400, 50, 2}},
     {{K, {1, U, U, 400, 50, 1, 2}}}},
    {"InsertReplacesTheSameKeysIds", {{insert, K, 1, 2}, {insert, K, 3, 4}},
     {{K, {0, 3, 4, 0, 0, U, U}}}},
    {"UpdatesAccumulateSavedLengthIsTheLastGiven",
     {{save, K, 1000, 100, 150}, {update, K, 300, 60}, {update, K, 500, 70}},
     {{K, {1, U, U, 1000, 500, 3, 280}}}},
    {"SegmentBytesWrap", {{save, K, 1000, 100, 0xfffffff0u}, {update, K, 200, 0x20}},
     {{K, {1, U, U, 1000, 200, 2, 0x10}}}},
    {"RemovedKeyIsGoneAndUpdatesNothing",
     {{save, K, 300, 100, 1}, {insert, R, 5, 6}, {remove, K}, {remove, K}, {update, K, 200, 1}},
     {{K, {-1}}, {R, {0, 5, 6, 0, 0, U, U}}}},
    {"CollidingSaveReplacesTheOldKey", {{save, K, 300, 100, 1}, {save, C, 600, 10, 3}},
     {{K, {-1}}, {C, {1, U, U, 600, 10, 1, 3}}}},
    {"CollidingInsertReplacesABuffer", {{save, K, 300, 100, 1}, {insert, C, 8, 8}},
     {{K, {-1}}, {C, {0, 8, 8, 0, 0, U, U}}}},
    {"CollidingUpdateAndRemoveChangeNothing",
     {{save, K, 300, 100, 1}, {update, C, 200, 9}, {remove, C}},
     {{K, {1, U, U, 300, 100, 1, 1}}, {C, {-1}}}},
    {"SaveLongerThanTotalIsClipped", {{save, K, 50, 100, 1}}, {{K, {1, U, U, 50, 50, 1, 1}}}},
};
// clang-format on

INSTANTIATE_TEST_SUITE_P(Steps, DataTableSequence, ::testing::ValuesIn(kSequences),
                         [](const auto &info) { return std::string(info.param.name); });

// datatable_continue: segments after a save of `saved` of `total` bytes (byte counter 100),
// each segment's counter 40.
struct ContinueCase {
    const char *name;
    uint32_t total, saved;
    std::vector<uint32_t> segments;
    int result;                // of the last segment
    uint32_t saved_after = 0;  // result 1: the entry's saved length afterwards
};

class DataTableContinue : public DataTable, public ::testing::WithParamInterface<ContinueCase> {};

TEST_P(DataTableContinue, AppendsClipsAndCompletes) {
    const ContinueCase &c = GetParam();
    run({Op::save, Key::R, c.total, c.saved, 100});
    std::array<uint8_t, kDataMessageMax> message;
    message.fill(0xee);
    datatable_continuation r{};
    uint32_t pos = c.saved;
    for (uint32_t n : c.segments) {
        r = datatable_continue(t, kAddr, kPort, 1, message_bytes(pos, n), 40, message);
        pos += n;
    }
    ASSERT_EQ(r.result, c.result);
    const uint32_t before = uint32_t(c.segments.size());  // segments stored before the last
    if (c.result == 2) {
        const uint32_t held = std::min(c.total, kDataMessageMax);
        EXPECT_EQ(r.total_length, held);
        EXPECT_EQ(r.segments, before);
        EXPECT_EQ(r.segment_bytes, 100 + 40 * (before - 1));
        auto expected = message_bytes(0, held);
        expected.resize(message.size(), 0xee);  // nothing written behind the message
        EXPECT_EQ(std::vector<uint8_t>(message.begin(), message.end()), expected);
        EXPECT_EQ(get(Key::R).result, -1);  // removed
    } else {
        EXPECT_EQ(r.total_length, c.total);
        EXPECT_EQ(get(Key::R),
                  (Ids{1, U, U, c.total, c.saved_after, before + 1, 100 + 40 * before}));
        EXPECT_EQ(message[0], 0xee);  // nothing handed out before completion
    }
}

INSTANTIATE_TEST_SUITE_P(
    Segments, DataTableContinue,
    ::testing::Values(ContinueCase{"StillIncomplete", 300, 100, {150}, 1, 250},
                      ContinueCase{"EmptyPayload", 300, 100, {0}, 1, 100},
                      ContinueCase{"ExactlyComplete", 300, 100, {200}, 2},
                      ContinueCase{"SurplusIsDiscarded", 300, 100, {500}, 2},
                      ContinueCase{"LargestInThreeSegments", 8192, 3000, {3000, 2192}, 2},
                      ContinueCase{"LargestWithSurplus", 8192, 8000, {1000}, 2},
                      ContinueCase{"LongerThanTheCopyIsCut", 9000, 100, {8900}, 2}),
    [](const auto &info) { return std::string(info.param.name); });

TEST_F(DataTable, ContinueWithoutEntryOrOnAnEntryWithIdsOnly) {
    std::array<uint8_t, kDataMessageMax> message{};
    const std::array<uint8_t, 10> payload{};
    EXPECT_EQ(datatable_continue(t, kAddr, kPort, 0, payload, 1, message).result, -1);
    run({Op::insert, Key::K, 7, 9});
    for (int i = 0; i < 2; ++i) {  // the entry stays for every later segment
        const auto r = datatable_continue(t, kAddr, kPort, 0, payload, 1, message);
        EXPECT_EQ(r.result, 0);
        EXPECT_EQ(r.tree_id, 7u);
        EXPECT_EQ(r.file_id, 9u);
        EXPECT_EQ(r.total_length, 0u);
    }
}

}  // namespace
