#include "param_check.h"

#include <sys/resource.h>
#include <unistd.h>

#include <cmath>
#include <algorithm>
#include <fstream>
#include <map>

#include <fmt/format.h>

namespace smbflow {

namespace {

// The items of the parameter text, as the plug-in's configuration reader splits them: a
// readable file gives its lines (without line ends; lines with '#' or of two characters or
// fewer dropped), anything else its comma-separated pieces (empty ones dropped).
std::vector<std::string> items_of(const std::string &params) {
    std::vector<std::string> items;
    if (access(params.c_str(), R_OK) == 0) {
        std::ifstream in(params);
        for (std::string line; std::getline(in, line);) {
            for (int i = 0; i < 2 && !line.empty() && (line.back() == '\r' || line.back() == '\n');
                 ++i)
                line.pop_back();
            if (line.find('#') == std::string::npos && line.size() > 2) items.push_back(line);
        }
        return items;
    }
    for (size_t at = 0; at <= params.size();) {
        const size_t comma = std::min(params.find(',', at), params.size());
        if (comma > at) items.push_back(params.substr(at, comma - at));
        at = comma + 1;
    }
    return items;
}

// An unsigned number in the reader's notation (decimal, 0x hexadecimal, leading-0 octal), all
// of the text; nullopt when it is not one or does not fit 64 bits.
std::optional<uint64_t> number(const std::string &text) {
    if (text.empty() || !isdigit(static_cast<unsigned char>(text[0]))) return std::nullopt;
    errno = 0;
    char *end = nullptr;
    const unsigned long long v = strtoull(text.c_str(), &end, 0);
    if (errno == ERANGE || *end) return std::nullopt;
    return v;
}

// Slots of a table asked for `size`: the power of two nearest to it, a tie going up, at least
// 2^10 (log2 rounded at its fraction 0.5).
uint64_t slots_for(uint64_t size) {
    double e = std::log(double(size)) * 1.4426950408889634;
    if (e - std::trunc(e) >= 0.5) e += 1.0;
    return uint64_t(1) << int(std::max(e, 10.0));
}

// Sizes from here round to 2^31 slots, more than a signed 32-bit slot count holds.
constexpr uint64_t kFirstUnholdableSize = 1518500250;

bool ends_with(std::string_view s, std::string_view tail) {
    return s.size() >= tail.size() && s.substr(s.size() - tail.size()) == tail;
}

}  // namespace

std::vector<DeclaredParam> declared_params(std::string_view help) {
    std::vector<DeclaredParam> out;
    for (size_t lt = help.find("=<"); lt != std::string_view::npos; lt = help.find("=<", lt + 2)) {
        size_t start = lt;
        while (start > 0 && (isalnum(static_cast<unsigned char>(help[start - 1])) ||
                             help[start - 1] == '-' || help[start - 1] == '_'))
            --start;
        const size_t gt = help.find('>', lt);
        if (start == lt || gt == std::string_view::npos) continue;
        const std::string range(help.substr(lt + 2, gt - lt - 2));
        DeclaredParam p{std::string(help.substr(start, lt - start))};
        const size_t comma = range.find(',');
        if (comma != std::string::npos) {
            const auto lo = number(range.substr(0, comma)), hi = number(range.substr(comma + 1));
            if (!lo || !hi) continue;
            p.min = *lo;
            p.max = *hi;
        }
        // "<unsigned int>": 32 bits, all ones excepted, which the reader takes for "not given".
        else if (range == "unsigned int") {
            p.max = UINT32_MAX - 1;
        } else {
            continue;
        }
        out.push_back(std::move(p));
    }
    return out;
}

std::string smb_parameter_text(std::string_view help) {
    return std::string(help) +
           "\nshort-create=<0,1>  opt-in: also name opens answered without create contexts "
           "(88-byte CREATE responses), default 0"
           "\nwire-counts=<0,1>  opt-in: packets and bytes of each record are those of its own "
           "packets, so that a connection's records add up to the wire (volume accounting), "
           "default 0"
           "\nactivity=<0,1>  opt-in: bytes, operations, errors, latency, dialect and security "
           "fields, the session's user, domain and workstation, and the remote calls on named "
           "pipes, default 0"
           "\nactivitytable-size=<unsigned int>   conntable-size=<unsigned int>"
           "\nsessiontable-size=<unsigned int>   pipetable-size=<unsigned int>";
}

uint64_t memory_budget() {
    uint64_t budget = UINT64_MAX;
    std::ifstream meminfo("/proc/meminfo");
    for (std::string key; meminfo >> key;) {
        uint64_t kib = 0;
        meminfo >> kib;
        if (key == "MemAvailable:") budget = kib * 1024;
        meminfo.ignore(64, '\n');
    }
    for (int resource : {RLIMIT_AS, RLIMIT_DATA}) {
        rlimit rl{};
        if (getrlimit(resource, &rl) == 0 && rl.rlim_cur != RLIM_INFINITY)
            budget = std::min<uint64_t>(budget, rl.rlim_cur);
    }
    return budget;
}

std::optional<std::string> check_params(const std::string &params,
                                        const std::vector<DeclaredParam> &declared,
                                        const ParamLimits &limits) {
    const auto known = [&] {
        std::string names;
        for (const auto &d : declared)
            names += (names.empty() ? "" : ", ") + d.key;
        return names;
    };
    std::map<std::string, std::pair<uint64_t, std::string>> tables;  // bytes, item; last wins
    for (const std::string &item : items_of(params)) {
        // The reader splits at every '=' and drops empty pieces: exactly two must be left.
        std::vector<std::string> pieces;
        for (size_t at = 0; at <= item.size();) {
            const size_t eq = std::min(item.find('=', at), item.size());
            if (eq > at) pieces.push_back(item.substr(at, eq - at));
            at = eq + 1;
        }
        if (pieces.size() != 2) return fmt::format("--params: '{}' is not key=value", item);
        const std::string &key = pieces[0], &text = pieces[1];
        const auto d = std::find_if(declared.begin(), declared.end(),
                                    [&](const DeclaredParam &p) { return p.key == key; });
        if (d == declared.end())
            return fmt::format("--params: '{}' is not a parameter of the plug-in (it takes: {})",
                               key, known());
        const auto v = number(text);
        if (!v || *v < d->min || *v > d->max)
            return fmt::format("--params {}={}: must be a whole number from {} to {}", key, text,
                               d->min, d->max);
        if (ends_with(key, "-size")) {
            if (*v >= kFirstUnholdableSize)
                return fmt::format("--params {}={}: a table this large cannot be made (at most {})",
                                   key, text, kFirstUnholdableSize - 1);
            const bool per_queue = std::find(limits.per_queue.begin(), limits.per_queue.end(),
                                             key) != limits.per_queue.end();
            const uint64_t bytes = slots_for(*v) * sizeof(void *) * (per_queue ? limits.queues : 1);
            tables[key] = {bytes, key + "=" + text};
        }
    }
    uint64_t table_bytes = 0, most = 0;
    std::string largest;
    for (const auto &[key, table] : tables) {
        table_bytes += table.first;
        if (table.first > most) most = table.first, largest = table.second;
    }
    if (table_bytes > limits.memory_bytes)
        return fmt::format(
            "--params {}: the tables would take {} MiB, more than the {} MiB this process may use",
            largest, table_bytes >> 20, limits.memory_bytes >> 20);
    return std::nullopt;
}

}  // namespace smbflow
