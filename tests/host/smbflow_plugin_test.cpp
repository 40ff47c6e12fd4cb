// smbflow with the SMB plug-in: golden outputs of the sample capture with the six fields,
// the same records from four queues as from one, parse results in the summary. (The plug-in's
// refusal of bad parameters is in smbflow_test's error table.)
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

#include "golden.h"
#include "run_command.h"
#include "smb_session.h"

namespace {

using namespace hosttest;

const std::string kSample = std::string(TEST_DATA) + "/sample-smb2.pcap";

CommandResult smbflow(std::vector<std::string> args) {
    args.insert(args.begin(), {SMBFLOW, "--no-progress", "--plugin", SMB_PLUGIN});
    return run_command(args);
}

TEST(SmbflowWithPlugin, GoldenOutputs) {
    for (const auto &[format, file] :
         {std::pair{"text", "sample-smb.txt"}, std::pair{"csv", "sample-smb.csv"},
          std::pair{"json", "sample-smb.jsonl"}}) {
        auto r = smbflow({"-q", "-F", format, kSample});
        ASSERT_EQ(r.status, 0) << r.err;
        expect_golden(file, r.out);
    }
    const std::string csv = read_file(std::string(GOLDEN_DIR) + "/sample-smb.csv");
    for (const char *expected : {"\\\\fileserver\\public,docs\\report.txt,file,2,opened,0x01",
                                 "\\\\fileserver\\projects,reports\\q1.csv,file,2,created,0x02"})
        EXPECT_NE(csv.find(expected), std::string::npos) << expected;
}

TEST(SmbflowWithPlugin, FourQueuesGiveTheSameRecordsAsOne) {
    TempDir tmp;
    std::vector<testnet::SessionSpec> sessions(40);
    for (int i = 0; i < 40; ++i) {
        testnet::SessionSpec &s = sessions[i];
        s.client = testnet::ipv4(10, 7, 0, static_cast<uint8_t>(1 + i));
        s.server = testnet::ipv4(10, 7, 1, static_cast<uint8_t>(1 + i % 3));
        s.client_port = static_cast<uint16_t>(50000 + i);
        s.start_ns = 1709632800ull * 1'000'000'000ull + i * 2'000'000ull;
        s.create_new = i % 2;
        s.file = "share\\f" + std::to_string(i);
    }
    const auto all = testnet::smb2_sessions(sessions);
    const std::string file = tmp.path("many.pcap");
    testnet::write_pcap(file, testnet::kEthernet, testnet::frames_of(testnet::kEthernet, all));
    auto one = smbflow({"-q", "-F", "csv", file});
    auto four = smbflow({"-q", "-F", "csv", "--queues", "4", file});
    ASSERT_EQ(one.status, 0) << one.err;
    ASSERT_EQ(four.status, 0) << four.err;
    EXPECT_EQ(four.out, one.out);
    EXPECT_EQ(std::count(one.out.begin(), one.out.end(), '\n'), 1 + 40 * 3);
}

TEST(SmbflowWithPlugin, SummaryCountsParseResults) {
    auto r = smbflow({"-F", "csv", kSample});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.err.find("parse results by code     0="), std::string::npos) << r.err;
    EXPECT_NE(r.err.find(" (record)"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("with SMB fields         6\n"), std::string::npos) << r.err;
}

}  // namespace
