// The early path: the exact stderr line, and syslog when stderr is closed.
#define CV_LOG_SOURCE "tests/log"
#include <errno.h>
#include <syslog.h>
#include <unistd.h>

#include "log_test_util.h"

namespace {

using namespace logtest;

constexpr time_t kMarch1At10 = 1456826400;  // 2016-03-01 10:00:00 UTC

struct EarlyCase {
    long nsec;
    int level;
    const char *stamp_tail;  // what follows "2016-03-01 10:00:00"
    const char *level_name;
    int priority;
};

void PrintTo(const EarlyCase &c, std::ostream *os) {
    *os << c.level << c.stamp_tail;
}

class EarlyLog : public LogTest, public ::testing::WithParamInterface<EarlyCase> {};

TEST_P(EarlyLog, LineBeforeInitialisation) {
    const EarlyCase &c = GetParam();
    cvlog::g_realtime = fake_realtime;
    g_fake_now = {kMarch1At10, c.nsec};
    StderrCapture capture;
    CvLog_Log(g_CvLogCtx.category, "f", 1, "fn", 2, 3, c.level, -1, "x=%d", 5);
    CvLog_EarlyLog("early", "f", "fn", 3, c.level, "text %s", "t");
    std::string pid = std::to_string(getpid());
    EXPECT_EQ(capture.text(), std::string("2016-03-01 10:00:00") + c.stamp_tail + " " + pid + " " +
                                  c.level_name + "  - x=5\n" + "2016-03-01 10:00:00" +
                                  c.stamp_tail + " " + pid + " " + c.level_name +
                                  " early - text t\n");
}

TEST_P(EarlyLog, SyslogWhenStderrIsClosed) {
    const EarlyCase &c = GetParam();
    int saved = dup(STDERR_FILENO);
    close(STDERR_FILENO);
    errno = ENOENT;
    CvLog_Log(nullptr, "f", 1, "fn", 2, 3, c.level, -1, "x=%d %m", 5);
    dup2(saved, STDERR_FILENO);
    close(saved);

    const SyslogLog &log = syslog_log();
    EXPECT_EQ(log.ident, "cv_log_app-not-set");
    EXPECT_EQ(log.option, LOG_PID | LOG_NDELAY | LOG_NOWAIT);
    EXPECT_EQ(log.facility, LOG_USER);
    ASSERT_EQ(log.records.size(), 1u);
    EXPECT_EQ(log.records[0].priority, c.priority);
    EXPECT_EQ(log.records[0].text,
              std::to_string(getpid()) + " " + c.level_name + "  - x=5 No such file or directory");
    EXPECT_EQ(g_CvLogPrivateCtx.syslog_open, 1);
}

// Milliseconds are not zero-padded; levels without a name print as UNKNOWN.
INSTANTIATE_TEST_SUITE_P(
    Levels, EarlyLog,
    ::testing::Values(EarlyCase{7000000, CVLOG_ERROR, ".7", "ERROR", LOG_ERR},
                      EarlyCase{250999999, CVLOG_WARN, ".250", "WARN", LOG_WARNING},
                      EarlyCase{0, CVLOG_INFO, ".0", "INFO", LOG_INFO},
                      EarlyCase{999999999, CVLOG_DEBUG, ".999", "DEBUG", LOG_DEBUG},
                      EarlyCase{10000000, CVLOG_TRACE, ".10", "TRACE", LOG_DEBUG},
                      EarlyCase{1, CVLOG_NOTICE, ".0", "UNKNOWN", LOG_DEBUG},
                      EarlyCase{1, 120, ".0", "UNKNOWN", LOG_DEBUG}));

TEST_F(LogTest, CallSiteTestsTheThreshold) {
    StderrCapture capture;
    CV_LOG(CVLOG_INFO, "hidden");
    CV_LOG(CVLOG_NOTICE, "shown %d", 1);
    g_CvLogCtx.level = 101;
    CV_LOG(CVLOG_ERROR, "hidden");
    std::string text = capture.text();
    EXPECT_EQ(text.find("hidden"), std::string::npos);
    EXPECT_NE(text.find(" UNKNOWN  - shown 1\n"), std::string::npos);
}

}  // namespace
