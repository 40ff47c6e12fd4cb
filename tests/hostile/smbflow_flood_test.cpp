// smbflow under floods: CREATE requests that are never answered, from few connections, and
// ever new connections that start a compound message and never finish it, a millisecond apart.
// The plug-in's tables are bounded, and the host lets idle connections go after the inactive
// timeout: four or ten times the traffic costs no more than a few megabytes of peak memory.
// The tables' flatness is checked exactly in flood_test.cpp.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

struct run_result {
    int status = -1;
    long peak_rss_kb = 0;
};

// Runs a program with its output thrown away and reports its exit status and peak memory.
run_result run(const std::vector<std::string> &args) {
    std::vector<char *> argv;
    for (const std::string &a : args)
        argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        if (!freopen("/dev/null", "w", stdout) || !freopen("/dev/null", "w", stderr)) _exit(127);
        execv(argv[0], argv.data());
        _exit(127);
    }
    run_result r;
    int status = 0;
    rusage usage{};
    if (pid > 0 && wait4(pid, &status, 0, &usage) == pid) {
        r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        r.peak_rss_kb = usage.ru_maxrss;
    }
    return r;
}

struct flood {
    const char *name;
    const char *mode;  // smb_capgen mode
    const char *small;
    const char *large;
    std::vector<std::string> capgen_args;
    std::vector<std::string> smbflow_args;
};

class SmbflowFlood : public testing::TestWithParam<flood> {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/smb-flood-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
    }
    void TearDown() override { fs::remove_all(dir_); }
    fs::path dir_;
};

TEST_P(SmbflowFlood, CompletesWithoutGrowingWhereTheTablesBoundIt) {
    const flood &f = GetParam();
    long extra[2] = {0, 0};  // peak memory with the plug-in beyond the bare host's
    long peak[2] = {0, 0};
    const char *counts[2] = {f.small, f.large};
    for (int i = 0; i < 2; ++i) {
        const std::string capture = (dir_ / (std::string(f.name) + ".pcap")).string();
        std::vector<std::string> gen = {SMB_CAPGEN, f.mode, "-o", capture, "-n", counts[i]};
        gen.insert(gen.end(), f.capgen_args.begin(), f.capgen_args.end());
        ASSERT_EQ(run(gen).status, 0);
        std::vector<std::string> args = {SMBFLOW, "-q", "--no-progress", "-o", "/dev/null"};
        args.insert(args.end(), f.smbflow_args.begin(), f.smbflow_args.end());
        args.push_back(capture);
        const run_result with = run(args);
        args.insert(args.begin() + 1, "--no-plugin");
        const run_result bare = run(args);
        EXPECT_EQ(with.status, 0);
        EXPECT_EQ(bare.status, 0);
        peak[i] = with.peak_rss_kb;
        extra[i] = with.peak_rss_kb - bare.peak_rss_kb;
    }
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "peak memory under a sanitizer counts its shadow memory and quarantine";
#endif
    RecordProperty("peak_kb_small", std::to_string(peak[0]));
    RecordProperty("peak_kb_large", std::to_string(peak[1]));
    RecordProperty("plugin_share_kb_large", std::to_string(extra[1]));
    EXPECT_LT(peak[1], peak[0] + 8 * 1024)
        << f.small << ": " << peak[0] << " KB (" << extra[0] << " KB for the plug-in), " << f.large
        << ": " << peak[1] << " KB (" << extra[1] << " KB for the plug-in)";
}

INSTANTIATE_TEST_SUITE_P(
    Hostile, SmbflowFlood,
    testing::Values(
        flood{"unanswered", "unanswered", "20000", "200000", {"-c", "20"}, {}},
        flood{
            "halfopen", "halfopen", "20000", "80000", {"-g", "1000"}, {"--inactive-timeout", "1"}}),
    [](const testing::TestParamInfo<flood> &info) { return std::string(info.param.name); });

}  // namespace
