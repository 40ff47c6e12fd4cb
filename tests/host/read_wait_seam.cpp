// Preloaded into smbflow by the tests that interrupt a read from a pipe or FIFO. smbflow reads
// such input with read(2). When a read of the input would block (nothing waits in the pipe),
// this writes the number of bytes taken from the input so far, as a uint64_t, to the
// descriptor named by SMBFLOW_TEST_WAIT_FD, and then waits for data with the termination
// signals unblocked atomically (ppoll): a signal sent once the test has that number
// interrupts the wait (its handler runs), and the read fails with EINTR as an interrupted
// read(2) does. The test so knows that every byte it wrote was taken and that the reading
// thread waits, without watching the process.
#include <dlfcn.h>
#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <initializer_list>
#include <string>

namespace {

std::atomic<uint64_t> g_taken{0};  // bytes taken from the input, by every thread

int notify_fd() {
    static const int fd = [] {
        const char *v = getenv("SMBFLOW_TEST_WAIT_FD");
        return v ? atoi(v) : -1;
    }();
    return fd;
}

// The input: a named FIFO, or the pipe on standard input. Pipes of smbflow's own (anonymous,
// not standard input) are left alone.
bool is_input(int fd) {
    struct stat st, in;
    if (fstat(fd, &st) != 0 || !S_ISFIFO(st.st_mode)) return false;
    if (fstat(STDIN_FILENO, &in) == 0 && in.st_dev == st.st_dev && in.st_ino == st.st_ino)
        return true;
    char link[64];
    const std::string proc = "/proc/self/fd/" + std::to_string(fd);
    const ssize_t n = readlink(proc.c_str(), link, sizeof link - 1);
    return n > 0 && strncmp(link, "pipe:", 5) != 0;
}

// True when the wait was interrupted by a signal.
bool wait_for_data(int fd) {
    sigset_t term, old;
    sigemptyset(&term);
    for (int sig : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&term, sig);
    pthread_sigmask(SIG_BLOCK, &term, &old);
    const uint64_t taken = g_taken.load();
    const bool told = write(notify_fd(), &taken, sizeof taken) == sizeof taken;
    pollfd p{fd, POLLIN, 0};
    const int rc = told ? ppoll(&p, 1, nullptr, &old) : 0;
    const int err = errno;
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    return rc < 0 && err == EINTR;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) ssize_t read(int fd, void *buf, size_t n) {
    using Fn = ssize_t (*)(int, void *, size_t);
    static const auto next = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "read"));
    if (notify_fd() < 0 || n == 0 || !is_input(fd)) return next(fd, buf, n);
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, 0) == 0 && wait_for_data(fd)) {
        errno = EINTR;
        return -1;
    }
    const ssize_t got = next(fd, buf, n);
    if (got > 0) g_taken += static_cast<uint64_t>(got);
    return got;
}
