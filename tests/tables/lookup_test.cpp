// Table-specific operations: add-command on the message and file tables, the one-shot pending
// masks and delete flags, and the file-table updates that never displace another key.
#include <gtest/gtest.h>

#include <vector>

#include "smb_file_table.h"
#include "smb_message_table.h"
#include "smb_tree_table.h"
#include "table_test_support.h"

using namespace tables_test;

namespace {

TEST(MessageTable, AddCommandOrsMasksKeepsTheLastLinkedIdAndCreatesNothing) {
    messagetable *t = messagetable_create(1024);
    messagetable_add_command(t, 1, 2, 6, 0x1, 11);  // missing key
    messagetable_insert(t, nullptr, 0x41, 9, 1, 2, 5);
    messagetable_add_command(t, 1, 2, 5, 0x1, 11);
    messagetable_add_command(t, 1, 2, 5, 0x20, 12);
    uint32_t cmds = 0;
    uint64_t linked = 0;
    const uint8_t *name = messagetable_get_name(t, 1, 2, 5, nullptr, nullptr, &cmds, &linked);
    ASSERT_NE(name, nullptr);
    EXPECT_EQ(name_of(name), Name{});  // a null name is 128 zero bytes
    EXPECT_EQ(cmds, 0x21u);
    EXPECT_EQ(linked, 12u);
    EXPECT_EQ(messagetable_get_name(t, 1, 2, 6, nullptr, nullptr, nullptr, nullptr), nullptr);
    messagetable_free(t);
}

TEST(TreeTable, PendingMasksAreHandedOutOnceThePathEveryTime) {
    treetable *t = treetable_create(2048);
    const Name path = utf16_name("\\\\srv\\share");
    const uint32_t given[2] = {0, 0x800};
    treetable_insert(t, path.data(), given, 1, 2, 3);
    ASSERT_NE(treetable_get_tree(t, 1, 2, 3, nullptr), nullptr);  // leaves the masks parked
    for (uint32_t expected : {0x800u, 0u}) {
        uint32_t masks[2] = {0xffff, 0xffff};
        const uint8_t *name = treetable_get_tree(t, 1, 2, 3, masks);
        ASSERT_NE(name, nullptr);
        EXPECT_EQ(name_of(name), path);
        EXPECT_EQ(masks[0], 0u);
        EXPECT_EQ(masks[1], expected);
    }
    treetable_free(t);
}

struct FileView {
    bool found;
    Name name;
    uint8_t type, op;
    uint32_t masks[2];
};

FileView read_file(filetable *t, uint64_t id) {
    FileView v{};
    const uint8_t *p = filetable_get_file(t, 1, 2, id, &v.type, &v.op, v.masks, nullptr);
    v.found = p != nullptr;
    if (p) v.name = name_of(p);
    return v;
}

TEST(FileTable, AddCommandOnAnUnknownIdMakesANamelessRecordThatInsertKeeps) {
    filetable *t = filetable_create(1024);
    const uint32_t first[2] = {0x10, 0}, second[2] = {0, 0x20};
    filetable_add_command(t, 1, 2, 9, first);
    filetable_add_command(t, 1, 2, 9, second);
    const Name late = utf16_name("late.txt");
    EXPECT_EQ(filetable_insert(t, late.data(), 0, 2, 1, nullptr, 4, 1, 2, 9), 1);  // kept
    FileView v = read_file(t, 9);
    ASSERT_TRUE(v.found);
    EXPECT_EQ(v.name, Name{});
    EXPECT_EQ(v.type, 0);
    EXPECT_EQ(v.op, 63);
    EXPECT_EQ(v.masks[0], 0x10u);
    EXPECT_EQ(v.masks[1], 0x20u);
    EXPECT_EQ(filetable_get_tree_id(t, 1, 2, 9), 0u);
    v = read_file(t, 9);
    EXPECT_EQ(v.masks[0] | v.masks[1], 0u);
    filetable_free(t);
}

// Flag values set in turn on an unknown file id; then selectors 0 and 1 each answer once.
struct DeleteCase {
    std::vector<uint8_t> set;
    int succeeded, failed;
};

class DeleteFlags : public ::testing::TestWithParam<DeleteCase> {};

TEST_P(DeleteFlags, SetAssignsGetReportsEachOutcomeOnce) {
    filetable *t = filetable_create(1024);
    for (uint8_t f : GetParam().set)
        filetable_set_delete_flag(t, 1, 2, 9, f);
    EXPECT_EQ(filetable_get_delete_flag(t, 1, 2, 9, 2), 0);  // other selectors: nothing
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(filetable_get_delete_flag(t, 1, 2, 9, 0), round ? 0 : GetParam().succeeded);
        EXPECT_EQ(filetable_get_delete_flag(t, 1, 2, 9, 1), round ? 0 : GetParam().failed);
    }
    const FileView v = read_file(t, 9);  // the nameless record, made by the first call
    EXPECT_TRUE(v.found);
    EXPECT_EQ(v.op, 63);
    filetable_free(t);
}

INSTANTIATE_TEST_SUITE_P(Sequences, DeleteFlags,
                         ::testing::Values(DeleteCase{{1}, 1, 0}, DeleteCase{{2}, 0, 1},
                                           DeleteCase{{1, 2}, 0, 1}, DeleteCase{{3}, 1, 1},
                                           DeleteCase{{3, 0}, 0, 0}));

TEST(FileTable, UpdatesNeverDisplaceAnotherKeyInsertDoes) {
    filetable *t = filetable_create(1024);
    const Name n = utf16_name("owner.txt");
    filetable_insert(t, n.data(), 0, 2, 1, nullptr, 4, 1, 2, 9);
    const uint64_t other = colliding_id(t, 9, [](uint64_t id) {
        return le({{id, 8}, {1, 4}, {2, 2}});
    });
    const uint32_t masks[2] = {0x100, 0x100};
    filetable_add_command(t, 1, 2, other, masks);
    filetable_set_delete_flag(t, 1, 2, other, 1);
    EXPECT_FALSE(read_file(t, other).found);
    const FileView v = read_file(t, 9);
    EXPECT_EQ(v.name, n);
    EXPECT_EQ(v.masks[0], 0u);
    EXPECT_EQ(filetable_get_delete_flag(t, 1, 2, 9, 0), 0);

    EXPECT_EQ(filetable_insert(t, nullptr, 1, 1, 1, nullptr, 0, 1, 2, other), 2);  // replaced
    EXPECT_FALSE(read_file(t, 9).found);
    EXPECT_TRUE(read_file(t, other).found);
    filetable_free(t);
}

}  // namespace
