// Fuzzes the parameter parser: inline "key=value,..." texts and configuration files, against a
// descriptor table shaped like the plug-in's (integers, a mandatory option, a string value and
// a descriptor with a broken value type).
//
// Input: one mode byte, then the text. Mode bit 0 clear: the text is passed inline; set: it is
// written to a file whose path is passed instead.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "cv_log.h"
#include "fuzz_input.h"
#include "utils_config.h"

namespace {

// A name that appears in the text more than once would be copied once per occurrence, and the
// caller owns only the last copy: the harness offers the string descriptor only when it can
// free everything the parser handed out.
constexpr const char *kStringKey = "name";

size_t occurrences(const std::string &text, const char *needle) {
    size_t n = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1))
        ++n;
    return n;
}

void parse(const char *text, const std::string &content, uint8_t mode) {
    int32_t port = -1, sizes[5] = {-1, -1, -1, -1, -1}, needed = 0, broken = 0;
    char *name = nullptr;
    config_value_desc table[] = {
        {"port", &port, CV_CONFIG_INT, 0},
        {"treetable-size", &sizes[0], CV_CONFIG_INT, 0},
        {"filetable-size", &sizes[1], CV_CONFIG_INT, 0},
        {"messagetable-size", &sizes[2], CV_CONFIG_INT, 0},
        {"messagetable2-size", &sizes[3], CV_CONFIG_INT, 0},
        {"datatable-size", &sizes[4], CV_CONFIG_INT, 0},
        {"needed", &needed, CV_CONFIG_INT, (mode & 2) ? uint32_t(CV_CONFIG_MANDATORY) : 0u},
        {"broken", &broken, 7, 0},
        {kStringKey, &name, CV_CONFIG_STRING, 0},
        {nullptr, nullptr, 0, 0},
    };
    if (occurrences(content, kStringKey) > 1) table[8] = {nullptr, nullptr, 0, 0};
    corvaneexp_config_set_values(text, table, (mode & 4) ? nullptr : "fuzz");
    free(name);
}

// The string-list helpers on the same text.
void string_helpers(const std::string &content) {
    cv::config::StrList pieces(corvaneexp_char_split(content.c_str(), '='));
    (void)corvaneexp_config_count_fields(pieces.get());
    char *joined = nullptr;
    for (char **p = pieces.get(); *p; ++p)
        joined = corvaneexp_char_add(joined, *p);
    if (joined) corvaneexp_char_replace(joined, 'a', 'b');
    free(joined);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    // Messages would only slow the run down; their formatting is fuzzed with the log facility.
    g_CvLogCtx.level = 0xffffffffu;
    fuzz::input in(data, size);
    const uint8_t mode = in.byte();
    const std::string content = fuzz::c_string(in.remaining());

    if (mode & 1) {
        fuzz::memory_file file(content);
        if (!file.path().empty()) parse(file.path().c_str(), content, mode);
    } else if (content.empty() || access(content.c_str(), F_OK) != 0) {
        // An inline text that happens to name a file on this machine would make the input mean
        // different things in different places; such inputs are passed over.
        parse((mode & 8) && content.empty() ? nullptr : content.c_str(), content, mode);
    }
    string_helpers(content);
    return 0;
}
