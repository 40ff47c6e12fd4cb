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

// Records handed out by a timeout while the capture goes on are completed by the plug-in (names
// from the shared tables) like those that end with the input: sessions 10 s apart give the same
// rows with a 2 s idle timeout as with none that fires.
TEST(SmbflowWithPlugin, RecordsEndedByATimeoutAreCompletedAlike) {
    TempDir tmp;
    std::vector<testnet::SessionSpec> sessions(4);
    for (int i = 0; i < 4; ++i) {
        testnet::SessionSpec &s = sessions[i];
        s.client = testnet::ipv4(10, 7, 0, static_cast<uint8_t>(1 + i));
        s.server = testnet::ipv4(10, 7, 1, 1);
        s.start_ns = (1709632800ull + 10ull * i) * 1'000'000'000ull;
        s.create_new = i % 2;
        s.file = "share\\t" + std::to_string(i);
    }
    const std::string file = tmp.path("apart.pcap");
    testnet::write_pcap(file, testnet::kEthernet,
                        testnet::frames_of(testnet::kEthernet, testnet::smb2_sessions(sessions)));
    auto at_end = smbflow({"-q", "-F", "csv", "--inactive-timeout", "3600", file});
    auto timed = smbflow({"-q", "-F", "csv", "--inactive-timeout", "2", file});
    ASSERT_EQ(at_end.status, 0) << at_end.err;
    ASSERT_EQ(timed.status, 0) << timed.err;
    auto rows = [](const std::string &out) {
        auto lines = lines_of(out);
        std::sort(lines.begin(), lines.end());
        return lines;
    };
    EXPECT_EQ(rows(timed.out), rows(at_end.out));
    for (int i = 0; i < 4; ++i)
        EXPECT_NE(at_end.out.find("share\\t" + std::to_string(i)), std::string::npos) << i;
}

// Standard input is read through libpcap and its packets are copied, the payload only where
// the plug-in reads it; the records must be those of the file read in place.
TEST(SmbflowWithPlugin, CopiedPacketsGiveTheRecordsOfTheFileReadInPlace) {
    TempDir tmp;
    std::vector<testnet::Packet> all;
    for (uint16_t port : {445, 8445}) {
        testnet::SessionSpec s;
        s.client = testnet::ipv4(10, 7, 0, 1);
        s.server = testnet::ipv4(10, 7, 1, 1);
        s.client_port = static_cast<uint16_t>(port + 40000);
        s.server_port = port;
        s.file = "share\\on" + std::to_string(port);
        auto p = testnet::smb2_session(s);
        all.insert(all.end(), p.begin(), p.end());
    }
    const std::string file = tmp.path("ports.pcap");
    // Microsecond stamps: standard input cannot be looked at twice for finer ones.
    testnet::write_pcap(file, testnet::kEthernet, testnet::frames_of(testnet::kEthernet, all),
                        false);
    // Which of the two sessions gets its file name: the one on the plug-in's port.
    for (const auto &[options, named] :
         std::vector<std::pair<std::string, std::string>>{{"", "on445"},
                                                          {"--params port=0x20FD", "on8445"},
                                                          {"--params port=0", "on445 on8445"},
                                                          {"--no-plugin", ""}}) {
        const std::string plugin = options == "--no-plugin" ? "" : " --plugin " SMB_PLUGIN;
        const std::string run =
            std::string(SMBFLOW) + " --no-progress -q -F csv" + plugin + " " + options;
        auto mapped = run_command({"/bin/sh", "-c", run + " " + file});
        auto copied = run_command({"/bin/sh", "-c", run + " - < " + file});
        ASSERT_EQ(mapped.status, 0) << mapped.err;
        ASSERT_EQ(copied.status, 0) << copied.err;
        EXPECT_EQ(copied.out, mapped.out) << options;
        for (const std::string name : {"on445", "on8445"})
            EXPECT_EQ(mapped.out.find(name) != std::string::npos,
                      named.find(name) != std::string::npos)
                << options << " " << name;
    }
}

TEST(SmbflowWithPlugin, SummaryCountsParseResults) {
    auto r = smbflow({"-F", "csv", kSample});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.err.find("parse results by code     0="), std::string::npos) << r.err;
    EXPECT_NE(r.err.find(" (record)"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("with SMB fields         6\n"), std::string::npos) << r.err;
}

}  // namespace
