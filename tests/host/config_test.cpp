// smbflow --config: long options one a line, the command line winning over the file.
#include <gtest/gtest.h>

#include <filesystem>

#include "run_command.h"

namespace {

using namespace hosttest;

const std::string kSample = std::string(TEST_DATA) + "/sample-smb2.pcap";

TEST(SmbflowConfig, FileOptionsAndCommandLine) {
    struct Case {
        const char *file;
        std::vector<std::string> args;
        int status;
        const char *first_line;  // of standard output; the start of standard error when failing
        bool summary;
    };
    const Case cases[] = {
        // A value with commas or blanks is one value; a flag may stand alone; comments go.
        {"# probe\nformat = json\nfields = src_port,dst_port\nfilter = tcp port 445\nquiet\n",
         {},
         0,
         R"({"src_port":49732,"dst_port":445})",
         false},
        // The command line wins.
        {"format = json\nfields = src_port,dst_port\n",
         {"-F", "csv", "--fields", "dst_port"},
         0,
         "dst_port",
         true},
        {"quiet = true\nformat = csv\nfields = \"proto\"\n", {}, 0, "proto", false},
        {"quiet = false\nfields = proto\n", {"-F", "csv"}, 0, "proto", true},
        // A misspelt name or a bad value is refused as on the command line.
        {"fromat = json\n", {}, 2, "", false},
        {"queues = 0\n", {}, 2, "", false},
    };
    TempDir tmp;
    for (const Case &c : cases) {
        const std::string conf = tmp.path("smbflow.conf");
        write_file(conf, c.file);
        std::vector<std::string> args = {
            SMBFLOW, "--no-progress", "--plugin", SMB_PLUGIN, "--config", conf, kSample};
        args.insert(args.end(), c.args.begin(), c.args.end());
        const auto r = run_command(args);
        EXPECT_EQ(r.status, c.status) << c.file << r.err;
        if (c.status != 0) {
            EXPECT_TRUE(r.out.empty()) << c.file;
            EXPECT_FALSE(r.err.empty()) << c.file;
            continue;
        }
        const auto lines = lines_of(r.out);
        ASSERT_FALSE(lines.empty()) << c.file;
        EXPECT_EQ(lines[0], c.first_line) << c.file;
        EXPECT_EQ(r.err.find("smbflow summary") != std::string::npos, c.summary) << c.file;
    }
    // Options that may be given more than once take every line.
    write_file(tmp.path("two.conf"), "ipfix = file:" + tmp.path("a.ipfix") +
                                         "\nipfix = file:" + tmp.path("b.ipfix") + "\nquiet\n");
    const auto r = run_command({SMBFLOW, "--no-progress", "--plugin", SMB_PLUGIN, "--config",
                                tmp.path("two.conf"), kSample});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_GT(std::filesystem::file_size(tmp.path("a.ipfix")), 0u);
    EXPECT_EQ(read_file(tmp.path("a.ipfix")).size(), read_file(tmp.path("b.ipfix")).size());
}

}  // namespace
