// Runs a program and collects its exit status, standard output and standard error.
#pragma once

#include <string>
#include <vector>

#include "../support/text_files.h"

namespace hosttest {

struct CommandResult {
    int status = -1;  // exit status, or 128 + signal
    std::string out;
    std::string err;
};

CommandResult run_command(const std::vector<std::string> &args);

using testfiles::lines_of;
using testfiles::read_file;
using testfiles::write_file;

// A fresh directory under the build's temporary space, removed by the destructor.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    std::string path(const std::string &name) const { return dir_ + "/" + name; }

  private:
    std::string dir_;
};

}  // namespace hosttest
