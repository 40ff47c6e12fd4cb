// Collects what the library logs on the early path (standard error) as "LEVEL message".
#pragma once

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "cv_log.h"

using Lines = std::vector<std::string>;

template <class Fn>
Lines logged(uint32_t threshold, Fn &&fn) {
    uint32_t saved = g_CvLogCtx.level;
    g_CvLogCtx.level = threshold;
    testing::internal::CaptureStderr();
    fn();
    g_CvLogCtx.level = saved;
    std::istringstream in(testing::internal::GetCapturedStderr());
    Lines out;
    for (std::string line, date, time, pid, level; std::getline(in, line);) {
        std::istringstream(line) >> date >> time >> pid >> level;  // then category, " - "
        out.push_back(level + " " + line.substr(line.find(" - ") + 3));
    }
    return out;
}
