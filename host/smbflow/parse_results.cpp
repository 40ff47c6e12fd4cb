#include "parse_results.h"

#include <algorithm>
#include <atomic>
#include <vector>

#include <fmt/format.h>

namespace smbflow {

namespace {

std::atomic<void *> g_real_parser{nullptr};
thread_local ParseResults *t_counts = nullptr;

}  // namespace

uint64_t ParseResults::total() const {
    uint64_t sum = other;
    for (uint64_t n : by_code)
        sum += n;
    return sum;
}

ParseResults &ParseResults::operator+=(const ParseResults &o) {
    for (size_t i = 0; i < by_code.size(); ++i)
        by_code[i] += o.by_code[i];
    other += o.other;
    return *this;
}

// What each result of the payload entry means for the packet.
const char *ParseResults::code_word(int code) {
    switch (code) {
        case -1:
            // A CREATE request for the share root (NameLength 0) whose body stops at 56 bytes,
            // without the one byte of Buffer that MS-SMB2 2.2.13 asks for, ends here too:
            // smbclient sends one for every `ls`.
            return "not parsed: malformed, or a share-root CREATE without a name byte";
        case 0:
            return "record";
        case 1:
            return "not SMB";
        case 2:
            return "request kept for its response";
        case 3:
            return "segment of an unknown message";
        case 5:
            return "start of a longer message";
        default:
            return "other";
    }
}

std::string ParseResults::describe() const {
    std::vector<std::pair<uint64_t, int>> seen;
    for (size_t i = 0; i < by_code.size(); ++i)
        if (by_code[i]) seen.emplace_back(by_code[i], static_cast<int>(i) - 1);
    std::stable_sort(seen.begin(), seen.end(),
                     [](const auto &a, const auto &b) { return a.first > b.first; });
    std::string out;
    for (const auto &[count, code] : seen)
        out += fmt::format("{}{}={} ({})", out.empty() ? "" : ", ", code, count, code_word(code));
    if (other) out += fmt::format("{}other={}", out.empty() ? "" : " ", other);
    return out;
}

void parse_results_install(void *real_parser) {
    g_real_parser.store(real_parser);
}

bool parse_results_installed() {
    return g_real_parser.load() != nullptr;
}

void *parse_results_real_parser() {
    return reinterpret_cast<void *>(g_real_parser.load(std::memory_order_relaxed));
}

void parse_results_count(int rc) {
    if (ParseResults *counts = t_counts) {
        if (rc >= -1 && rc <= 5)
            ++counts->by_code[rc + 1];
        else
            ++counts->other;
    }
}

void parse_results_bind_thread(ParseResults *counts) {
    t_counts = counts;
}

}  // namespace smbflow
