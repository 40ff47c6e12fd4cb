// Initialisation: which configuration is used, the fail-safe file, re-initialisation and the
// fatal cases.
#define CV_LOG_SOURCE "tests/log"
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <regex>

#include "log_test_util.h"

namespace {

using namespace logtest;

TEST_F(LogTest, FailSafeConfigurationWrittenUnderTmpAndRemoved) {
    StderrCapture capture;
    CvLog_Init(name_.c_str(), "corvane_main");
    std::string path = g_CvLogPrivateCtx.config_path;
    EXPECT_EQ(g_CvLogPrivateCtx.config_is_temp, 1);
    EXPECT_TRUE(std::regex_match(path, std::regex("/tmp/cvlog-" + name_ + "-" +
                                                  std::to_string(getpid()) + "-[A-Za-z0-9]{6}")));
    EXPECT_NE(read_file(path).find("*.WARN\t\t\t>syslog, LOG_DAEMON;simple"), std::string::npos);

    CV_LOG(CVLOG_WARN, "hello %s", "there");
    CvLog_Deinit();
    EXPECT_FALSE(file_exists(path));
    EXPECT_EQ(g_CvLogPrivateCtx.config_is_temp, 0);
    EXPECT_TRUE(std::regex_match(
        capture.text(),
        std::regex(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} )" + std::to_string(getpid()) +
                   R"( \([0-9a-f]+\) WARN  corvane_main - TestBody - hello there\n)")));
    ASSERT_EQ(syslog_log().records.size(), 1u);  // WARN and above also go to syslog
    EXPECT_EQ(syslog_log().records[0].priority, LOG_DAEMON | LOG_WARNING);
    EXPECT_EQ(syslog_log().records[0].text, "corvane_main - TestBody - hello there");
    EXPECT_EQ(syslog_log().ident, exe_path().substr(exe_dir().size() + 1));
}

TEST_F(LogTest, NullNameLooksForExecutablePathDotLogConf) {
    std::string conf = exe_path() + ".log.conf";
    write_file(conf, file_conf(out_));
    cleanup_.push_back(conf);
    CvLog_Init(nullptr, "c");
    EXPECT_EQ(g_CvLogPrivateCtx.config_path, conf);
    EXPECT_EQ(std::string(g_CvLogPrivateCtx.app_name), exe_path().substr(exe_dir().size() + 1));
}

// Configurations next to the executable are preferred to the fail-safe one.
TEST_F(LogTest, PreinitUsesConfigurationsNextToExecutable) {
    std::string init_out = out_ + ".init";
    cleanup_.push_back(init_out);
    std::string init_conf = write_conf("_init", file_conf(init_out));
    std::string conf = write_conf("", file_conf(out_));
    CvLog_Preinit(name_.c_str(), "early_cat");
    EXPECT_EQ(g_CvLogPrivateCtx.init_config_path, init_conf);
    EXPECT_EQ(g_CvLogPrivateCtx.config_path, conf);
    EXPECT_EQ(g_CvLogPrivateCtx.init_config_is_temp + g_CvLogPrivateCtx.config_is_temp, 0);
    CV_LOG(CVLOG_WARN, "one");
    CvLog_Reinit("late_cat");
    CV_LOG(CVLOG_WARN, "two");
    EXPECT_EQ(lines_of(read_file(init_out)), std::vector<std::string>{"WARN early_cat one"});
    EXPECT_EQ(out_lines(), std::vector<std::string>{"WARN late_cat two"});
}

TEST_F(LogTest, PreinitWithoutConfigurationsMakesTwoTemporaryFiles) {
    StderrCapture capture;
    CvLog_Preinit(name_.c_str(), "c");
    std::string init_path = g_CvLogPrivateCtx.init_config_path,
                main_path = g_CvLogPrivateCtx.config_path;
    EXPECT_EQ(init_path.rfind("/tmp/cvlog-" + name_ + "-" + std::to_string(getpid()) + "-init-", 0),
              0u);
    EXPECT_EQ(read_file(init_path), read_file(main_path));
    CvLog_Reinit("c");
    EXPECT_FALSE(file_exists(init_path));
    EXPECT_TRUE(file_exists(main_path));
    CvLog_Deinit();
    EXPECT_FALSE(file_exists(main_path));
}

TEST_F(LogTest, AfterSwitchUserSelectsCategoryByDaemonState) {
    write_conf("", file_conf(out_));
    CvLog_Init(name_.c_str(), "fg");
    CvLog_AfterDaemonize("daemon_early");
    CV_LOG(CVLOG_WARN, "a");
    CvLog_SwitchUserPrepare(getpwuid(geteuid())->pw_name);
    CvLog_AfterSwitchUser("daemon", "foreground");
    CV_LOG(CVLOG_WARN, "b");
    EXPECT_EQ(out_lines(), (std::vector<std::string>{"WARN daemon_early a", "WARN daemon b"}));
}

// A configuration the process may read but not write is passed over with a warning.
TEST_F(LogTest, ReadOnlyConfigurationWarnedAbout) {
    std::string conf = write_conf("", file_conf(out_));
    chmod(conf.c_str(), 0444);
    EXPECT_EXIT(
        {
            if (geteuid() == 0) {  // root may write anything: drop to nobody first
                if (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0) exit(9);
            }
            CvLog_Init(name_.c_str(), "c");
            bool fail_safe = g_CvLogPrivateCtx.config_is_temp;
            CvLog_Deinit();
            exit(fail_safe ? 0 : 8);
        },
        ::testing::ExitedWithCode(0),
        "WARN early - CvLog_Init\\(\\) configuration file \".*" + name_ +
            ".log.conf\" check permissions");
}

struct FatalCase {
    const char *what;
    void (*run)(const std::string &name);
    const char *message;
};

const std::string kLongName(2000, 'c');  // more than zlog takes for a category name

const FatalCase kFatalCases[] = {
    {"NullCategory", [](const std::string &n) { CvLog_Init(n.c_str(), nullptr); },
     "ERROR early - CvLog_GetCat\\(\\) category NULL exit\\(EXIT_FAILURE\\)"},
    {"MissingCategoryAtInit",
     [](const std::string &n) { CvLog_Init(n.c_str(), kLongName.c_str()); },
     "ERROR early - CvLog_GetCat\\(\\) zlog_get_category failed exit\\(EXIT_FAILURE\\)"},
    {"MissingCategoryAtReinit",
     [](const std::string &n) {
         CvLog_Init(n.c_str(), "good");
         CvLog_Reinit(kLongName.c_str());
     },
     "ERROR good - .* - invalid category c+\n.*ERROR early - CvLog_GetCat\\(\\) zlog_get_category "
     "failed"},
    {"UnknownUser",
     [](const std::string &n) {
         CvLog_Init(n.c_str(), "c");
         CvLog_SwitchUserPrepare("no-such-user-cvlog");
     },
     "ERROR early - CvLog_SwitchUserPrepare - getpwnam user:no-such-user-cvlog failed:.* "
     "exit\\(EXIT_FAILURE\\)"},
    {"MainConfigurationGoneAtReinit",
     [](const std::string &n) {
         CvLog_Init(n.c_str(), "c");
         unlink(g_CvLogPrivateCtx.config_path);
         CvLog_Reinit("c");
     },
     "ERROR early - CheckConfigFile\\(\\) failed exit\\(EXIT_FAILURE\\)"},
};

void PrintTo(const FatalCase &c, std::ostream *os) {
    *os << c.what;
}

class Fatal : public LogTest, public ::testing::WithParamInterface<FatalCase> {};

TEST_P(Fatal, ExitsWithStatusOne) {
    EXPECT_EXIT(GetParam().run(name_), ::testing::ExitedWithCode(1), GetParam().message);
}

INSTANTIATE_TEST_SUITE_P(Log, Fatal, ::testing::ValuesIn(kFatalCases),
                         [](const auto &info) { return std::string(info.param.what); });

// zlog rejects a configuration it cannot parse; the message keeps its missing parenthesis.
TEST_F(LogTest, UnusableConfigurationIsFatal) {
    write_conf("", "[rules]\n*.* >nowhere\n");
    EXPECT_EXIT(
        CvLog_Init(name_.c_str(), "c"), ::testing::ExitedWithCode(1),
        "WARN early - CvLog_Init\\(\\) zlog_init confpath:.*" + name_ +
            ".log.conf failed\n.*ERROR early - CvLog_Init\\(\\) failed exit\\(EXIT_FAILURE\n");
}

}  // namespace
