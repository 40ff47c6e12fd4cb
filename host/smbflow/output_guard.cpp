#include "output_guard.h"

#include <sys/stat.h>

#include <filesystem>

#include <fmt/format.h>

namespace smbflow {

namespace {

// Same device and inode (links of any kind), or, for a file that does not exist yet, the same
// path once the directories on the way are resolved.
bool same_file(const std::string &a, const std::string &b) {
    struct stat sa, sb;
    const bool ea = stat(a.c_str(), &sa) == 0, eb = stat(b.c_str(), &sb) == 0;
    // A device (/dev/null, /dev/stdout) takes any number of writers.
    if (ea && eb) return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino && !S_ISCHR(sa.st_mode);
    if (ea != eb) return false;
    std::error_code ca, cb;
    const auto pa = std::filesystem::weakly_canonical(std::filesystem::absolute(a), ca);
    const auto pb = std::filesystem::weakly_canonical(std::filesystem::absolute(b), cb);
    return !ca && !cb && pa == pb;
}

}  // namespace

std::optional<std::string> check_outputs(const std::vector<NamedPath> &outputs,
                                         const std::vector<std::string> &inputs) {
    for (size_t i = 0; i < outputs.size(); ++i) {
        for (const auto &in : inputs)
            if (in != "-" && same_file(outputs[i].path, in))
                return fmt::format("{} is one of the inputs; it would be overwritten",
                                   outputs[i].what);
        for (size_t j = 0; j < i; ++j)
            if (same_file(outputs[i].path, outputs[j].path))
                return fmt::format("{} and {} name the same file; each output needs its own",
                                   outputs[j].what, outputs[i].what);
    }
    return std::nullopt;
}

}  // namespace smbflow
