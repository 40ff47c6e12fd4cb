// Golden files of smbflow's output, in the directory the test target names as GOLDEN_DIR.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>

#include "run_command.h"

namespace hosttest {

// Compares with a golden file; SMBFLOW_UPDATE_GOLDEN=1 rewrites it instead.
inline void expect_golden(const std::string &name, const std::string &actual) {
    const std::string path = std::string(GOLDEN_DIR) + "/" + name;
    if (getenv("SMBFLOW_UPDATE_GOLDEN")) {
        write_file(path, actual);
        return;
    }
    EXPECT_EQ(read_file(path), actual)
        << "golden " << name << " differs (SMBFLOW_UPDATE_GOLDEN=1 rewrites it)";
}

}  // namespace hosttest
