#include <gtest/gtest.h>

#include "smb_table_scheme.h"

TEST(Scheme, Placeholder) { EXPECT_EQ(smb::slot_count(1000), 1024); }
