// What smbflow needs to run unattended: a pid file, giving up root once the capture is open,
// and a statistics line for standard error.
#pragma once

#include <cstdint>
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
