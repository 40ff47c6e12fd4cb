// The scheme shared by every table: sizing, key packing and slot choice, and the insert rule
// (first insert wins, a colliding key takes the slot with every field reset), checked for each
// insert-once table through one adapter per table.
#include <gtest/gtest.h>

#include <optional>
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
    EXPECT_EQ(smb::slot_count(GetParam().requested), GetParam().slots);
}

INSTANTIATE_TEST_SUITE_P(
    Boundaries, Sizing,
    ::testing::Values(SizingCase{0, 1024}, SizingCase{-1, 1024}, SizingCase{-5, 1024},
                      SizingCase{INT32_MIN, 1024}, SizingCase{1, 1024}, SizingCase{1000, 1024},
                      SizingCase{1024, 1024}, SizingCase{1448, 1024}, SizingCase{1449, 2048},
                      SizingCase{2048, 2048}, SizingCase{2896, 2048}, SizingCase{2897, 4096},
                      SizingCase{3000, 4096}, SizingCase{65536, 65536},
                      SizingCase{1048576, 1048576}, SizingCase{1518500249, int64_t{1} << 30},
                      SizingCase{1518500250, int64_t{1} << 31},
                      SizingCase{INT32_MAX, int64_t{1} << 31}));

// Every table's create operation uses the rule: size and mask of real handles.
TEST(Sizing, CreatedTablesCarrySizeAndMask) {
    for (int32_t requested : {0, -1, 1, 1000, 1448, 1449, 2896, 2897, 65536}) {
        SCOPED_TRACE(requested);
        const int32_t slots = int32_t(smb::slot_count(requested));
        auto check = [&](auto *t, auto destroy) {
            EXPECT_EQ(t->size, slots);
            EXPECT_EQ(t->mask, slots - 1);
            for (int32_t i = 0; i < t->size; ++i)
                ASSERT_EQ(t->slots[i], nullptr);
            destroy(t);
        };
        check(messagetable_create(requested), messagetable_free);
        check(messagetable2_create(requested), messagetable2_free);
        check(treetable_create(requested), treetable_free);
        check(filetable_create(requested), filetable_free);
        check(datatable_create(requested), datatable_free);
    }
}

TEST(SizingDeathTest, TwoToThe31SlotsEndTheProcessAsAnAllocationFailure) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "sanitizer allocators report the impossible request themselves";
#else
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(messagetable_create(1518500250), ::testing::ExitedWithCode(-666 & 0xff), "");
#endif
}

// Key packing: the slot of a key is the CRC-32C (seed 0) of these hand-packed bytes.
uint32_t crc_slot(std::vector<uint8_t> bytes, int32_t mask) {
    return corvaneexp_crc32c(bytes.data(), bytes.size(), 0) & uint32_t(mask);
}

TEST(KeyPacking, EachTableStoresItsRecordInTheSlotOfItsPackedKey) {
    const uint32_t addr = 0x0a0b0c0d;
    const uint16_t port = 0x0e0f;
    const uint64_t id64 = 0x0102030405060708ull;
    const uint32_t id32 = 0x11223344;
    const std::vector<uint8_t> id64_addr_port = {0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02,
                                                 0x01, 0x0d, 0x0c, 0x0b, 0x0a, 0x0f, 0x0e};

    messagetable *mt = messagetable_create(65536);
    messagetable_insert(mt, nullptr, 1, 2, addr, port, id64);
    EXPECT_NE(mt->slots[crc_slot(id64_addr_port, mt->mask)], nullptr);
    messagetable_free(mt);

    messagetable2 *mt2 = messagetable2_create(65536);
    messagetable2_insert(mt2, 9, 2, addr, port, id64, 0);
    EXPECT_NE(mt2->slots[crc_slot(id64_addr_port, mt2->mask)], nullptr);
    messagetable2_free(mt2);

    treetable *tt = treetable_create(65536);
    treetable_insert(tt, nullptr, nullptr, addr, port, id32);
    EXPECT_NE(
        tt->slots[crc_slot({0x44, 0x33, 0x22, 0x11, 0x0d, 0x0c, 0x0b, 0x0a, 0x0f, 0x0e}, tt->mask)],
        nullptr);
    treetable_free(tt);

    filetable *ft = filetable_create(65536);
    filetable_insert(ft, nullptr, 0, 2, 1, nullptr, 0, addr, port, id64);
    EXPECT_NE(ft->slots[crc_slot(id64_addr_port, ft->mask)], nullptr);
    filetable_free(ft);

    datatable *dt = datatable_create(65536);
    datatable_insert(dt, 1, 2, addr, port, 1);
    EXPECT_NE(dt->slots[crc_slot({0x0d, 0x0c, 0x0b, 0x0a, 0x0f, 0x0e, 0x01}, dt->mask)], nullptr);
    datatable_free(dt);
}

// Everything a lookup reports about a key, mutable one-shot fields included.
struct Snapshot {
    Name name;
    std::vector<uint64_t> fields;
    bool operator==(const Snapshot &) const = default;
};

// One adapter per insert-once table: `insert_full` writes a payload whose every field depends
// on `v`, `mark` sets the fields that only later calls change, `insert_bare` inserts with null
// pointers and zero values, `lookup` reads every field back.
struct MessageTable {
    using Table = messagetable;
    static Table *create() { return messagetable_create(1024); }
    static void destroy(Table *t) { messagetable_free(t); }
    static auto key(uint32_t a, uint16_t p, uint64_t id) { return message_key{a, p, id}; }
    static void insert_full(Table *t, uint32_t a, uint16_t p, uint64_t id, uint8_t v) {
        Name n = utf16_name(v == 1 ? "first" : "second");
        messagetable_insert(t, n.data(), v, 100 + v, a, p, id);
    }
    static void mark(Table *t, uint32_t a, uint16_t p, uint64_t id) {
        messagetable_add_command(t, a, p, id, 0x2000, 77);
    }
    static void insert_bare(Table *t, uint32_t a, uint16_t p, uint64_t id) {
        messagetable_insert(t, nullptr, 0, 0, a, p, id);
    }
    static std::optional<Snapshot> lookup(Table *t, uint32_t a, uint16_t p, uint64_t id) {
        uint8_t op = 0xee;
        uint32_t tree = 0xeeee, cmds = 0xeeee;
        uint64_t linked = 0xeeee;
        const uint8_t *name = messagetable_get_name(t, a, p, id, &op, &tree, &cmds, &linked);
        if (!name) return std::nullopt;
        return Snapshot{copy_name(name), {op, tree, cmds, linked}};
    }
};

struct MessageTable2 {
    using Table = messagetable2;
    static Table *create() { return messagetable2_create(1024); }
    static void destroy(Table *t) { messagetable2_free(t); }
    static auto key(uint32_t a, uint16_t p, uint64_t id) { return message2_key{a, p, id}; }
    static void insert_full(Table *t, uint32_t a, uint16_t p, uint64_t id, uint8_t v) {
        messagetable2_insert(t, 1000 + v, 100 + v, a, p, id, 1);
    }
    static void mark(Table *, uint32_t, uint16_t, uint64_t) {}
    static void insert_bare(Table *t, uint32_t a, uint16_t p, uint64_t id) {
        messagetable2_insert(t, 5, 0, a, p, id, 0);
    }
    static std::optional<Snapshot> lookup(Table *t, uint32_t a, uint16_t p, uint64_t id) {
        uint32_t tree = 0xeeee;
        uint8_t del = 0xee;
        const uint64_t file = messagetable2_get_file_id(t, a, p, id, &tree, &del);
        if (file == 0) return std::nullopt;
        return Snapshot{Name{}, {file, tree, del}};
    }
};

struct TreeTable {
    using Table = treetable;
    static Table *create() { return treetable_create(1024); }
    static void destroy(Table *t) { treetable_free(t); }
    static auto key(uint32_t a, uint16_t p, uint64_t id) { return tree_key{a, p, uint32_t(id)}; }
    static void insert_full(Table *t, uint32_t a, uint16_t p, uint64_t id, uint8_t v) {
        Name n = utf16_name(v == 1 ? "\\\\srv\\first" : "\\\\srv\\second");
        const uint32_t masks[2] = {v, 0x800u * v};
        treetable_insert(t, n.data(), masks, a, p, uint32_t(id));
    }
    static void mark(Table *, uint32_t, uint16_t, uint64_t) {}
    static void insert_bare(Table *t, uint32_t a, uint16_t p, uint64_t id) {
        treetable_insert(t, nullptr, nullptr, a, p, uint32_t(id));
    }
    static std::optional<Snapshot> lookup(Table *t, uint32_t a, uint16_t p, uint64_t id) {
        uint32_t masks[2] = {0xeeee, 0xeeee};
        const uint8_t *name = treetable_get_tree(t, a, p, uint32_t(id), masks);
        if (!name) return std::nullopt;
        return Snapshot{copy_name(name), {masks[0], masks[1]}};
    }
};

struct FileTable {
    using Table = filetable;
    static Table *create() { return filetable_create(1024); }
    static void destroy(Table *t) { filetable_free(t); }
    static auto key(uint32_t a, uint16_t p, uint64_t id) { return file_key{a, p, id}; }
    static void insert_full(Table *t, uint32_t a, uint16_t p, uint64_t id, uint8_t v) {
        Name n = utf16_name(v == 1 ? "first.txt" : "second.txt");
        const uint32_t masks[2] = {v, 0x2000u * v};
        filetable_insert(t, n.data(), v, v, v, masks, 100 + v, a, p, id);
    }
    static void mark(Table *t, uint32_t a, uint16_t p, uint64_t id) {
        filetable_set_delete_flag(t, a, p, id, SMB_DELETE_SUCCEEDED | SMB_DELETE_FAILED);
    }
    static void insert_bare(Table *t, uint32_t a, uint16_t p, uint64_t id) {
        filetable_insert(t, nullptr, 0, 0, 0, nullptr, 0, a, p, id);
    }
    static std::optional<Snapshot> lookup(Table *t, uint32_t a, uint16_t p, uint64_t id) {
        uint8_t type = 0xee, op = 0xee, empty = 0xee;
        uint32_t masks[2] = {0xeeee, 0xeeee};
        const uint8_t *name = filetable_get_file(t, a, p, id, &type, &op, masks, &empty);
        if (!name) return std::nullopt;
        const uint64_t tree = filetable_get_tree_id(t, a, p, id);
        const uint64_t ok = filetable_get_delete_flag(t, a, p, id, 0);
        const uint64_t failed = filetable_get_delete_flag(t, a, p, id, 1);
        return Snapshot{copy_name(name), {type, op, empty, masks[0], masks[1], tree, ok, failed}};
    }
};

template <typename A>
class InsertRule : public ::testing::Test {
  protected:
    void SetUp() override { t = A::create(); }
    void TearDown() override { A::destroy(t); }
    typename A::Table *t = nullptr;
    static constexpr uint32_t addr = 0xc0a80001;
    static constexpr uint16_t port = 49152;

    // An identifier on the slot of `id`, other than it.
    uint64_t collider(uint64_t id) {
        return colliding_id(t, t->index_of(A::key(addr, port, id)), id,
                            [](uint64_t i) { return A::key(addr, port, i); });
    }
};

using InsertOnceTables = ::testing::Types<MessageTable, MessageTable2, TreeTable, FileTable>;
TYPED_TEST_SUITE(InsertRule, InsertOnceTables);

TYPED_TEST(InsertRule, MissingKeyIsNotFound) {
    EXPECT_FALSE(TypeParam::lookup(this->t, this->addr, this->port, 7));
}

TYPED_TEST(InsertRule, FirstInsertForAKeyWins) {
    auto *fresh = TypeParam::create();
    TypeParam::insert_full(fresh, this->addr, this->port, 7, 1);
    const auto expected = TypeParam::lookup(fresh, this->addr, this->port, 7);
    TypeParam::destroy(fresh);

    TypeParam::insert_full(this->t, this->addr, this->port, 7, 1);
    TypeParam::insert_full(this->t, this->addr, this->port, 7, 2);
    EXPECT_EQ(TypeParam::lookup(this->t, this->addr, this->port, 7), expected);
}

TYPED_TEST(InsertRule, CollidingKeyTakesTheSlotWithEveryFieldReset) {
    const uint64_t a = 7, b = this->collider(a);
    auto *fresh = TypeParam::create();
    TypeParam::insert_bare(fresh, this->addr, this->port, b);
    const auto expected = TypeParam::lookup(fresh, this->addr, this->port, b);
    TypeParam::destroy(fresh);

    TypeParam::insert_full(this->t, this->addr, this->port, a, 1);
    TypeParam::mark(this->t, this->addr, this->port, a);
    TypeParam::insert_bare(this->t, this->addr, this->port, b);
    EXPECT_FALSE(TypeParam::lookup(this->t, this->addr, this->port, a));
    EXPECT_EQ(TypeParam::lookup(this->t, this->addr, this->port, b), expected);
}

TYPED_TEST(InsertRule, AddressAndPortArePartOfTheKey) {
    TypeParam::insert_full(this->t, this->addr, this->port, 7, 1);
    EXPECT_FALSE(TypeParam::lookup(this->t, this->addr + 1, this->port, 7));
    EXPECT_FALSE(TypeParam::lookup(this->t, this->addr, this->port + 1, 7));
    EXPECT_TRUE(TypeParam::lookup(this->t, this->addr, this->port, 7));
}

}  // namespace
