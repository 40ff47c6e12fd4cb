// The data table: replacing inserts and saves, segment accounting, removal, and the
// continuation call that appends a segment and hands out a completed message.
#include <gtest/gtest.h>

#include <array>
#include <vector>

#include "smb_data_table.h"
#include "table_test_support.h"

using namespace tables_test;

namespace {

constexpr uint32_t kAddr = 0xc0a80a0b;
constexpr uint16_t kPort = 51000;

// Byte i of every test message.
uint8_t message_byte(size_t i) {
    return uint8_t(i * 7 + 3);
}

std::vector<uint8_t> message_bytes(size_t from, size_t count) {
    std::vector<uint8_t> v(count);
    for (size_t i = 0; i < count; ++i)
        v[i] = message_byte(from + i);
    return v;
}

// Everything datatable_get_ids reports, outputs preset to a marker so that untouched ones show.
struct Ids {
    int32_t result;
    uint32_t tree_id = 0xeeeeeeee;
    uint64_t file_id = 0xeeeeeeee;
    uint32_t total_length = 0xeeeeeeee;
    uint8_t *buffer = nullptr;
    uint32_t saved_length = 0xeeeeeeee;
    uint32_t segments = 0xeeeeeeee;
    uint32_t segment_bytes = 0xeeeeeeee;
};

constexpr uint32_t kUntouched = 0xeeeeeeee;

Ids get_ids(datatable *t, uint32_t addr, uint16_t port, uint8_t dir) {
    Ids ids;
    ids.result =
        datatable_get_ids(t, addr, port, dir, &ids.tree_id, &ids.file_id, &ids.total_length,
                          &ids.buffer, &ids.saved_length, &ids.segments, &ids.segment_bytes);
    return ids;
}

class DataTable : public ::testing::Test {
  protected:
    void SetUp() override {
        t = datatable_create(1024);
        // An address whose key shares the slot of (kAddr, kPort, 0), found by search.
        collider_addr =
            uint32_t(colliding_id(t, t->index_of(data_key{kAddr, kPort, 0}), kAddr, [](uint64_t a) {
                return data_key{uint32_t(a), kPort, 0};
            }));
    }
    void TearDown() override { datatable_free(t); }

    void save(uint32_t addr, uint8_t dir, uint32_t total, uint32_t length, uint32_t counter) {
        const auto bytes = message_bytes(0, length);
        datatable_save_data(t, addr, kPort, dir, total, bytes.data(), length, counter);
    }

    datatable *t = nullptr;
    uint32_t collider_addr = 0;
};

TEST_F(DataTable, EmptyTableFindsNothingAndWritesNothing) {
    const Ids ids = get_ids(t, kAddr, kPort, 0);
    EXPECT_EQ(ids.result, -1);
    EXPECT_EQ(ids.tree_id, kUntouched);
    EXPECT_EQ(ids.file_id, kUntouched);
    EXPECT_EQ(ids.total_length, kUntouched);
    EXPECT_EQ(ids.buffer, nullptr);
    EXPECT_EQ(ids.saved_length, kUntouched);
    EXPECT_EQ(ids.segments, kUntouched);
    EXPECT_EQ(ids.segment_bytes, kUntouched);
}

TEST_F(DataTable, SavedEntryHandsOutItsBufferNotTheIds) {
    save(kAddr, 0, 300, 100, 150);
    const Ids ids = get_ids(t, kAddr, kPort, 0);
    ASSERT_EQ(ids.result, 1);
    EXPECT_EQ(ids.total_length, 300u);
    EXPECT_EQ(ids.saved_length, 100u);
    EXPECT_EQ(ids.segments, 1u);
    EXPECT_EQ(ids.segment_bytes, 150u);
    EXPECT_EQ(ids.tree_id, kUntouched);
    EXPECT_EQ(ids.file_id, kUntouched);
    ASSERT_NE(ids.buffer, nullptr);
    EXPECT_EQ(std::vector<uint8_t>(ids.buffer, ids.buffer + 100), message_bytes(0, 100));
    EXPECT_TRUE(all_zero(ids.buffer + 100, 200));
}

TEST_F(DataTable, EntryWithoutBufferHandsOutTheIds) {
    datatable_insert(t, 7, 9, kAddr, kPort, 1);
    const Ids ids = get_ids(t, kAddr, kPort, 1);
    ASSERT_EQ(ids.result, 0);
    EXPECT_EQ(ids.tree_id, 7u);
    EXPECT_EQ(ids.file_id, 9u);
    EXPECT_EQ(ids.total_length, 0u);
    EXPECT_EQ(ids.saved_length, 0u);
    EXPECT_EQ(ids.buffer, nullptr);
    EXPECT_EQ(ids.segments, kUntouched);
    EXPECT_EQ(ids.segment_bytes, kUntouched);
    EXPECT_EQ(get_ids(t, kAddr, kPort, 0).result, -1);  // the direction is part of the key
}

// A sequence of operations on three keys: K = (kAddr, kPort, 0), R = K as a response, and C, a
// key on K's slot. After the steps, what a lookup of each key reports.
enum class Key { K, R, C };
enum class Op { insert, save, update, remove };

struct Step {
    Op op;
    Key key;
    uint32_t a = 0, b = 0, c = 0;  // insert: tree, file; save: total, length, counter;
                                   // update: saved length, counter
};

struct Expect {
    Key key;
    int32_t result;
    uint32_t tree_or_total = 0, file_or_saved = 0, segments = 0, segment_bytes = 0;
};

struct Sequence {
    const char *name;
    std::vector<Step> steps;
    std::vector<Expect> expect;
};

class DataTableSequence : public DataTable, public ::testing::WithParamInterface<Sequence> {
  protected:
    std::pair<uint32_t, uint8_t> key(Key k) const {
        if (k == Key::C) return {collider_addr, 0};
        return {kAddr, k == Key::R ? uint8_t(1) : uint8_t(0)};
    }
};

TEST_P(DataTableSequence, LookupsAfterTheSteps) {
    for (const Step &s : GetParam().steps) {
        auto [addr, dir] = key(s.key);
        switch (s.op) {
            case Op::insert:
                datatable_insert(t, s.a, s.b, addr, kPort, dir);
                break;
            case Op::save:
                save(addr, dir, s.a, s.b, s.c);
                break;
            case Op::update:
                datatable_update_data_len(t, addr, kPort, dir, s.a, s.b);
                break;
            case Op::remove:
                datatable_remove_record(t, addr, kPort, dir);
                break;
        }
    }
    for (const Expect &e : GetParam().expect) {
        auto [addr, dir] = key(e.key);
        SCOPED_TRACE(int(e.key));
        const Ids ids = get_ids(t, addr, kPort, dir);
        ASSERT_EQ(ids.result, e.result);
        if (e.result == 0) {
            EXPECT_EQ(ids.tree_id, e.tree_or_total);
            EXPECT_EQ(ids.file_id, e.file_or_saved);
            EXPECT_EQ(ids.total_length, 0u);
        } else if (e.result == 1) {
            EXPECT_EQ(ids.total_length, e.tree_or_total);
            EXPECT_EQ(ids.saved_length, e.file_or_saved);
            EXPECT_EQ(ids.segments, e.segments);
            EXPECT_EQ(ids.segment_bytes, e.segment_bytes);
            // The first saved bytes are always the message's own.
            EXPECT_EQ(ids.buffer[0], message_byte(0));
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Steps, DataTableSequence,
    ::testing::Values(
        Sequence{"InsertOverBufferFreesIt",
                 {{Op::save, Key::K, 300, 100, 1}, {Op::insert, Key::K, 7, 9}},
                 {{Key::K, 0, 7, 9}}},
        Sequence{"SaveReplacesSameKeyBuffer",
                 {{Op::save, Key::K, 300, 100, 1},
                  {Op::update, Key::K, 200, 5},
                  {Op::save, Key::K, 400, 50, 2}},
                 {{Key::K, 1, 400, 50, 1, 2}}},
        Sequence{"InsertReplacesSameKeyIds",
                 {{Op::insert, Key::K, 1, 2}, {Op::insert, Key::K, 3, 4}},
                 {{Key::K, 0, 3, 4}}},
        Sequence{"TwoUpdatesAccumulate",
                 {{Op::save, Key::K, 1000, 100, 150},
                  {Op::update, Key::K, 300, 60},
                  {Op::update, Key::K, 500, 70}},
                 {{Key::K, 1, 1000, 500, 3, 280}}},
        Sequence{"SegmentBytesWrap",
                 {{Op::save, Key::K, 1000, 100, 0xfffffff0u}, {Op::update, Key::K, 200, 0x20}},
                 {{Key::K, 1, 1000, 200, 2, 0x10}}},
        Sequence{"UpdateOfAMissingKeyIsANoOp", {{Op::update, Key::K, 10, 10}}, {{Key::K, -1}}},
        Sequence{"RemoveEmptiesTheSlotTwiceIsHarmless",
                 {{Op::save, Key::K, 300, 100, 1},
                  {Op::remove, Key::K},
                  {Op::remove, Key::K},
                  {Op::update, Key::K, 200, 1}},
                 {{Key::K, -1}}},
        Sequence{
            "DirectionsAreSeparateEntries",
            {{Op::save, Key::K, 300, 100, 1}, {Op::insert, Key::R, 5, 6}, {Op::remove, Key::R}},
            {{Key::K, 1, 300, 100, 1, 1}, {Key::R, -1}}},
        Sequence{"CollidingSaveReplacesAndOldKeyIsGone",
                 {{Op::save, Key::K, 300, 100, 1}, {Op::save, Key::C, 600, 10, 3}},
                 {{Key::K, -1}, {Key::C, 1, 600, 10, 1, 3}}},
        Sequence{"CollidingInsertReplacesABuffer",
                 {{Op::save, Key::K, 300, 100, 1}, {Op::insert, Key::C, 8, 8}},
                 {{Key::K, -1}, {Key::C, 0, 8, 8}}},
        Sequence{
            "UpdateAndRemoveOfACollidingKeyChangeNothing",
            {{Op::save, Key::K, 300, 100, 1}, {Op::update, Key::C, 200, 9}, {Op::remove, Key::C}},
            {{Key::K, 1, 300, 100, 1, 1}, {Key::C, -1}}},
        Sequence{"SaveLongerThanTotalIsClipped",
                 {{Op::save, Key::K, 50, 100, 1}},
                 {{Key::K, 1, 50, 50, 1, 1}}}),
    [](const auto &info) { return std::string(info.param.name); });

// datatable_continue: one segment after a save of `saved` of `total` bytes.
struct ContinueCase {
    const char *name;
    uint32_t total, saved, payload;
    int result;
    uint32_t saved_after = 0;  // result 1: the entry's saved length afterwards
};

class DataTableContinue : public DataTable, public ::testing::WithParamInterface<ContinueCase> {};

TEST_P(DataTableContinue, AppendsClipsAndCompletes) {
    const ContinueCase &c = GetParam();
    save(kAddr, 0, c.total, c.saved, 100);
    const auto payload = message_bytes(c.saved, c.payload);
    std::array<uint8_t, kDataMessageMax> message;
    message.fill(0xee);
    const datatable_continuation r =
        datatable_continue(t, kAddr, kPort, 0, payload, 40, std::span(message));
    ASSERT_EQ(r.result, c.result);
    EXPECT_EQ(r.total_length, c.total);
    if (c.result == 2) {
        EXPECT_EQ(r.segments, 1u);
        EXPECT_EQ(r.segment_bytes, 100u);
        EXPECT_EQ(std::vector<uint8_t>(message.begin(), message.begin() + c.total),
                  message_bytes(0, c.total));
        if (c.total < message.size()) {
            EXPECT_EQ(message[c.total], 0xee);
        }
        EXPECT_EQ(get_ids(t, kAddr, kPort, 0).result, -1);  // removed
    } else {
        const Ids ids = get_ids(t, kAddr, kPort, 0);
        ASSERT_EQ(ids.result, 1);
        EXPECT_EQ(ids.saved_length, c.saved_after);
        EXPECT_EQ(ids.segments, 2u);
        EXPECT_EQ(ids.segment_bytes, 140u);
        EXPECT_EQ(std::vector<uint8_t>(ids.buffer, ids.buffer + c.saved_after),
                  message_bytes(0, c.saved_after));
        EXPECT_EQ(message[0], 0xee);  // nothing handed out before completion
    }
}

INSTANTIATE_TEST_SUITE_P(Segments, DataTableContinue,
                         ::testing::Values(ContinueCase{"StillIncomplete", 300, 100, 150, 1, 250},
                                           ContinueCase{"EmptyPayload", 300, 100, 0, 1, 100},
                                           ContinueCase{"ExactlyComplete", 300, 100, 200, 2},
                                           ContinueCase{"SurplusIsDiscarded", 300, 100, 500, 2},
                                           ContinueCase{"LargestMessage", 8192, 1448, 6744, 2},
                                           ContinueCase{"LargestMessageWithSurplus", 8192, 8000,
                                                        1000, 2}),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_F(DataTable, ContinueWithoutEntryOrWithIdsOnly) {
    std::array<uint8_t, kDataMessageMax> message{};
    const std::array<uint8_t, 10> payload{};
    EXPECT_EQ(datatable_continue(t, kAddr, kPort, 0, payload, 1, message).result, -1);

    datatable_insert(t, 7, 9, kAddr, kPort, 0);
    for (int i = 0; i < 2; ++i) {  // the entry stays for every later segment
        const auto r = datatable_continue(t, kAddr, kPort, 0, payload, 1, message);
        EXPECT_EQ(r.result, 0);
        EXPECT_EQ(r.tree_id, 7u);
        EXPECT_EQ(r.file_id, 9u);
        EXPECT_EQ(r.total_length, 0u);
    }
}

TEST_F(DataTable, ThreeSegmentsCompleteWithTheEarlierCounts) {
    const uint32_t total = 8192;
    save(kAddr, 1, total, 3000, 3100);
    std::array<uint8_t, kDataMessageMax> message{};
    auto r = datatable_continue(t, kAddr, kPort, 1, message_bytes(3000, 3000), 3050, message);
    EXPECT_EQ(r.result, 1);
    r = datatable_continue(t, kAddr, kPort, 1, message_bytes(6000, 2192), 2200, message);
    ASSERT_EQ(r.result, 2);
    EXPECT_EQ(r.segments, 2u);
    EXPECT_EQ(r.segment_bytes, 6150u);
    EXPECT_EQ(std::vector<uint8_t>(message.begin(), message.end()), message_bytes(0, total));
}

TEST_F(DataTable, MessageLongerThanTheCopyIsCutToIt) {
    save(kAddr, 0, 9000, 100, 1);
    std::array<uint8_t, kDataMessageMax> message{};
    const auto r = datatable_continue(t, kAddr, kPort, 0, message_bytes(100, 8900), 1, message);
    ASSERT_EQ(r.result, 2);
    EXPECT_EQ(r.total_length, kDataMessageMax);
    EXPECT_EQ(std::vector<uint8_t>(message.begin(), message.end()),
              message_bytes(0, kDataMessageMax));
}

}  // namespace
