// A record's deep copy, and fresh records (the markers that every parser test starts from)
// whatever memory a freed record leaves behind for the next one.
#include <gtest/gtest.h>

#include <cstring>

#include "smb.h"
#include "smb_activity.h"

namespace {

TEST(Record, DeepCopyOwnsItsNames) {
    smb_flow_data *rec = smb_record_new();
    rec->version = 2;
    rec->file_id = 42;
    rec->file_name = static_cast<char *>(calloc(SMB_NAME_SIZE, 1));
    std::memcpy(rec->file_name, "a\0.\0t\0", 6);
    rec->file_name[127] = 'z';  // copied whole, not as a string

    smb_flow_data *copy = smb_record_copy(rec);
    ASSERT_NE(copy->file_name, nullptr);
    EXPECT_NE(copy->file_name, rec->file_name);
    EXPECT_EQ(std::memcmp(copy->file_name, rec->file_name, SMB_NAME_SIZE), 0);
    EXPECT_EQ(copy->tree_name, nullptr);
    EXPECT_EQ(copy->file_id, 42u);

    void *slot = rec;
    smb_record_free(&slot);
    EXPECT_EQ(copy->file_name[127], 'z');  // still readable after the source is gone
    slot = copy;
    smb_record_free(&slot);
}

// Dirties every field a parse can set, with owned names and counters.
void dirty(smb_flow_data *rec) {
    rec->version = 2;
    rec->is_response = 1;
    rec->security = 3;
    rec->commands[0] = rec->commands[1] = 0x2000;
    rec->message_id = rec->session_id = rec->session_ns = 7;
    rec->op = 0x41;
    rec->file_type = 2;
    rec->tree_id = 9;
    rec->file_id = 11;
    rec->file_name = smb_name_new();
    std::memset(rec->file_name, 'f', SMB_NAME_SIZE);
    rec->tree_name = smb_name_new();
    std::memset(rec->tree_name, 't', SMB_NAME_SIZE);
    if (rec->activity) {
        std::memset(rec->activity, 0x5a, sizeof *rec->activity);
        rec->activity->rename_to = nullptr;
    }
}

void expect_fresh(const smb_flow_data *rec, bool with_activity, const char *step) {
    SCOPED_TRACE(step);
    EXPECT_EQ(rec->version, 0);
    EXPECT_EQ(rec->is_response, 0xff);
    EXPECT_EQ(rec->security, 0);
    EXPECT_EQ(rec->commands[0], SMB_CMD_INVALID);
    EXPECT_EQ(rec->commands[1], SMB_CMD_INVALID);
    EXPECT_EQ(rec->message_id | rec->session_id | rec->session_ns | rec->file_id, 0u);
    EXPECT_EQ(rec->op, SMB_OP_INVALID);
    EXPECT_EQ(rec->file_type, 0);
    EXPECT_EQ(rec->tree_id, 0u);
    EXPECT_EQ(rec->file_name, nullptr);
    EXPECT_EQ(rec->tree_name, nullptr);
    EXPECT_EQ(rec->who, nullptr);
    if (!with_activity) {
        EXPECT_EQ(rec->activity, nullptr);
        return;
    }
    ASSERT_NE(rec->activity, nullptr);
    EXPECT_TRUE(smb_activity_is_inline(rec));
    const smb_activity zero{};
    EXPECT_EQ(std::memcmp(rec->activity, &zero, sizeof zero), 0);
}

// Freed records and names are handed out again: every order of the two record sizes must
// still give fresh records, and a reused name must be a separate buffer of its own.
TEST(Record, FreshAfterAnyFreedRecord) {
    const struct {
        const char *name;
        bool first_with_activity;
        bool second_with_activity;
    } cases[] = {{"plain after plain", false, false},
                 {"counting after counting", true, true},
                 {"plain after counting", true, false},
                 {"counting after plain", false, true}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        for (int round = 0; round < 3; ++round) {
            smb_flow_data *first =
                c.first_with_activity ? smb_record_new_with_activity() : smb_record_new();
            expect_fresh(first, c.first_with_activity, "first");
            dirty(first);
            void *slot = first;
            smb_record_free(&slot);
            EXPECT_EQ(slot, nullptr);
            smb_flow_data *second =
                c.second_with_activity ? smb_record_new_with_activity() : smb_record_new();
            expect_fresh(second, c.second_with_activity, "second");
            // A copy of a dirtied record owns names of its own, not the buffers just freed.
            dirty(second);
            smb_flow_data *copy = smb_record_copy(second);
            EXPECT_NE(copy->file_name, second->file_name);
            EXPECT_NE(copy->tree_name, second->tree_name);
            EXPECT_NE(copy->file_name, copy->tree_name);
            EXPECT_EQ(copy->file_name[SMB_NAME_SIZE - 1], 'f');
            EXPECT_EQ(copy->tree_name[0], 't');
            slot = second;
            smb_record_free(&slot);
            EXPECT_EQ(copy->file_name[0], 'f');  // intact after the source's names went back
            slot = copy;
            smb_record_free(&slot);
        }
    }
}

}  // namespace
