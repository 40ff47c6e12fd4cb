// The entry point hands the descriptor to the host exactly once, with the host's arguments.
#include <gtest/gtest.h>

#include <string>

#include "smb.h"

namespace {
int add_calls;
void *seen_descriptor;
void *seen_args[4];
}  // namespace

extern "C" int corvane_plugin_add(void *descriptor, void *a1, void *a2, void *a3, void *a4) {
    ++add_calls;
    seen_descriptor = descriptor;
    seen_args[0] = a1;
    seen_args[1] = a2;
    seen_args[2] = a3;
    seen_args[3] = a4;
    return 77;
}

namespace {

TEST(Entry, ModuleInitRegistersTheDescriptorOnce) {
    int a = 0, b = 0, c = 0, d = 0;
    EXPECT_EQ(corvane_module_init(&a, &b, &c, &d), 77);
    EXPECT_EQ(add_calls, 1);
    ASSERT_EQ(seen_descriptor, &plugin);
    EXPECT_EQ(seen_args[0], &a);
    EXPECT_EQ(seen_args[1], &b);
    EXPECT_EQ(seen_args[2], &c);
    EXPECT_EQ(seen_args[3], &d);
}

TEST(Entry, HelpTextLineBreaksAndBlanks) {
    std::string help = plugin.help;
    EXPECT_EQ(help.rfind("smb parser\n  Parameters\n   port=<0,65535>     parse only", 0), 0u);
    EXPECT_EQ(std::count(help.begin(), help.end(), '\n'), 2);
    EXPECT_NE(help.find("parse all ports)   treetable-size=<unsigned int>   filetable-size="),
              std::string::npos);
    EXPECT_TRUE(help.ends_with("datatable-size=<unsigned int>"));
}

}  // namespace
