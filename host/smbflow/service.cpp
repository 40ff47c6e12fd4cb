#include "service.h"

#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <fmt/format.h>

namespace smbflow {

PidFile::~PidFile() {
    if (!path_.empty()) unlink(path_.c_str());
}

std::optional<std::string> PidFile::write(const std::string &path) {
    FILE *f = fopen(path.c_str(), "w");
    if (!f) return fmt::format("cannot write {}: {}", path, strerror(errno));
    fprintf(f, "%ld\n", static_cast<long>(getpid()));
    if (fclose(f) != 0) return fmt::format("cannot write {}: {}", path, strerror(errno));
    path_ = path;
    return std::nullopt;
}

std::optional<std::string> drop_to_user(const std::string &user) {
    if (geteuid() != 0) return std::nullopt;
    errno = 0;
    const struct passwd *pw = getpwnam(user.c_str());
    if (!pw) return fmt::format("--user {}: no such user", user);
    // Groups first: once the user id has changed they can no longer be set.
    if (initgroups(pw->pw_name, pw->pw_gid) != 0 || setgid(pw->pw_gid) != 0 ||
        setuid(pw->pw_uid) != 0)
        return fmt::format("--user {}: cannot switch: {}", user, strerror(errno));
    if (setuid(0) == 0) return fmt::format("--user {}: root could be regained", user);
    return std::nullopt;
}

void pause_unless_signalled(double seconds, const std::function<bool()> &stop) {
    sigset_t term, old;
    sigemptyset(&term);
    for (int sig : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&term, sig);
    pthread_sigmask(SIG_BLOCK, &term, &old);
    if (!stop()) {
        const auto ns = static_cast<long long>(seconds * 1e9);
        const timespec wait{static_cast<time_t>(ns / 1'000'000'000), ns % 1'000'000'000};
        ppoll(nullptr, 0, &wait, &old);  // returns early, with EINTR, once a handler has run
    }
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
}

StatsSchedule::StatsSchedule(double interval_s, Clock clock)
    : interval_(std::chrono::duration_cast<std::chrono::steady_clock::duration>(
          std::chrono::duration<double>(interval_s))),
      clock_(clock ? std::move(clock) : [] { return std::chrono::steady_clock::now(); }),
      next_(clock_() + interval_) {}

std::string format_stats(const StatsLine &s) {
    std::string out = fmt::format("smbflow: stats packets={} records={}", s.packets, s.records);
    if (s.live)
        out += fmt::format(" kernel_received={} kernel_dropped={}", s.kernel_received,
                           s.kernel_dropped);
    for (const auto &d : s.destinations)
        out += fmt::format(" ipfix[{}]=sent:{},dropped:{}", d.url, d.sent, d.dropped);
    out += '\n';
    return out;
}

}  // namespace smbflow
