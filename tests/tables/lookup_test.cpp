// Table-specific operations of the message, second message, tree and file tables: the
// add-command and delete-flag updates, one-shot pending masks, and outputs left alone.
#include <gtest/gtest.h>

#include <optional>
#include <vector>

#include "smb_file_table.h"
#include "smb_message_table.h"
#include "smb_message_table2.h"
#include "smb_tree_table.h"
#include "table_test_support.h"

using namespace tables_test;

namespace {

constexpr uint32_t kAddr = 0x0a000001;
constexpr uint16_t kPort = 50000;

TEST(Lookups, MissingKeysWriteNoOutput) {
    messagetable *mt = messagetable_create(1024);
    messagetable2 *mt2 = messagetable2_create(1024);
    treetable *tt = treetable_create(1024);
    filetable *ft = filetable_create(1024);
    // Present keys on the same connection, so only the identifier misses.
    messagetable_insert(mt, nullptr, 1, 1, kAddr, kPort, 1);
    messagetable2_insert(mt2, 1, 1, kAddr, kPort, 1, 1);
    treetable_insert(tt, nullptr, nullptr, kAddr, kPort, 1);
    filetable_insert(ft, nullptr, 1, 1, 1, nullptr, 1, kAddr, kPort, 1);

    uint8_t u8a = 0xaa, u8b = 0xaa, u8c = 0xaa;
    uint32_t u32a = 0xaaaa, u32b = 0xaaaa, masks[2] = {0xaaaa, 0xaaaa};
    uint64_t u64 = 0xaaaa;
    EXPECT_EQ(messagetable_get_name(mt, kAddr, kPort, 2, &u8a, &u32a, &u32b, &u64), nullptr);
    EXPECT_EQ(messagetable2_get_file_id(mt2, kAddr, kPort, 2, &u32a, &u8a), 0u);
    EXPECT_EQ(treetable_get_tree(tt, kAddr, kPort, 2, masks), nullptr);
    EXPECT_EQ(filetable_get_file(ft, kAddr, kPort, 2, &u8a, &u8b, masks, &u8c), nullptr);
    EXPECT_EQ(filetable_get_tree_id(ft, kAddr, kPort, 2), 0u);
    EXPECT_EQ(filetable_get_delete_flag(ft, kAddr, kPort, 2, 0), 0);
    EXPECT_EQ(u8a, 0xaa);
    EXPECT_EQ(u8b, 0xaa);
    EXPECT_EQ(u8c, 0xaa);
    EXPECT_EQ(u32a, 0xaaaau);
    EXPECT_EQ(u32b, 0xaaaau);
    EXPECT_EQ(u64, 0xaaaau);
    EXPECT_EQ(masks[0], 0xaaaau);
    EXPECT_EQ(masks[1], 0xaaaau);

    // Null output pointers are allowed on found keys.
    EXPECT_NE(messagetable_get_name(mt, kAddr, kPort, 1, nullptr, nullptr, nullptr, nullptr),
              nullptr);
    EXPECT_EQ(messagetable2_get_file_id(mt2, kAddr, kPort, 1, nullptr, nullptr), 1u);
    EXPECT_NE(filetable_get_file(ft, kAddr, kPort, 1, nullptr, nullptr, nullptr, nullptr), nullptr);
    messagetable_free(mt);
    messagetable2_free(mt2);
    treetable_free(tt);
    filetable_free(ft);
}

TEST(MessageTable, NullNameIsStoredAs128ZeroBytesAndLookupsRepeat) {
    messagetable *t = messagetable_create(1024);
    messagetable_insert(t, nullptr, 255, 0, kAddr, kPort, 5);
    for (int i = 0; i < 2; ++i) {
        uint8_t op = 0;
        const uint8_t *name =
            messagetable_get_name(t, kAddr, kPort, 5, &op, nullptr, nullptr, nullptr);
        ASSERT_NE(name, nullptr);
        EXPECT_TRUE(all_zero(name, SMB_NAME_SIZE));
        EXPECT_EQ(op, 255);
    }
    messagetable_free(t);
}

TEST(MessageTable, AddCommandOrsMasksAndKeepsTheLastLinkedId) {
    messagetable *t = messagetable_create(1024);
    const Name n = utf16_name("a.txt");
    messagetable_insert(t, n.data(), 0x41, 9, kAddr, kPort, 5);
    messagetable_add_command(t, kAddr, kPort, 5, 0x1, 11);
    messagetable_add_command(t, kAddr, kPort, 5, 0x20, 12);
    uint8_t op = 0;
    uint32_t tree = 0, cmds = 0;
    uint64_t linked = 0;
    const uint8_t *name = messagetable_get_name(t, kAddr, kPort, 5, &op, &tree, &cmds, &linked);
    ASSERT_NE(name, nullptr);
    EXPECT_EQ(copy_name(name), n);
    EXPECT_EQ(op, 0x41);
    EXPECT_EQ(tree, 9u);
    EXPECT_EQ(cmds, 0x21u);
    EXPECT_EQ(linked, 12u);
    messagetable_free(t);
}

TEST(MessageTable, AddCommandForAMissingKeyCreatesNothing) {
    messagetable *t = messagetable_create(1024);
    messagetable_add_command(t, kAddr, kPort, 5, 0x1, 11);
    EXPECT_EQ(messagetable_get_name(t, kAddr, kPort, 5, nullptr, nullptr, nullptr, nullptr),
              nullptr);
    for (int32_t i = 0; i < t->size; ++i)
        ASSERT_EQ(t->slots[i], nullptr);
    messagetable_free(t);
}

TEST(TreeTable, PendingMasksAreHandedOutOnceThePathEveryTime) {
    treetable *t = treetable_create(2048);
    const Name path = utf16_name("\\\\srv\\share");
    const uint32_t given[2] = {0, 0x800};
    treetable_insert(t, path.data(), given, kAddr, kPort, 3);

    // A reader without output leaves the masks parked.
    ASSERT_NE(treetable_get_tree(t, kAddr, kPort, 3, nullptr), nullptr);
    struct Read {
        uint32_t first, second;
    };
    for (Read expected : {Read{0, 0x800}, Read{0, 0}}) {
        uint32_t masks[2] = {0xffff, 0xffff};
        const uint8_t *name = treetable_get_tree(t, kAddr, kPort, 3, masks);
        ASSERT_NE(name, nullptr);
        EXPECT_EQ(copy_name(name), path);
        EXPECT_EQ(masks[0], expected.first);
        EXPECT_EQ(masks[1], expected.second);
    }
    treetable_free(t);
}

TEST(TreeTable, NullPointersGiveZeroPathAndMasks) {
    treetable *t = treetable_create(2048);
    EXPECT_EQ(treetable_insert(t, nullptr, nullptr, kAddr, kPort, 3), 0);
    EXPECT_EQ(treetable_insert(t, nullptr, nullptr, kAddr, kPort, 3), 1);
    uint32_t masks[2] = {1, 1};
    const uint8_t *name = treetable_get_tree(t, kAddr, kPort, 3, masks);
    ASSERT_NE(name, nullptr);
    EXPECT_TRUE(all_zero(name, SMB_NAME_SIZE));
    EXPECT_EQ(masks[0], 0u);
    EXPECT_EQ(masks[1], 0u);
    treetable_free(t);
}

struct FileView {
    Name name;
    uint8_t type, op, empty;
    uint32_t masks[2];
};

std::optional<FileView> read_file(filetable *t, uint64_t id) {
    FileView v{};
    const uint8_t *name =
        filetable_get_file(t, kAddr, kPort, id, &v.type, &v.op, v.masks, &v.empty);
    if (!name) return std::nullopt;
    v.name = copy_name(name);
    return v;
}

TEST(FileTable, AddCommandOnAnUnknownIdMakesANamelessRecord) {
    filetable *t = filetable_create(1024);
    const uint32_t first[2] = {0x10, 0}, second[2] = {0, 0x20};
    filetable_add_command(t, kAddr, kPort, 9, first);
    filetable_add_command(t, kAddr, kPort, 9, second);
    // A later CREATE of the same id finds the key present and changes nothing.
    const Name n = utf16_name("late.txt");
    EXPECT_EQ(filetable_insert(t, n.data(), 0, 2, 1, nullptr, 4, kAddr, kPort, 9), 1);

    auto v = read_file(t, 9);
    ASSERT_TRUE(v);
    EXPECT_TRUE(all_zero(v->name.data(), v->name.size()));
    EXPECT_EQ(v->type, 0);
    EXPECT_EQ(v->op, 63);
    EXPECT_EQ(v->empty, 0);
    EXPECT_EQ(v->masks[0], 0x10u);
    EXPECT_EQ(v->masks[1], 0x20u);
    EXPECT_EQ(filetable_get_tree_id(t, kAddr, kPort, 9), 0u);
    v = read_file(t, 9);
    EXPECT_EQ(v->masks[0], 0u);
    EXPECT_EQ(v->masks[1], 0u);
    filetable_free(t);
}

TEST(FileTable, InsertedRecordReportsItsFields) {
    filetable *t = filetable_create(1024);
    const Name n = utf16_name("dir");
    const uint32_t masks[2] = {0, 0x2000};
    EXPECT_EQ(filetable_insert(t, n.data(), 0, 1, 2, masks, 5, kAddr, kPort, 9), 0);
    auto v = read_file(t, 9);
    ASSERT_TRUE(v);
    EXPECT_EQ(v->name, n);
    EXPECT_EQ(v->type, 1);
    EXPECT_EQ(v->op, 2);
    EXPECT_EQ(v->masks[1], 0x2000u);
    EXPECT_EQ(filetable_get_tree_id(t, kAddr, kPort, 9), 5u);
    filetable_free(t);
}

// Each row: flag values set in turn, then the expected answers of selectors 0 and 1, read
// twice in a row (each outcome is reported once).
struct DeleteCase {
    std::vector<uint8_t> set;
    int succeeded, failed;
};

class DeleteFlags : public ::testing::TestWithParam<DeleteCase> {};

TEST_P(DeleteFlags, SetAssignsGetConsumesOnce) {
    filetable *t = filetable_create(1024);
    for (uint8_t f : GetParam().set)
        filetable_set_delete_flag(t, kAddr, kPort, 9, f);
    EXPECT_EQ(filetable_get_delete_flag(t, kAddr, kPort, 9, 0), GetParam().succeeded);
    EXPECT_EQ(filetable_get_delete_flag(t, kAddr, kPort, 9, 1), GetParam().failed);
    EXPECT_EQ(filetable_get_delete_flag(t, kAddr, kPort, 9, 0), 0);
    EXPECT_EQ(filetable_get_delete_flag(t, kAddr, kPort, 9, 1), 0);
    // The flag call on an unknown id made the nameless record.
    auto v = read_file(t, 9);
    ASSERT_TRUE(v);
    EXPECT_EQ(v->op, 63);
    EXPECT_EQ(v->masks[0], 0u);
    filetable_free(t);
}

INSTANTIATE_TEST_SUITE_P(Sequences, DeleteFlags,
                         ::testing::Values(DeleteCase{{1}, 1, 0}, DeleteCase{{2}, 0, 1},
                                           DeleteCase{{1, 2}, 0, 1}, DeleteCase{{3}, 1, 1},
                                           DeleteCase{{3, 0}, 0, 0}));

TEST(FileTable, OtherSelectorsReportNothingAndConsumeNothing) {
    filetable *t = filetable_create(1024);
    filetable_set_delete_flag(t, kAddr, kPort, 9, 3);
    EXPECT_EQ(filetable_get_delete_flag(t, kAddr, kPort, 9, 2), 0);
    EXPECT_EQ(filetable_get_delete_flag(t, kAddr, kPort, 9, 255), 0);
    EXPECT_EQ(filetable_get_delete_flag(t, kAddr, kPort, 9, 0), 1);
    EXPECT_EQ(filetable_get_delete_flag(t, kAddr, kPort, 9, 1), 1);
    filetable_free(t);
}

// filetable_add_command and filetable_set_delete_flag must not displace another file's record
// from their slot; filetable_insert does.
TEST(FileTable, UpdatesNeverDisplaceAnotherKeyInsertDoes) {
    filetable *t = filetable_create(1024);
    const Name n = utf16_name("owner.txt");
    filetable_insert(t, n.data(), 0, 2, 1, nullptr, 4, kAddr, kPort, 9);
    const uint64_t other =
        colliding_id(t, t->index_of(file_key{kAddr, kPort, 9}), 9, [](uint64_t id) {
            return file_key{kAddr, kPort, id};
        });
    const uint32_t masks[2] = {0x100, 0x100};
    filetable_add_command(t, kAddr, kPort, other, masks);
    filetable_set_delete_flag(t, kAddr, kPort, other, 1);
    EXPECT_FALSE(read_file(t, other));
    auto v = read_file(t, 9);
    ASSERT_TRUE(v);
    EXPECT_EQ(v->name, n);
    EXPECT_EQ(v->masks[0], 0u);
    EXPECT_EQ(filetable_get_delete_flag(t, kAddr, kPort, 9, 0), 0);

    EXPECT_EQ(filetable_insert(t, nullptr, 1, 1, 1, nullptr, 0, kAddr, kPort, other), 2);
    EXPECT_FALSE(read_file(t, 9));
    EXPECT_TRUE(read_file(t, other));
    filetable_free(t);
}

}  // namespace
