// Collects what the library logs on the early path (standard error) while a scope runs, as
// "LEVEL message" strings, at a chosen threshold.
#pragma once

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "cv_log.h"

class LogCapture {
  public:
    explicit LogCapture(uint32_t threshold = CVLOG_TRACE) : saved_(g_CvLogCtx.level) {
        g_CvLogCtx.level = threshold;
        testing::internal::CaptureStderr();
    }
    ~LogCapture() {
        if (!done_) Stop();
    }

    // Stops capturing; returns one "LEVEL message" per logged line.
    std::vector<std::string> Stop() {
        done_ = true;
        g_CvLogCtx.level = saved_;
        std::istringstream in(testing::internal::GetCapturedStderr());
        std::vector<std::string> out;
        for (std::string line; std::getline(in, line);) {
            // "<date> <time> <pid> <LEVEL> <category> - <message>"
            std::istringstream head(line);
            std::string date, time, pid, level;
            head >> date >> time >> pid >> level;
            size_t dash = line.find(" - ");
            out.push_back(dash == std::string::npos ? line : level + " " + line.substr(dash + 3));
        }
        return out;
    }

  private:
    uint32_t saved_;
    bool done_ = false;
};
