// Shared helpers of the logging tests: captured stderr and syslog, files next to the test
// executable, and a fixture that puts the facility back to its initial state.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <vector>

#include "cv_log_internal.h"
#include "support/text_files.h"

namespace logtest {

using testfiles::lines_of;
using testfiles::read_file;
using testfiles::write_file;
bool file_exists(const std::string &path);
std::string exe_path();
std::string exe_dir();

// Captures what is written to file descriptor 2 until text() is called.
class StderrCapture {
  public:
    StderrCapture() { ::testing::internal::CaptureStderr(); }
    ~StderrCapture() { text(); }
    std::string text() {
        if (!done_) captured_ = ::testing::internal::GetCapturedStderr();
        done_ = true;
        return captured_;
    }

  private:
    bool done_ = false;
    std::string captured_;
};

// What the test executable's own syslog functions received.
struct SyslogRecord {
    int priority;
    std::string text;
};
struct SyslogLog {
    std::string ident;
    int option = -1, facility = -1;
    std::vector<SyslogRecord> records;
};
SyslogLog &syslog_log();

// Each test gets names of its own, so the tests can run in parallel processes.
class LogTest : public ::testing::Test {
  protected:
    LogTest();
    ~LogTest() override;
    // <dir of the executable>/<name><suffix>.log.conf holding the given text.
    std::string write_conf(const std::string &suffix, const std::string &text);
    // A configuration sending every level of every category to out_ as "LEVEL category text".
    std::string file_conf(const std::string &out) const;
    std::vector<std::string> out_lines() const { return lines_of(read_file(out_)); }

    std::string name_;
    std::string out_;
    std::vector<std::string> cleanup_;
    decltype(cvlog::g_realtime) saved_realtime_ = cvlog::g_realtime;
    decltype(cvlog::g_seconds) saved_seconds_ = cvlog::g_seconds;
};

// Fake clocks for the early path and the suppression table.
inline timespec g_fake_now{};
inline std::atomic<time_t> g_fake_seconds{1000000};  // read by the suppression thread
inline int fake_realtime(timespec *now) {
    *now = g_fake_now;
    return 0;
}
inline time_t fake_seconds() {
    return g_fake_seconds;
}

}  // namespace logtest
