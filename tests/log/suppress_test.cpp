// Repeated-message suppression, driven by a fake clock; only the thread and fork cases wait
// (about a second) for the real suppression thread.
#define CV_LOG_SOURCE "tests/log"
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "log_test_util.h"

namespace {

using namespace logtest;
using Lines = std::vector<std::string>;

class Suppress : public LogTest {
  protected:
    void SetUp() override {
        cvlog::g_seconds = fake_seconds;
        g_fake_seconds = 1000000;
        write_conf("_init", file_conf(out_));
        write_conf("", file_conf(out_));
        CvLog_PreinitWithSupress(name_.c_str(), "sup", 1);
    }
    void log(int level, const std::string &text) { CV_LOG(level, "%s", text.c_str()); }
    // Waits up to 5 s for the suppression thread to write the given line.
    bool wait_for_line(const std::string &line) {
        for (int i = 0; i < 50; ++i) {
            for (const auto &l : out_lines())
                if (l == line) return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
        return false;
    }
};

TEST_F(Suppress, RepeatsSummarisedAfterTheMinuteAtFirstLevel) {
    log(CVLOG_WARN, "disk full");
    for (int i = 0; i < 4; ++i)
        log(CVLOG_ERROR, "disk full");
    log(CVLOG_WARN, "once");
    log(CVLOG_WARN, "disk fulL");  // one character apart: a text of its own
    log(CVLOG_WARN, "disk fulL");
    g_fake_seconds += 60;
    cvlog::expire_repeats(g_fake_seconds);
    EXPECT_EQ(out_lines(), (Lines{"WARN sup disk full", "WARN sup once", "WARN sup disk fulL"}));
    g_fake_seconds += 1;
    cvlog::expire_repeats(g_fake_seconds);
    EXPECT_EQ(out_lines(),
              (Lines{"WARN sup disk full", "WARN sup once", "WARN sup disk fulL",
                     "WARN sup REPEATED (5): disk full", "WARN sup REPEATED (2): disk fulL"}));
    log(CVLOG_WARN, "disk full");  // a new minute starts with a logged first occurrence
    EXPECT_EQ(out_lines().back(), "WARN sup disk full");
}

TEST_F(Suppress, EntriesStampedInTheFutureAreReported) {
    log(CVLOG_WARN, "x");
    log(CVLOG_WARN, "x");
    cvlog::expire_repeats(g_fake_seconds - 1);  // the clock was set back
    EXPECT_EQ(out_lines(), (Lines{"WARN sup x", "WARN sup REPEATED (2): x"}));
}

TEST_F(Suppress, MostVerboseThresholdKeepsEverything) {
    g_CvLogCtx.level = CVLOG_TRACE;
    for (int i = 0; i < 3; ++i)
        log(CVLOG_TRACE, "t");
    CvLog_FlushSupressMessage();
    EXPECT_EQ(out_lines(), (Lines{"TRACE sup t", "TRACE sup t", "TRACE sup t"}));
}

TEST_F(Suppress, FlushReportsAtOnceAndStartsOver) {
    for (int i = 0; i < 3; ++i)
        log(CVLOG_WARN, "m");
    CvLog_FlushSupressMessage();
    log(CVLOG_WARN, "m");
    EXPECT_EQ(out_lines(), (Lines{"WARN sup m", "WARN sup REPEATED (3): m", "WARN sup m"}));
}

TEST_F(Suppress, FullTableLogsFurtherTextsUntracked) {
    for (int i = 0; i < 64; ++i)
        log(CVLOG_WARN, "text " + std::to_string(i));
    log(CVLOG_WARN, "extra");
    log(CVLOG_WARN, "extra");
    log(CVLOG_WARN, "text 63");
    CvLog_FlushSupressMessage();
    Lines lines = out_lines();
    ASSERT_EQ(lines.size(), 67u);
    EXPECT_EQ(lines[64], "WARN sup extra");
    EXPECT_EQ(lines[65], "WARN sup extra");
    EXPECT_EQ(lines[66], "WARN sup REPEATED (2): text 63");
}

TEST_F(Suppress, LongTextsMatchedOnTheirFirst2047Characters) {
    std::string base(3000, 'a');
    std::string late = base, early = base;
    late[2047] = 'b';   // beyond the kept text: a repeat
    early[2046] = 'b';  // inside it: a text of its own
    log(CVLOG_WARN, base);
    log(CVLOG_WARN, late);
    log(CVLOG_WARN, early);
    CvLog_FlushSupressMessage();
    Lines lines = out_lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[2], "WARN sup REPEATED (2): " + base.substr(0, 2047));
}

TEST_F(Suppress, UnformattableMessageLoggedUnfiltered) {
    for (int i = 0; i < 2; ++i)
        CV_LOG(CVLOG_WARN, "%ls", L"\u00e9");  // no such character in "C"
    CvLog_FlushSupressMessage();
    EXPECT_EQ(out_lines().size(), 2u);
}

// The thread reports expired entries by itself, in the parent and in a forked child alike,
// also when it had been stopped before the fork.
class SuppressFork : public Suppress, public testing::WithParamInterface<bool> {};

TEST_P(SuppressFork, WorksInParentAndChildAfterFork) {
    log(CVLOG_WARN, "before");
    log(CVLOG_WARN, "before");
    if (GetParam()) CvLog_StopSupressThread();
    pid_t child = fork();
    if (child == 0) {
        log(CVLOG_WARN, "child");
        log(CVLOG_WARN, "child");
        g_fake_seconds += 61;
        _exit(wait_for_line("WARN sup REPEATED (2): child") ? 0 : 1);
    }
    ASSERT_GT(child, 0);
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    log(CVLOG_WARN, "parent");
    log(CVLOG_WARN, "parent");
    g_fake_seconds += 61;
    EXPECT_TRUE(wait_for_line("WARN sup REPEATED (2): parent"));
    // The counts were flushed once, before the fork.
    EXPECT_EQ(out_lines(), (Lines{"WARN sup before", "WARN sup REPEATED (2): before",
                                  "WARN sup child", "WARN sup REPEATED (2): child",
                                  "WARN sup parent", "WARN sup REPEATED (2): parent"}));
}

INSTANTIATE_TEST_SUITE_P(ThreadStoppedBeforeFork, SuppressFork, testing::Bool());

}  // namespace
