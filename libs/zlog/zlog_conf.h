// The back end's configuration: levels, named formats and rules, read from a zlog file.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "zlog_format.h"

namespace zl {

struct Level {
    int value;
    std::string name;  // upper case
    int syslog_priority;
};

struct Output {
    enum class Kind { Stdout, Stderr, Syslog, File };
    Kind kind = Kind::Stdout;
    int facility = 0;  // syslog facility (LOG_USER when none is named)
    std::string path;  // file outputs: opened on first write, closed with the configuration
    mode_t perms = 0600;
    mutable std::atomic<int> fd{-1};

    Output() = default;
    Output(const Output &other)
        : kind(other.kind), facility(other.facility), path(other.path), perms(other.perms) {}
    ~Output();
    // Writes one rendered line; errors are ignored, as a logger has nowhere to report them.
    void write(const std::string &line, int syslog_priority) const;
};

struct Rule {
    enum class Categories { All, Exact, Prefix, Unmatched };  // "*", "name", "name_", "!"
    enum class Levels { All, AtLeast, Exactly, AllBut };      // "*", "L", "=L", "!L"
    Categories categories = Categories::All;
    std::string category;
    Levels levels = Levels::All;
    int level = 0;
    Output output;
    const Pattern *pattern = nullptr;

    bool matches_level(int value) const;
    bool matches_category(std::string_view name) const;
};

struct Config {
    std::vector<Level> levels;
    struct NamedFormat {
        std::string name;
        Pattern pattern;
    };
    std::deque<NamedFormat> formats;  // a deque: rules point at its patterns
    Pattern default_format;
    size_t buffer_max = 2 * 1024 * 1024;
    std::vector<std::unique_ptr<Rule>> rules;

    const Level *find_level(int value) const;
    // The rules that apply to a category of that name, in file order.
    std::vector<const Rule *> rules_for(std::string_view category) const;
};

// Reads and parses a configuration file; null with a reason in error when it can't be read or
// holds anything this back end doesn't understand (unless "strict init = false", which skips
// bad formats and rules as zlog does).
std::unique_ptr<Config> load_config(const char *path, std::string &error);
// The configuration zlog uses without a file: every category to stdout.
std::unique_ptr<Config> default_config();

}  // namespace zl
