// Runs a program and collects its exit status, standard output and standard error.
#pragma once

#include <string>
#include <vector>

namespace hosttest {

struct CommandResult {
    int status = -1;  // exit status, or 128 + signal
    std::string out;
    std::string err;
};

CommandResult run_command(const std::vector<std::string> &args);

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &text);

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
