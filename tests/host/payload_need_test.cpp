// The port that smbflow reads out of the SMB plug-in's parameters must be the one the plug-in
// uses: a wrong port would drop payload that the plug-in parses.
#include <gtest/gtest.h>

#include "payload_need.h"

namespace {

using smbflow::smb_plugin_port;

TEST(PayloadNeed, PortReadAsThePluginReadsIt) {
    const std::optional<uint16_t> refused;
    const std::vector<std::pair<std::optional<std::string>, std::optional<uint16_t>>> cases = {
        {std::nullopt, 445},
        {"", 445},
        {"filetable-size=64", 445},
        {"port=139", 139},
        {"port=0", 0},
        {"port=0x20FD", 8445},      // strtol, base 0
        {"port=010", 8},            // octal
        {",port=139,,", 139},       // empty items dropped
        {"port=139,port=-1", 445},  // the last wins; -1 is "not given"
        {"port=4294967295", 445},   // the same as -1 in 32 bits
        {"port==139", 139},         // empty pieces dropped
        {"port=65536", refused},
        {"port", refused},
        {"port=1=2", refused},
        {"/", refused},  // a readable file name: not read here
    };
    for (const auto &[params, port] : cases)
        EXPECT_EQ(smb_plugin_port(params), port) << params.value_or("(none)");
}

}  // namespace
