// Collects what the library logs on the early path (standard error) as "LEVEL message" lines,
// at a chosen threshold. Shared by the test folders.
#pragma once

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "cv_log.h"

using Lines = std::vector<std::string>;

class LogCapture {
  public:
    explicit LogCapture(uint32_t threshold = CVLOG_TRACE) : saved_(g_CvLogCtx.level) {
        g_CvLogCtx.level = threshold;
        testing::internal::CaptureStderr();
    }
    ~LogCapture() {
        if (!done_) Stop();
    }
    Lines Stop() {
        done_ = true;
        g_CvLogCtx.level = saved_;
        std::istringstream in(testing::internal::GetCapturedStderr());
        Lines out;
        for (std::string line, date, time, pid, level; std::getline(in, line);) {
            std::istringstream(line) >> date >> time >> pid >> level;  // then category, " - "
            size_t dash = line.find(" - ");
            out.push_back(dash == std::string::npos ? line : level + " " + line.substr(dash + 3));
        }
        return out;
    }

  private:
    uint32_t saved_;
    bool done_ = false;
};

template <class Fn>
Lines logged(uint32_t threshold, Fn &&fn) {
    LogCapture capture(threshold);
    fn();
    return capture.Stop();
}
