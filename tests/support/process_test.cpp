// Process and thread helpers; those that end or change the process run in children.
#include <gtest/gtest.h>

#include <errno.h>
#include <linux/capability.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "log_capture.h"
#include "utils_process.h"
#include "utils_timer.h"

namespace {

TEST(Helpers, Values) {
    const uint8_t bytes[] = {0x00, 0xAB, 0x7F};
    char *hex = corvaneexp_str2hexa(bytes, 3);
    EXPECT_STREQ(hex, "00AB7F");
    free(hex);
    EXPECT_EQ(corvaneexp_count_ones(bytes, 3), 12u);
    EXPECT_EQ(ones32(0x80000001u) + ones32(0xffffffffu), 34u);
    const std::pair<const char *, int32_t> numbers[] = {
        {"42", 42}, {"4a2", -1}, {"-5", -1}, {"", 0}};
    for (auto [text, value] : numbers)
        EXPECT_EQ(corvaneexp_test_positive_number(text), value);
}

TEST(TimedCond, DeadlineFromClockReading) {
    const struct {
        timespec now;
        uint32_t ms;
        timespec at;
    } cases[] = {{{10, 600000000}, 1500, {12, 100000000}},
                 {{10, 600000000}, 400, {11, 0}},
                 {{10, 600000000}, 399, {10, 999000000}},
                 {{7, 999999999}, 999, {8, 998999999}},
                 {{1, 5}, 4294967295u, {4294968, 295000005}}};
    for (const auto &c : cases) {
        timespec at = cv::process::deadline_after(c.now, c.ms);
        EXPECT_EQ(at.tv_sec, c.at.tv_sec) << c.ms;
        EXPECT_EQ(at.tv_nsec, c.at.tv_nsec) << c.ms;
    }
}

TEST(TimedCond, RecursiveMutexAndTimeout) {
    timed_cond cond{};
    ASSERT_EQ(corvaneexp_cond_init(&cond, nullptr), 0);
    EXPECT_EQ(corvaneexp_cond_lock(&cond), 0);
    EXPECT_EQ(corvaneexp_cond_trylock(&cond), 0);  // the holder may lock it again
    uint64_t start = corvaneexp_timer_get_uptime();
    EXPECT_EQ(corvaneexp_cond_timedwait(&cond, 20), ETIMEDOUT);
    EXPECT_GE(corvaneexp_timer_get_uptime() - start, 20000000u);
    corvaneexp_cond_unlock(&cond);
    corvaneexp_cond_unlock(&cond);
    corvaneexp_cond_destroy(&cond);
    pthread_mutex_destroy(cond.cond_mutex);
    free(cond.cond_mutex);
}

TEST(Rpc, ResultsAndLastMessage) {
    const struct {
        const char *text, *name;
        int rc;
        const char *last;
    } cases[] = {{nullptr, "getstats", -1, "rpc_parse: missing input string or function name"},
                 {"getstat:a=1", "getstats", -1, "rpc_parse: wrong rpc name"},
                 {"getstatsa=1", "getstats", -2, "rpc_parse: missing ':' in rpc"},
                 {"getstats:a=1", "getstats", -2, "rpc_parse: wrong rpc parameters"},
                 {"getstats:b=0x20,a=1", "getstats", 0, "Cfg found match: a 1"}};
    for (const auto &c : cases) {
        int32_t a = 0, b = 0;
        const config_value_desc table[] = {
            {"a", &a, CV_CONFIG_INT, 0}, {"b", &b, CV_CONFIG_INT, 0}, {nullptr, nullptr, 0, 0}};
        int rc = 0;
        Lines log = logged(CVLOG_DEBUG, [&] { rc = corvaneexp_rpc_parse(c.text, c.name, table); });
        EXPECT_EQ(rc, c.rc) << c.last;
        EXPECT_EQ(log.back(), std::string("DEBUG ") + c.last);
        EXPECT_EQ(table[1].flags, 0u);  // the caller's table is not made mandatory
        if (c.rc == 0) {
            EXPECT_EQ(a * 100 + b, 132);  // values land in the caller's targets
        }
    }
}

class Startup : public testing::Test {
  protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

uint32_t allowed_cpus() {
    cpu_set_t set;
    sched_getaffinity(0, sizeof set, &set);
    uint32_t mask = 0;
    for (int cpu = 0; cpu < 32; ++cpu)
        mask |= CPU_ISSET(cpu, &set) ? 1u << cpu : 0;
    return mask;
}

TEST_F(Startup, Affinity) {
    const uint32_t allowed = allowed_cpus(), lowest = allowed & -allowed, absent = ~allowed;
    corvaneexp_set_affinity(0xffffffff);  // left alone
    EXPECT_EQ(allowed_cpus(), allowed);
    for (int64_t mask : {int64_t(0), int64_t(-5), int64_t(0x100000000)})
        EXPECT_EXIT(corvaneexp_set_affinity(mask), testing::ExitedWithCode(255),
                    "ERROR  - Allowed CPU mask is from 1 to 4294967295\n");
    if (absent) {
        EXPECT_EXIT(corvaneexp_set_affinity(absent & -absent), testing::ExitedWithCode(255),
                    "ERROR  - Unable to set CPU mask\n");
    }
    EXPECT_EXIT((corvaneexp_set_affinity(lowest), _exit(allowed_cpus() == lowest ? 0 : 1)),
                testing::ExitedWithCode(0), "");
}

// Takes one capability out of the effective set: that identity change then fails as root.
void drop_capability(int cap) {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[2]{};
    syscall(SYS_capget, &header, data);
    data[cap / 32].effective &= ~(1u << (cap % 32));
    if (syscall(SYS_capset, &header, data) != 0) _exit(3);
}

// A change of user hands the logging facility's configuration file to the new user and reloads
// it: the facility must be running first.
void start_logging() {
    CvLog_Init("supporttest", "corvane_main");
}

TEST_F(Startup, SwitchUser) {
    const passwd *pw = getpwnam("nobody");
    if (geteuid() != 0 || !pw) GTEST_SKIP() << "needs root and the user nobody";
    const uid_t uid = pw->pw_uid;
    const gid_t gid = pw->pw_gid;
    EXPECT_EXIT((start_logging(), corvaneexp_switch_user("nobody"),
                 _exit(getuid() == uid && geteuid() == uid && getgid() == gid && getegid() == gid &&
                               getgroups(0, nullptr) == 1
                           ? 0
                           : 1)),
                testing::ExitedWithCode(0), "");
    EXPECT_EXIT((start_logging(), drop_capability(CAP_SETGID), corvaneexp_switch_user("nobody")),
                testing::ExitedWithCode(255), "Can't init groups");
    EXPECT_EXIT((start_logging(), drop_capability(CAP_SETUID), corvaneexp_switch_user("nobody")),
                testing::ExitedWithCode(255), "Unable to setuid");
    std::error_code ignored;
    for (const auto &f : std::filesystem::directory_iterator("/tmp", ignored))
        if (f.path().filename().string().starts_with("cvlog-supporttest-"))
            std::filesystem::remove(f.path(), ignored);
}

TEST(Daemonize, ChildContinuesInBackground) {
    int report[2], err[2];
    ASSERT_EQ(pipe(report) | pipe(err), 0);
    fflush(nullptr);
    pid_t child = fork();
    if (child == 0) {
        dup2(err[1], STDERR_FILENO);
        close(err[1]);
        close(report[0]);
        g_CvLogCtx.level = CVLOG_INFO;  // "Daemonized OK" goes to /dev/null
        corvaneexp_daemonize(1);        // returns only in the background process
        char cwd[8] = {}, in[16] = {}, out[16] = {};
        (void)!getcwd(cwd, sizeof cwd);
        (void)!readlink("/proc/self/fd/0", in, sizeof in - 1);
        (void)!readlink("/proc/self/fd/2", out, sizeof out - 1);
        bool ok = getpgrp() == getpid() && umask(0) == 0 && std::string(cwd) == "/" &&
                  std::string(in) == "/dev/null" && std::string(out) == "/dev/null";
        pid_t self = ok ? getpid() : -getpid();
        (void)!write(report[1], &self, sizeof self);
        _exit(0);
    }
    close(report[1]);
    close(err[1]);
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);  // the caller's side ends with status 0
    pid_t background = 0;
    ASSERT_EQ(read(report[0], &background, sizeof background), ssize_t(sizeof background));
    EXPECT_GT(background, 0) << "process group, umask, directory or streams not set";
    std::string log(256, '\0');
    log.resize(std::max<ssize_t>(read(err[0], log.data(), log.size()), 0));
    EXPECT_TRUE(log.ends_with(" - Backgrounding: " + std::to_string(background) + "\n")) << log;
    close(report[0]);
    close(err[0]);
}

}  // namespace
