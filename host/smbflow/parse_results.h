// Counts of the SMB plug-in's parse results by code. The plug-in's filter hook calls its
// parser through the dynamic symbol smb_parse_packet; smbflow defines that symbol too
// (parse_interposer.cpp), so the plug-in's call reaches a counting stand-in first, which then
// calls the plug-in's own parser. Each queue thread counts into its own block.
#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace smbflow {

struct ParseResults {
    // Codes -1, 0, 1, 2, 3, 4, 5 at index code + 1; anything else in `other`.
    std::array<uint64_t, 7> by_code{};
    uint64_t other = 0;

    uint64_t total() const;
    ParseResults &operator+=(const ParseResults &o);
    // "0=12 2=5 -1=1": the codes that occurred, most frequent first.
    static const char *code_word(int code);
    std::string describe() const;
};

// The plug-in library's own parser (from dlsym on its handle); null when it has none.
void parse_results_install(void *real_parser);
bool parse_results_installed();
// Where this thread's counts go (null: nowhere).
void parse_results_bind_thread(ParseResults *counts);
// For the stand-in (parse_interposer.cpp): the real parser, and counting one result.
void *parse_results_real_parser();
void parse_results_count(int rc);

}  // namespace smbflow
