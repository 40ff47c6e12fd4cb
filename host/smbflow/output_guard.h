// Checks, before anything is opened for writing, that no output is one of the inputs and that
// no two outputs are the same file: opening an output truncates it.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace smbflow {

struct NamedPath {
    std::string what;  // as the user wrote it, for messages: "-o x", "--ipfix file:x"
    std::string path;
};

// A message for the first output that names an input or another output: the same directory
// entry, a symbolic or hard link to it, or a name that resolves to the same place.
std::optional<std::string> check_outputs(const std::vector<NamedPath> &outputs,
                                         const std::vector<std::string> &inputs);

}  // namespace smbflow
