// smbflow as a service: output files following capture time (--rotate), the statistics line
// on SIGUSR1 and the pid file.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <regex>

#include "run_command.h"
#include "smb_session.h"

namespace {

using namespace hosttest;

const std::string kSample = std::string(TEST_DATA) + "/sample-smb2.pcap";

// The records of the sample end at 10:00:00.1 (four) and 10:00:02.0 (three) on 2024-03-05.
TEST(SmbflowRotate, OneFilePerIntervalOfCaptureTime) {
    struct Case {
        const char *rotate;
        std::vector<std::pair<std::string, size_t>> files;  // name and records
    };
    const Case cases[] = {
        {"1", {{"100000.csv", 4}, {"100002.csv", 3}}},
        {"2", {{"100000.csv", 4}, {"100002.csv", 3}}},
        {"3", {{"100000.csv", 7}}},
        {"3600", {{"100000.csv", 7}}},
    };
    const auto whole = run_command({SMBFLOW, "-q", "--plugin", SMB_PLUGIN, "-F", "csv", kSample});
    ASSERT_EQ(whole.status, 0) << whole.err;
    const auto all_lines = lines_of(whole.out);
    for (const Case &c : cases) {
        TempDir tmp;
        const auto r = run_command({SMBFLOW, "-q", "--plugin", SMB_PLUGIN, "--rotate", c.rotate,
                                    "-o", tmp.path("%H%M%S.csv"), kSample});
        ASSERT_EQ(r.status, 0) << r.err;
        std::vector<std::string> rows;
        size_t files = 0;
        for (const auto &[name, records] : c.files) {
            const auto lines = lines_of(read_file(tmp.path(name)));
            ASSERT_EQ(lines.size(), records + 1) << c.rotate << " " << name;
            EXPECT_EQ(lines[0], all_lines[0]) << "each file has its header";
            rows.insert(rows.end(), lines.begin() + 1, lines.end());
            ++files;
        }
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(tmp.path("")), {}),
                  static_cast<long>(files))
            << c.rotate;
        EXPECT_EQ(rows, std::vector<std::string>(all_lines.begin() + 1, all_lines.end()))
            << "the records of one output, in order";
    }
    const auto usage = run_command({SMBFLOW, "-q", "--rotate", "60", kSample});
    EXPECT_EQ(usage.status, 2) << "--rotate without -o";
}

// Records are written as they end: one that ends in an earlier interval than the open file's (a
// short flow left at the end of input behind a longer one that started first) goes into the
// open file, so that none is lost and no earlier file is written over.
TEST(SmbflowRotate, ARecordOfAnEarlierIntervalGoesIntoTheOpenFile) {
    using namespace testnet;
    TempDir tmp;
    constexpr uint64_t kT0 = 1709632800'000'000'000ull, kSecond = 1'000'000'000ull;
    const auto long_flow = udp_datagram(ipv4(10, 0, 0, 1), ipv4(10, 0, 0, 2), 5000, 53, {1});
    const std::vector<Packet> packets = {
        {kT0, long_flow},
        {kT0 + kSecond, udp_datagram(ipv4(10, 0, 0, 3), ipv4(10, 0, 0, 2), 5001, 53, {2})},
        {kT0 + 5 * kSecond, long_flow}};
    write_pcap(tmp.path("late.pcap"), kEthernet, frames_of(kEthernet, packets));
    const auto r = run_command({SMBFLOW, "-q", "--no-plugin", "--rotate", "1", "-o",
                                tmp.path("out-%H%M%S.csv"), tmp.path("late.pcap")});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(lines_of(read_file(tmp.path("out-100005.csv"))).size(), 3u)
        << "the header and both records";
    EXPECT_FALSE(std::filesystem::exists(tmp.path("out-100001.csv")));
}

// SIGUSR1 asks for a statistics line at once; the reading goes on. The pid file holds the
// process id while it runs and is gone afterwards.
TEST(SmbflowStats, Sigusr1WritesALineAndThePidFileNamesTheProcess) {
    TempDir tmp;
    int in[2], err[2];
    ASSERT_EQ(pipe(in), 0);
    ASSERT_EQ(pipe(err), 0);
    const std::string pid_file = tmp.path("smbflow.pid"), out = tmp.path("out.csv"),
                      ipfix = "file:" + tmp.path("out.ipfix");
    // Blocked from before the fork and across exec: a signal sent before smbflow has its
    // handler stays pending until its reading thread unblocks it, with the handler in place.
    sigset_t usr1, before;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &usr1, &before);
    const pid_t child = fork();
    if (child == 0) {
        dup2(in[0], STDIN_FILENO);
        dup2(err[1], STDERR_FILENO);
        close(in[1]);
        close(err[0]);
        execl(SMBFLOW, SMBFLOW, "--no-progress", "--plugin", SMB_PLUGIN, "--pid-file",
              pid_file.c_str(), "-o", out.c_str(), "--ipfix", ipfix.c_str(), "-", nullptr);
        _exit(127);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    close(in[0]);
    close(err[1]);
    const std::string capture = read_file(kSample);
    const size_t half = capture.size() / 2;
    // The first half of the packets, the signal, then the rest: the reading thread alone takes
    // the signal (at the latest when it starts reading) and writes the line before it reads
    // its next packet, so before any of the second half.
    ASSERT_EQ(write(in[1], capture.data(), half), ssize_t(half));
    kill(child, SIGUSR1);
    ASSERT_EQ(write(in[1], capture.data() + half, capture.size() - half),
              ssize_t(capture.size() - half));
    std::string text;
    char buf[4096];
    while (text.find('\n') == std::string::npos) {
        const ssize_t n = read(err[0], buf, sizeof buf);
        if (n <= 0) break;
        text.append(buf, n);
    }
    // Still running (standard input is open): the pid file names it.
    EXPECT_EQ(read_file(pid_file), std::to_string(child) + "\n");
    close(in[1]);
    for (ssize_t n; (n = read(err[0], buf, sizeof buf)) > 0;)
        text.append(buf, n);
    close(err[0]);
    int wstatus = 0;
    waitpid(child, &wstatus, 0);
    EXPECT_TRUE(WIFEXITED(wstatus) && WEXITSTATUS(wstatus) == 0) << wstatus << " " << text;
    const std::regex line(
        R"(smbflow: stats packets=(\d+) records=(\d+) ipfix\[file:[^\]]+\]=sent:(\d+),dropped:0)");
    std::smatch m;
    ASSERT_TRUE(std::regex_search(text, m, line)) << text;
    EXPECT_LT(std::stoul(m[1]), 47u) << "taken before the second half was read";
    EXPECT_LT(text.find("smbflow: stats"), text.find("smbflow summary")) << text;
    EXPECT_FALSE(std::filesystem::exists(pid_file));
}

}  // namespace
