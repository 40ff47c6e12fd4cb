// smbflow --version: the program's version, the plug-in API version it speaks, what the
// plug-in it would load says of itself, and the versions of the libraries it runs on.
#pragma once

#include <string>

namespace smbflow {

std::string version_text(const std::string &plugin_path);

}  // namespace smbflow
