// The scheme shared by every table: sizing, key packing and slot choice, and the insert rule
// (first insert wins, a colliding key takes the slot with every field reset), checked through
// adapters for two of the tables.
#include <gtest/gtest.h>

#include <optional>
#include <set>
#include <tuple>
#include <vector>

#include "smb_data_table.h"
#include "smb_file_table.h"
#include "smb_message_table.h"
#include "smb_message_table2.h"
#include "smb_tree_table.h"
#include "table_test_support.h"

using namespace tables_test;

namespace {

struct SizingCase {
    int32_t requested;
    int64_t slots;
};

class Sizing : public ::testing::TestWithParam<SizingCase> {};

TEST_P(Sizing, NearestPowerOfTwoTieUpAtLeast1024) {
    const auto [requested, slots] = GetParam();
    EXPECT_EQ(smb::slot_count(requested), slots);
    if (slots > 65536) return;  // the rule alone for the large ones
    auto check = [&](auto *t, auto destroy) {
        EXPECT_EQ(t->size, slots);
        EXPECT_EQ(t->mask, slots - 1);
        destroy(t);
    };
    check(messagetable_create(requested), messagetable_free);
    check(messagetable2_create(requested), messagetable2_free);
    check(treetable_create(requested), treetable_free);
    check(filetable_create(requested), filetable_free);
    check(datatable_create(requested), datatable_free);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Boundaries, Sizing, ::testing::Values(
    SizingCase{0, 1024}, SizingCase{-5, 1024}, SizingCase{INT32_MIN, 1024}, SizingCase{1, 1024},
    SizingCase{1000, 1024}, SizingCase{1448, 1024}, SizingCase{1449, 2048}, SizingCase{2896, 2048},
    SizingCase{2897, 4096}, SizingCase{65536, 65536}, SizingCase{1048576, 1048576},
    SizingCase{1518500249, int64_t{1} << 30}, SizingCase{1518500250, int64_t{1} << 31},
    SizingCase{INT32_MAX, int64_t{1} << 31}));
// clang-format on

// Not in the sanitizer builds: their allocators report the impossible request themselves.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST(SizingDeathTest, TwoToThe31SlotsEndTheProcessAsAnAllocationFailure) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(messagetable_create(1518500250), ::testing::ExitedWithCode(-666 & 0xff), "");
}
#endif

// The record of a key sits in the slot of the CRC-32C (seed 0) of these hand-packed bytes.
template <typename Table>
bool occupied(const Table *t, std::vector<uint8_t> bytes) {
    return t->slots[slot_of(t, bytes)];
}

TEST(KeyPacking, IdentifierThenAddressThenPortLittleEndian) {
    const uint32_t addr = 0x0a0b0c0d, tree = 0x11223344;
    const uint16_t port = 0x0e0f;
    const uint64_t id = 0x0102030405060708ull;
    const std::vector<uint8_t> id_addr_port = {8, 7,   6,   5,   4,   3,   2,
                                               1, 0xd, 0xc, 0xb, 0xa, 0xf, 0xe};
    messagetable *mt = messagetable_create(65536);
    messagetable2 *mt2 = messagetable2_create(65536);
    treetable *tt = treetable_create(65536);
    filetable *ft = filetable_create(65536);
    datatable *dt = datatable_create(65536);
    messagetable_insert(mt, nullptr, 1, 2, addr, port, id);
    messagetable2_insert(mt2, 9, 2, addr, port, id, 0);
    treetable_insert(tt, nullptr, nullptr, addr, port, tree);
    filetable_insert(ft, nullptr, 0, 2, 1, nullptr, 0, addr, port, id);
    datatable_insert(dt, 1, 2, addr, port, 1);
    EXPECT_TRUE(occupied(mt, id_addr_port));
    EXPECT_TRUE(occupied(mt2, id_addr_port));
    EXPECT_TRUE(occupied(tt, {0x44, 0x33, 0x22, 0x11, 0xd, 0xc, 0xb, 0xa, 0xf, 0xe}));
    EXPECT_TRUE(occupied(ft, id_addr_port));
    EXPECT_TRUE(occupied(dt, {0xd, 0xc, 0xb, 0xa, 0xf, 0xe, 1}));
    messagetable_free(mt);
    messagetable2_free(mt2);
    treetable_free(tt);
    filetable_free(ft);
    datatable_free(dt);
}

// The slot index is masked to the whole slot count: keys land in the upper half too.
TEST(KeyPacking, KeysSpreadOverEverySlot) {
    messagetable *mt = messagetable_create(1024);
    for (uint64_t id = 0; id < 256; ++id)
        messagetable_insert(mt, nullptr, 0, 0, 1, 2, id);
    size_t upper_half = 0;
    for (int64_t i = 512; i <= mt->mask; ++i)
        upper_half += mt->slots[i] != nullptr;
    EXPECT_GT(upper_half, 64u);
    messagetable_free(mt);
}

// Everything a lookup reports about a key, one-shot fields included; outputs start as 0xee.. so
// that a missing key's lookup shows whether it wrote any.
struct Snapshot {
    bool found;
    Name name;
    std::vector<uint64_t> fields;
    bool operator==(const Snapshot &) const = default;
};

// One adapter per table checked: `full` inserts a payload whose every field depends on `v`,
// `mark` sets the fields that only later calls change, `bare` inserts with null pointers and
// zeros, `read` reports every field.
struct MessageTable {
    using Table = messagetable;
    static Table *create() { return messagetable_create(1024); }
    static void destroy(Table *t) { messagetable_free(t); }
    static auto key_bytes(uint64_t id) { return le({{id, 8}, {1, 4}, {2, 2}}); }
    static void full(Table *t, uint64_t id, uint8_t v) {
        messagetable_insert(t, utf16_name(v == 1 ? "a" : "b").data(), v, 100 + v, 1, 2, id);
    }
    static void mark(Table *t, uint64_t id) { messagetable_add_command(t, 1, 2, id, 0x2000, 7); }
    static void bare(Table *t, uint64_t id) { messagetable_insert(t, nullptr, 0, 0, 1, 2, id); }
    static Snapshot read(Table *t, uint64_t id) {
        uint8_t op = 0xee;
        uint32_t tree = 0xeeee, cmds = 0xeeee;
        uint64_t linked = 0xeeee;
        const uint8_t *p = messagetable_get_name(t, 1, 2, id, &op, &tree, &cmds, &linked);
        return {p != nullptr, name_of(p), {op, tree, cmds, linked}};
    }
};

struct FileTable {
    using Table = filetable;
    static Table *create() { return filetable_create(1024); }
    static void destroy(Table *t) { filetable_free(t); }
    static auto key_bytes(uint64_t id) { return le({{id, 8}, {1, 4}, {2, 2}}); }
    static void full(Table *t, uint64_t id, uint8_t v) {
        const uint32_t masks[2] = {v, 0x2000u * v};
        filetable_insert(t, utf16_name(v == 1 ? "a" : "b").data(), v, v, v, masks, 100 + v, 1, 2,
                         id);
    }
    static void mark(Table *t, uint64_t id) { filetable_set_delete_flag(t, 1, 2, id, 3); }
    static void bare(Table *t, uint64_t id) {
        filetable_insert(t, nullptr, 0, 0, 0, nullptr, 0, 1, 2, id);
    }
    static Snapshot read(Table *t, uint64_t id) {
        uint8_t type = 0xee, op = 0xee, empty = 0xee;
        uint32_t masks[2] = {0xeeee, 0xeeee};
        const uint8_t *p = filetable_get_file(t, 1, 2, id, &type, &op, masks, &empty);
        return {p != nullptr,
                name_of(p),
                {type, op, empty, masks[0], masks[1], filetable_get_tree_id(t, 1, 2, id),
                 uint64_t(filetable_get_delete_flag(t, 1, 2, id, 0)),
                 uint64_t(filetable_get_delete_flag(t, 1, 2, id, 1))}};
    }
};

template <typename A>
class InsertRule : public ::testing::Test {
  protected:
    void SetUp() override { t = A::create(); }
    void TearDown() override { A::destroy(t); }
    // What `insert` leaves for `id` in an empty table.
    template <typename Insert>
    static Snapshot alone(uint64_t id, Insert insert) {
        auto *fresh = A::create();
        insert(fresh);
        Snapshot s = A::read(fresh, id);
        A::destroy(fresh);
        return s;
    }
    typename A::Table *t = nullptr;
};

// The rule is the scheme's, shared by every insert-once table: checked through the message
// table and the file table, whose records have the most fields (the other tables' own fields
// are lookup_test.cpp's and the parser tests').
using InsertOnceTables = ::testing::Types<MessageTable, FileTable>;
TYPED_TEST_SUITE(InsertRule, InsertOnceTables);

TYPED_TEST(InsertRule, MissingKeyIsNotFoundAndWritesNothing) {
    TypeParam::full(this->t, 7, 1);
    auto untouched = TypeParam::read(this->t, 8);
    EXPECT_FALSE(untouched.found);
    for (uint64_t f : untouched.fields)
        EXPECT_TRUE(f == 0xee || f == 0xeeee || f == 0);
}

TYPED_TEST(InsertRule, FirstInsertForAKeyWins) {
    const Snapshot first = this->alone(7, [](auto *t) { TypeParam::full(t, 7, 1); });
    TypeParam::full(this->t, 7, 1);
    TypeParam::full(this->t, 7, 2);
    EXPECT_EQ(TypeParam::read(this->t, 7), first);
}

TYPED_TEST(InsertRule, CollidingKeyTakesTheSlotWithEveryFieldReset) {
    const uint64_t a = 7, b = colliding_id(this->t, a, TypeParam::key_bytes);
    const Snapshot fresh = this->alone(b, [&](auto *t) { TypeParam::bare(t, b); });
    TypeParam::full(this->t, a, 1);
    TypeParam::mark(this->t, a);
    TypeParam::bare(this->t, b);
    EXPECT_FALSE(TypeParam::read(this->t, a).found);
    EXPECT_EQ(TypeParam::read(this->t, b), fresh);
}

TEST(InsertRule, AddressAndPortArePartOfTheKey) {
    treetable *t = treetable_create(1024);
    const Name a = utf16_name("a"), b = utf16_name("b"), c = utf16_name("c");
    treetable_insert(t, a.data(), nullptr, 1, 2, 5);
    treetable_insert(t, b.data(), nullptr, 1, 3, 5);
    treetable_insert(t, c.data(), nullptr, 9, 2, 5);
    // The three keys lie on three slots (else the later would win), and each finds its own.
    ASSERT_EQ(
        std::set<size_t>({t->index_of({1, 2, 5}), t->index_of({1, 3, 5}), t->index_of({9, 2, 5})})
            .size(),
        3u);
    for (auto [addr, port, name] : {std::tuple{1u, 2, a}, {1u, 3, b}, {9u, 2, c}}) {
        const uint8_t *p = treetable_get_tree(t, addr, uint16_t(port), 5, nullptr);
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(name_of(p), name);
    }
    treetable_free(t);
}

}  // namespace
