// A record's deep copy (the fresh record's markers are what every parser test starts from).
#include <gtest/gtest.h>

#include <cstring>

#include "smb.h"

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

}  // namespace
