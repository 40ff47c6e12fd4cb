#include "plugin_search.h"

#include <system_error>

// Set by the build from the install layout (GNUInstallDirs).
#ifndef SMBFLOW_PLUGIN_DIR
#define SMBFLOW_PLUGIN_DIR "/usr/local/lib/smbflow"
#endif
#ifndef SMBFLOW_PLUGIN_RELDIR
#define SMBFLOW_PLUGIN_RELDIR "../lib/smbflow"
#endif

namespace smbflow {

std::vector<std::filesystem::path> plugin_candidates(const std::filesystem::path &exe_dir) {
    return {exe_dir / kPluginFile, exe_dir / ".." / kPluginFile,
            exe_dir / ".." / "lib" / kPluginFile, exe_dir / SMBFLOW_PLUGIN_RELDIR / kPluginFile,
            std::filesystem::path(SMBFLOW_PLUGIN_DIR) / kPluginFile};
}

std::string default_plugin_path() {
    std::error_code ec;
    const auto exe = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (ec) return (std::filesystem::path(SMBFLOW_PLUGIN_DIR) / kPluginFile).string();
    const auto candidates = plugin_candidates(exe.parent_path());
    for (const auto &candidate : candidates)
        if (std::filesystem::exists(candidate, ec)) return candidate.lexically_normal().string();
    return candidates.front().string();
}

}  // namespace smbflow
