// Fuzzes the zlog back end's configuration reader: the input is a configuration file; every
// format and rule that it yields is then rendered and matched for a few categories and levels.
// Nothing is written to the configured outputs.
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "zlog_conf.h"

namespace {

// The input as a file without touching the file system: a memory file read through /proc.
class memory_file {
  public:
    memory_file(const uint8_t *data, size_t size) {
        fd_ = memfd_create("zlog-conf-fuzz", 0);
        if (fd_ < 0) return;
        for (size_t done = 0; done < size;) {
            const ssize_t n = write(fd_, data + done, size - done);
            if (n <= 0) break;
            done += static_cast<size_t>(n);
        }
        path_ = "/proc/self/fd/" + std::to_string(fd_);
    }
    ~memory_file() {
        if (fd_ >= 0) close(fd_);
    }
    const char *path() const { return path_.empty() ? nullptr : path_.c_str(); }

  private:
    int fd_ = -1;
    std::string path_;
};

void use(const zl::Config &config) {
    constexpr std::string_view kCategories[] = {"smb", "smb_parser", "", "*", "a_b_c"};
    constexpr int kLevels[] = {10, 20, 40, 60, 80, 100, 120, 7};
    zl::Event event{
        "smb",           "src/plugins/default/process/smb", "process_smb_filter", 42, "WARN",
        "message %s %d", timespec{1700000000, 123456789}};
    std::string line;
    line.reserve(4096);
    config.default_format.render(event, line);
    for (const auto &format : config.formats) {
        line.clear();
        format.pattern.render(event, line);
    }
    for (std::string_view category : kCategories) {
        event.category = category;
        for (const zl::Rule *rule : config.rules_for(category)) {
            for (int level : kLevels) {
                if (!rule->matches_level(level)) continue;
                const zl::Level *known = config.find_level(level);
                event.level_name = known ? std::string_view(known->name) : "UNKNOWN";
                line.clear();
                if (rule->pattern) rule->pattern->render(event, line);
            }
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    memory_file file(data, size);
    if (!file.path()) return 0;
    std::string error;
    if (auto config = zl::load_config(file.path(), error)) use(*config);
    return 0;
}
