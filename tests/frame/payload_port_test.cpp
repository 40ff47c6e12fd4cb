// smbflow keeps the payload of live packets only on the port that the SMB plug-in parses, and
// reads that port out of the plug-in's parameters itself. Each parameter text here goes through
// both readers: smbflow's port must be the one the plug-in's own init sets, and where smbflow
// reads none (it then keeps every payload) the plug-in must refuse the text, except for a file
// name, which smbflow does not open.
#include <gtest/gtest.h>

#include "mini_host.h"
#include "payload_need.h"

namespace {

struct port_case {
    const char *params;  // null: no parameters
    bool file_name = false;
};

class PayloadPort : public ::testing::TestWithParam<port_case> {};

TEST_P(PayloadPort, IsThePortThePluginParses) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const port_case &c = GetParam();
    const std::optional<std::string> text =
        c.params ? std::optional<std::string>(c.params) : std::nullopt;
    const std::optional<uint16_t> port = smbflow::smb_plugin_port(text);
    int host = 0;
    if (port) {
        mini_host::reset();
        auto *ctx = static_cast<smb_plugin_ctx *>(process_smb_init(1, c.params, &host, 0));
        EXPECT_EQ(ctx->port, *port);
        process_smb_shutdown(ctx);
    } else if (!c.file_name) {
        EXPECT_EXIT(process_smb_init(1, c.params, &host, 0), ::testing::ExitedWithCode(255), "");
    }
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Texts, PayloadPort, ::testing::Values(
    port_case{nullptr}, port_case{""}, port_case{"filetable-size=64"}, port_case{"port=139"},
    port_case{"port=0"}, port_case{"port=0x20FD"}, port_case{"port=010"},
    port_case{",port=139,,"}, port_case{"port=139,port=-1"}, port_case{"port=-1,port=139"},
    port_case{"port=4294967295"}, port_case{"port==139"}, port_case{"port=65535"},
    port_case{"port=65536"}, port_case{"port=-2"}, port_case{"port"}, port_case{"port=1=2"},
    port_case{"/", true}));
// clang-format on

}  // namespace
