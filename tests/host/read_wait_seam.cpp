// Preloaded into smbflow by the tests that interrupt a read from a pipe or FIFO. libpcap reads
// such input with fread(3) (or its checked form). When a call would block (the stdio buffer
// cannot serve it and nothing waits in the pipe), this writes the number of bytes taken from
// pipes so far, as a uint64_t, to the descriptor named by SMBFLOW_TEST_WAIT_FD, and then waits
// for data with the termination signals unblocked atomically (ppoll): a signal sent once the
// test has that number interrupts the wait, and the call fails as a read(2) interrupted by the
// signal does, with EINTR and the stream's error flag set. The test so knows that every byte
// it wrote was taken and that the reading thread waits, without watching the process.
#include <dlfcn.h>
#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <initializer_list>

namespace {

std::atomic<uint64_t> g_taken{0};  // bytes taken from pipes, by every thread

int notify_fd() {
    static const int fd = [] {
        const char *v = getenv("SMBFLOW_TEST_WAIT_FD");
        return v ? atoi(v) : -1;
    }();
    return fd;
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

// The stdio call's outcome: `real`'s, unless it would block and the wait was interrupted.
template <typename Call>
size_t seam_read(size_t size, size_t n, FILE *fp, Call real) {
    const int fd = fileno(fp);
    struct stat st;
    if (notify_fd() < 0 || fstat(fd, &st) != 0 || !S_ISFIFO(st.st_mode)) return real();
    const size_t buffered = size_t(fp->_IO_read_end - fp->_IO_read_ptr);
    pollfd p{fd, POLLIN, 0};
    if (size && n && buffered < size * n && poll(&p, 1, 0) == 0 && wait_for_data(fd)) {
        fp->_flags |= _IO_ERR_SEEN;
        errno = EINTR;
        return 0;
    }
    const size_t got = real();
    g_taken += got * size;
    return got;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) size_t fread(void *ptr, size_t size, size_t n,
                                                               FILE *fp) {
    using Fn = size_t (*)(void *, size_t, size_t, FILE *);
    static const auto next = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "fread"));
    return seam_read(size, n, fp, [&] { return next(ptr, size, n, fp); });
}

extern "C" __attribute__((visibility("default"))) size_t __fread_chk(void *ptr, size_t room,
                                                                     size_t size, size_t n,
                                                                     FILE *fp) {
    using Fn = size_t (*)(void *, size_t, size_t, size_t, FILE *);
    static const auto next = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "__fread_chk"));
    return seam_read(size, n, fp, [&] { return next(ptr, room, size, n, fp); });
}
