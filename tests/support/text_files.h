// Whole files as text and text as lines, for the tests of every folder.
#pragma once

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace testfiles {

inline std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

inline void write_file(const std::string &path, const std::string &text) {
    std::ofstream(path, std::ios::binary) << text;
}

inline std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

}  // namespace testfiles
