#include "zlog_conf.h"

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <strings.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>

namespace zl {

namespace {

constexpr std::string_view kDefaultFormat = "%d %V [%p:%F:%L] %m%n";

struct Name {
    const char *name;
    int value;
};

constexpr Name kPriorities[] = {
    {"LOG_EMERG", LOG_EMERG}, {"LOG_ALERT", LOG_ALERT},     {"LOG_CRIT", LOG_CRIT},
    {"LOG_ERR", LOG_ERR},     {"LOG_WARNING", LOG_WARNING}, {"LOG_NOTICE", LOG_NOTICE},
    {"LOG_INFO", LOG_INFO},   {"LOG_DEBUG", LOG_DEBUG},
};

constexpr Name kFacilities[] = {
    {"LOG_KERN", LOG_KERN},     {"LOG_USER", LOG_USER},         {"LOG_MAIL", LOG_MAIL},
    {"LOG_DAEMON", LOG_DAEMON}, {"LOG_AUTH", LOG_AUTH},         {"LOG_SYSLOG", LOG_SYSLOG},
    {"LOG_LPR", LOG_LPR},       {"LOG_NEWS", LOG_NEWS},         {"LOG_UUCP", LOG_UUCP},
    {"LOG_CRON", LOG_CRON},     {"LOG_AUTHPRIV", LOG_AUTHPRIV}, {"LOG_FTP", LOG_FTP},
    {"LOG_LOCAL0", LOG_LOCAL0}, {"LOG_LOCAL1", LOG_LOCAL1},     {"LOG_LOCAL2", LOG_LOCAL2},
    {"LOG_LOCAL3", LOG_LOCAL3}, {"LOG_LOCAL4", LOG_LOCAL4},     {"LOG_LOCAL5", LOG_LOCAL5},
    {"LOG_LOCAL6", LOG_LOCAL6}, {"LOG_LOCAL7", LOG_LOCAL7},
};

template <size_t N>
bool lookup(const Name (&table)[N], std::string_view name, int &value) {
    for (const Name &entry : table) {
        if (name.size() == strlen(entry.name) &&
            strncasecmp(entry.name, name.data(), name.size()) == 0) {
            value = entry.value;
            return true;
        }
    }
    return false;
}

std::string_view trim(std::string_view s) {
    size_t b = s.find_first_not_of(" \t\r\n");
    if (b == std::string_view::npos) return {};
    return s.substr(b, s.find_last_not_of(" \t\r\n") - b + 1);
}

std::string upper(std::string_view s) {
    std::string u(s);
    for (char &c : u)
        c = char(toupper(static_cast<unsigned char>(c)));
    return u;
}

// The text between the first and the last double quote; nothing but blanks may follow.
bool unquote(std::string_view s, std::string_view &inner) {
    s = trim(s);
    if (s.size() < 2 || s.front() != '"' || s.back() != '"') return false;
    inner = s.substr(1, s.size() - 2);
    return true;
}

// "1024", "2MB", "1K": zlog's sizes, k/m/g meaning 1000s and kb/mb/gb 1024s.
bool parse_size(std::string_view s, size_t &size) {
    std::string text(trim(s));
    char *end = nullptr;
    errno = 0;
    unsigned long long n = strtoull(text.c_str(), &end, 10);
    if (end == text.c_str() || errno) return false;
    std::string unit = upper(trim(end));
    unsigned long long scale = 1;
    if (unit == "K")
        scale = 1000;
    else if (unit == "KB")
        scale = 1024;
    else if (unit == "M")
        scale = 1000 * 1000;
    else if (unit == "MB")
        scale = 1024 * 1024;
    else if (unit == "G")
        scale = 1000 * 1000 * 1000;
    else if (unit == "GB")
        scale = 1024ull * 1024 * 1024;
    else if (!unit.empty())
        return false;
    size = size_t(n * scale);
    return true;
}

bool split_key_value(std::string_view line, std::string_view &key, std::string_view &value) {
    size_t eq = line.find('=');
    if (eq == std::string_view::npos) return false;
    key = trim(line.substr(0, eq));
    value = trim(line.substr(eq + 1));
    return !key.empty();
}

std::vector<Level> default_levels() {
    return {{20, "DEBUG", LOG_DEBUG},  {40, "INFO", LOG_INFO},  {60, "NOTICE", LOG_NOTICE},
            {80, "WARN", LOG_WARNING}, {100, "ERROR", LOG_ERR}, {120, "FATAL", LOG_ALERT}};
}

class Parser {
  public:
    Parser(Config &config, std::string &error) : config_(config), error_(error) {}

    bool parse(std::istream &in) {
        std::string line, joined;
        int number = 0;
        while (std::getline(in, line)) {
            ++number;
            // A backslash at the end of a line continues it on the next one.
            if (!line.empty() && line.back() == '\\') {
                joined.append(line, 0, line.size() - 1);
                continue;
            }
            joined += line;
            std::string_view text = trim(joined);
            bool ok = text.empty() || text.front() == '#' || parse_line(text);
            joined.clear();
            if (!ok) {
                // (snprintf: std::to_string would export a libstdc++ table from the plug-in)
                char where[32];
                snprintf(where, sizeof where, "line %d: ", number);
                error_ = where + error_;
                return false;
            }
        }
        return finish();
    }

  private:
    enum Section { None, Global, Levels, Formats, Rules };

    bool fail(std::string why) {
        error_ = std::move(why);
        return false;
    }

    bool parse_line(std::string_view text) {
        if (text.front() == '[') return parse_section(text);
        switch (section_) {
            case Global:
                return parse_global(text);
            case Levels:
                return parse_level(text);
            case Formats:
                return strict_skip(parse_format(text));
            case Rules:
                return strict_skip(parse_rule(text));
            case None:
                break;
        }
        return fail("outside any section");
    }

    // With "strict init = false" a bad format or rule is left out instead of failing.
    bool strict_skip(bool ok) { return ok || !strict_; }

    bool parse_section(std::string_view text) {
        if (text.back() != ']') return fail("bad section header");
        std::string name(trim(text.substr(1, text.size() - 2)));
        Section next = name == "global"    ? Global
                       : name == "levels"  ? Levels
                       : name == "formats" ? Formats
                       : name == "rules"   ? Rules
                                           : None;
        if (next == None) return fail("unknown section " + name);
        // zlog wants the sections in this order, each at most once.
        if (next <= section_) return fail("section out of order: " + name);
        if (section_ < Formats && next >= Formats && !compile_default_format()) return false;
        section_ = next;
        return true;
    }

    bool parse_global(std::string_view text) {
        std::string_view key, value;
        if (!split_key_value(text, key, value)) return fail("expected key = value");
        size_t size = 0;
        if (key == "strict init") {
            strict_ = strcasecmp(std::string(value).c_str(), "false") != 0;
        } else if (key == "default format") {
            std::string_view inner;
            if (!unquote(value, inner)) return fail("default format must be quoted");
            default_format_text_ = inner;
        } else if (key == "file perms") {
            char *end = nullptr;
            std::string digits(value);
            long perms = strtol(digits.c_str(), &end, 8);
            if (*end || perms < 0 || perms > 0777) return fail("bad file perms");
            file_perms_ = mode_t(perms);
        } else if (key == "buffer max") {
            if (!parse_size(value, size)) return fail("bad buffer max");
            if (size) config_.buffer_max = size;
        } else if (key == "buffer min" || key == "fsync period" || key == "reload conf period") {
            // Buffers grow as needed, writes are not synced and the file is only reloaded on
            // request; the values are checked and otherwise unused.
            if (!parse_size(value, size)) return fail("bad size for " + std::string(key));
        } else if (key != "rotate lock file") {  // no rotation, so no lock file
            return fail("unknown global key " + std::string(key));
        }
        return true;
    }

    // "NAME = number" optionally followed by ", LOG_priority"; as in zlog, text after the
    // number that doesn't start with a comma is ignored and the priority is LOG_DEBUG.
    bool parse_level(std::string_view text) {
        std::string_view key, value;
        if (!split_key_value(text, key, value)) return fail("expected NAME = number");
        std::string digits(value);
        char *end = nullptr;
        long number = strtol(digits.c_str(), &end, 10);
        if (end == digits.c_str() || number < 1 || number > 253) return fail("bad level number");
        int priority = LOG_DEBUG;
        std::string_view rest = trim(std::string_view(end));
        if (!rest.empty() && rest.front() == ',' &&
            !lookup(kPriorities, trim(rest.substr(1)), priority))
            return fail("unknown syslog priority");
        std::string name = upper(key);
        std::erase_if(config_.levels,
                      [&](const Level &l) { return l.name == name || l.value == number; });
        config_.levels.push_back({int(number), name, priority});
        return true;
    }

    bool parse_format(std::string_view text) {
        std::string_view key, value, inner;
        if (!split_key_value(text, key, value)) return fail("expected name = \"pattern\"");
        for (char c : key)
            if (!isalnum(static_cast<unsigned char>(c)) && c != '_') return fail("bad format name");
        if (!unquote(value, inner)) return fail("format pattern must be quoted");
        auto pattern = Pattern::compile(inner);
        if (!pattern) return fail("bad pattern " + std::string(inner));
        if (Pattern *known = find_format(key)) {
            *known = std::move(*pattern);
        } else {
            config_.formats.push_back({std::string(key), std::move(*pattern)});
        }
        return true;
    }

    Pattern *find_format(std::string_view name) {
        for (auto &format : config_.formats)
            if (format.name == name) return &format.pattern;
        return nullptr;
    }

    bool parse_level_selector(std::string_view text, Rule &rule) {
        if (text == "*") return true;
        rule.levels = Rule::Levels::AtLeast;
        if (!text.empty() && (text.front() == '=' || text.front() == '!')) {
            rule.levels = text.front() == '=' ? Rule::Levels::Exactly : Rule::Levels::AllBut;
            text.remove_prefix(1);
        }
        std::string name = upper(text);
        for (const Level &level : config_.levels) {
            if (level.name == name) {
                rule.level = level.value;
                return true;
            }
        }
        return fail("unknown level " + name);
    }

    bool parse_output(std::string_view text, Rule &rule) {
        Output &out = rule.output;
        if (text == ">stdout") {
            out.kind = Output::Kind::Stdout;
        } else if (text == ">stderr") {
            out.kind = Output::Kind::Stderr;
        } else if (text.starts_with(">syslog")) {
            out.kind = Output::Kind::Syslog;
            out.facility = LOG_USER;
            std::string_view rest = trim(text.substr(7));
            if (!rest.empty() &&
                (rest.front() != ',' || !lookup(kFacilities, trim(rest.substr(1)), out.facility)))
                return fail("bad syslog facility");
        } else {
            std::string_view path = text;
            if (path.front() == '"' && !unquote(path, path)) return fail("bad file path");
            if (path.empty() || path.front() == '>' || path.front() == '$')
                return fail("unsupported output " + std::string(text));
            out.kind = Output::Kind::File;
            out.path = path;
            out.perms = file_perms_;
        }
        return true;
    }

    bool parse_rule(std::string_view text) {
        size_t blank = text.find_first_of(" \t");
        if (blank == std::string_view::npos) return fail("rule without output");
        std::string_view selector = text.substr(0, blank), rest = trim(text.substr(blank));
        size_t dot = selector.find('.');
        if (dot == std::string_view::npos) return fail("selector without level");
        auto rule = std::make_unique<Rule>();
        std::string_view category = selector.substr(0, dot);
        if (category == "*") {
            rule->categories = Rule::Categories::All;
        } else if (category == "!") {
            rule->categories = Rule::Categories::Unmatched;
        } else if (category.empty()) {
            return fail("empty category selector");
        } else {
            bool prefix = category.back() == '_';
            rule->categories = prefix ? Rule::Categories::Prefix : Rule::Categories::Exact;
            rule->category = prefix ? category.substr(0, category.size() - 1) : category;
        }
        if (!parse_level_selector(selector.substr(dot + 1), *rule)) return false;

        size_t semicolon = std::string_view::npos;
        for (size_t i = 0, quoted = 0; i < rest.size(); ++i) {
            if (rest[i] == '"') quoted ^= 1;
            if (rest[i] == ';' && !quoted) {
                semicolon = i;
                break;
            }
        }
        std::string_view output = trim(rest.substr(0, semicolon));
        std::string_view format =
            semicolon == std::string_view::npos ? "" : trim(rest.substr(semicolon + 1));
        if (output.empty()) return fail("no output");
        if (!parse_output(output, *rule)) return false;
        rule->pattern = &config_.default_format;
        if (!format.empty()) {
            rule->pattern = find_format(format);
            if (!rule->pattern) return fail("unknown format " + std::string(format));
        }
        config_.rules.push_back(std::move(rule));
        return true;
    }

    bool compile_default_format() {
        auto pattern = Pattern::compile(default_format_text_);
        if (!pattern) return fail("bad default format");
        config_.default_format = std::move(*pattern);
        return true;
    }

    bool finish() { return section_ >= Formats || compile_default_format(); }

    Config &config_;
    std::string &error_;
    Section section_ = None;
    bool strict_ = true;
    std::string default_format_text_{kDefaultFormat};
    mode_t file_perms_ = 0600;
};

}  // namespace

Output::~Output() {
    int fd = this->fd.load();
    if (fd >= 0) close(fd);
}

void Output::write(const std::string &line, int syslog_priority) const {
    int target = kind == Kind::Stdout ? STDOUT_FILENO : STDERR_FILENO;
    if (kind == Kind::Syslog) {
        syslog(facility | syslog_priority, "%s", line.c_str());
        return;
    }
    if (kind == Kind::File) {
        target = fd.load();
        if (target < 0) {
            int opened = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, perms);
            if (opened < 0) return;
            // Two threads may race to open the file first; the loser closes its copy.
            if (fd.compare_exchange_strong(target, opened)) {
                target = opened;
            } else {
                close(opened);
            }
        }
    }
    for (size_t done = 0; done < line.size();) {
        ssize_t n = ::write(target, line.data() + done, line.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        done += size_t(n);
    }
}

bool Rule::matches_level(int value) const {
    switch (levels) {
        case Levels::All:
            return true;
        case Levels::AtLeast:
            return value >= level;
        case Levels::Exactly:
            return value == level;
        case Levels::AllBut:
            return value != level;
    }
    return false;
}

bool Rule::matches_category(std::string_view name) const {
    switch (categories) {
        case Categories::All:
            return true;
        case Categories::Exact:
            return name == category;
        case Categories::Prefix:  // "aa_" selects aa and every aa_...
            return name == category || (name.size() > category.size() &&
                                        name.starts_with(category) && name[category.size()] == '_');
        case Categories::Unmatched:
            return false;
    }
    return false;
}

const Level *Config::find_level(int value) const {
    for (const Level &level : levels)
        if (level.value == value) return &level;
    return nullptr;
}

std::vector<const Rule *> Config::rules_for(std::string_view category) const {
    std::vector<const Rule *> chosen;
    bool named = false;  // selected by a rule other than "*"
    for (const auto &rule : rules) {
        if (rule->matches_category(category)) {
            chosen.push_back(rule.get());
            named |= rule->categories != Rule::Categories::All;
        }
    }
    if (!named) {
        for (const auto &rule : rules)
            if (rule->categories == Rule::Categories::Unmatched) chosen.push_back(rule.get());
    }
    return chosen;
}

std::unique_ptr<Config> load_config(const char *path, std::string &error) {
    std::ifstream in(path);
    if (!in) {
        error = std::string("cannot read ") + path;
        return nullptr;
    }
    auto config = std::make_unique<Config>();
    config->levels = default_levels();
    Parser parser(*config, error);
    if (!parser.parse(in) || in.bad()) return nullptr;
    return config;
}

std::unique_ptr<Config> default_config() {
    auto config = std::make_unique<Config>();
    config->levels = default_levels();
    config->default_format = *Pattern::compile(kDefaultFormat);
    auto rule = std::make_unique<Rule>();
    rule->pattern = &config->default_format;
    config->rules.push_back(std::move(rule));
    return config;
}

}  // namespace zl
