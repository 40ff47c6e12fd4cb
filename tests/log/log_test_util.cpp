#include "log_test_util.h"

#include <fcntl.h>
#include <glob.h>
#include <stdarg.h>
#include <syslog.h>
#include <unistd.h>

namespace logtest {

bool file_exists(const std::string &path) {
    return access(path.c_str(), F_OK) == 0;
}

std::string exe_path() {
    char buf[4096];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    return std::string(buf, n > 0 ? size_t(n) : 0);
}

std::string exe_dir() {
    std::string exe = exe_path();
    return exe.substr(0, exe.rfind('/'));
}

SyslogLog &syslog_log() {
    static SyslogLog log;
    return log;
}

LogTest::LogTest() {
    syslog_log() = SyslogLog{};
    const auto *info = ::testing::UnitTest::GetInstance()->current_test_info();
    name_ = std::string("cvlt_") + info->name();
    for (char &c : name_)
        if (!isalnum(static_cast<unsigned char>(c))) c = '_';
    out_ = "/tmp/cvlog-test-out-" + std::to_string(getpid()) + "-" + name_;
    cleanup_.push_back(out_);
}

LogTest::~LogTest() {
    cvlog::reset();
    cvlog::g_realtime = saved_realtime_;
    cvlog::g_seconds = saved_seconds_;
    for (const auto &path : cleanup_)
        unlink(path.c_str());
    // A death test's child that ends on a fatal error leaves its fail-safe configuration.
    glob_t left{};
    if (glob(("/tmp/cvlog-" + name_ + "-*").c_str(), 0, nullptr, &left) == 0)
        for (size_t i = 0; i < left.gl_pathc; ++i)
            unlink(left.gl_pathv[i]);
    globfree(&left);
}

std::string LogTest::write_conf(const std::string &suffix, const std::string &text) {
    std::string path = exe_dir() + "/" + name_ + suffix + ".log.conf";
    write_file(path, text);
    cleanup_.push_back(path);
    return path;
}

std::string LogTest::file_conf(const std::string &out) const {
    return "[levels]\nTRACE = 10\n[formats]\nplain = \"%V %c %m%n\"\n[rules]\n*.* \"" + out +
           "\"; plain\n";
}

}  // namespace logtest

// The test executable's own syslog, so that what the facility sends can be checked.
extern "C" {
void openlog(const char *ident, int option, int facility) {
    auto &log = logtest::syslog_log();
    log.ident = ident ? ident : "";
    log.option = option;
    log.facility = facility;
}
void closelog(void) {}
void syslog(int priority, const char *format, ...) {
    char text[4096];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    logtest::syslog_log().records.push_back({priority, text});
}
}
