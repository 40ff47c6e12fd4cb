// What smbflow needs to run unattended: a pid file, giving up root once the capture is open,
// and a statistics line for standard error.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace smbflow {

// Writes the process id to `path`; the destructor removes the file.
class PidFile {
  public:
    PidFile() = default;
    ~PidFile();
    PidFile(const PidFile &) = delete;
    PidFile &operator=(const PidFile &) = delete;
    // A message when the file cannot be written.
    std::optional<std::string> write(const std::string &path);

  private:
    std::string path_;
};

// Started as root: switches to `user` (its groups, group and user id). A message when the user
// is unknown or the switch fails; nothing to do (and no message) when not root.
std::optional<std::string> drop_to_user(const std::string &user);

// Waits `seconds`, or less when SIGINT, SIGTERM or SIGHUP comes (its handler runs). `stop` is
// looked at with those signals blocked, so that one that came just before is not slept through.
void pause_unless_signalled(double seconds, const std::function<bool()> &stop);

// When the next periodic statistics line is due: every `interval_s` of the clock since the
// last line (a line asked for by SIGUSR1 starts the interval again); never when 0.
class StatsSchedule {
  public:
    using Clock = std::function<std::chrono::steady_clock::time_point()>;
    explicit StatsSchedule(double interval_s, Clock clock = {});
    bool due() const { return interval_.count() > 0 && clock_() >= next_; }
    void written() { next_ = clock_() + interval_; }

  private:
    std::chrono::steady_clock::duration interval_;
    Clock clock_;
    std::chrono::steady_clock::time_point next_;
};

struct StatsLine {
    uint64_t packets = 0;
    bool live = false;
    uint64_t kernel_received = 0, kernel_dropped = 0;
    uint64_t records = 0;
    struct Destination {
        std::string url;
        uint64_t sent = 0, dropped = 0;
    };
    std::vector<Destination> destinations;
};

// One line, "smbflow: stats packets=... records=... ...", with its line break.
std::string format_stats(const StatsLine &s);

}  // namespace smbflow
