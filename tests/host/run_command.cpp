#include "run_command.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace hosttest {

TempDir::TempDir() {
    std::string templ = (std::filesystem::temp_directory_path() / "smbflow-test-XXXXXX").string();
    if (!mkdtemp(templ.data())) throw std::runtime_error("mkdtemp");
    dir_ = templ;
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
}

CommandResult run_command(const std::vector<std::string> &args) {
    TempDir tmp;
    const std::string out_path = tmp.path("out"), err_path = tmp.path("err");
    const pid_t pid = fork();
    if (pid == 0) {
        const int out = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        const int err = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        const int in = open("/dev/null", O_RDONLY);
        dup2(out, 1);
        dup2(err, 2);
        dup2(in, 0);
        std::vector<char *> argv;
        for (const auto &a : args)
            argv.push_back(const_cast<char *>(a.c_str()));
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    int wstatus = 0;
    waitpid(pid, &wstatus, 0);
    CommandResult r;
    r.status = WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : 128 + WTERMSIG(wstatus);
    r.out = read_file(out_path);
    r.err = read_file(err_path);
    return r;
}

}  // namespace hosttest
