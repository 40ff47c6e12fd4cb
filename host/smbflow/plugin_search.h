// Where smbflow looks for the SMB plug-in when --plugin is not given: next to the program (a
// build tree), the installed plug-in directory relative to the program (an install tree moved
// or installed under another prefix), then the plug-in directory of the configured prefix.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace smbflow {

inline constexpr const char *kPluginFile = "plugin-process-smb.so";

// The places, in search order, for a program in `exe_dir`.
std::vector<std::filesystem::path> plugin_candidates(const std::filesystem::path &exe_dir);

// The first candidate that exists; the first of them when none does (for the message that
// says what could not be loaded).
std::string default_plugin_path();

}  // namespace smbflow
