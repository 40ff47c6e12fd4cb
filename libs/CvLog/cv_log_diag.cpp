// Diagnostics written through the facility: the call stack and the program's command line.
#define CV_LOG_SOURCE CVLOG_OWN_SOURCE
#include <execinfo.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "cv_log_internal.h"

namespace {
constexpr int kMaxFrames = 256;
}

void CvLog_BackTrace(int32_t depth) {
    void *frames[kMaxFrames];
    int n = backtrace(frames, std::clamp(depth, 0, kMaxFrames));
    char **symbols = n > 0 ? backtrace_symbols(frames, n) : nullptr;
    CvLog_FlushSupressMessage();  // pending summaries come out before the trace
    if (n >= 2 && symbols) {
        // Frame 0 is this function; line 0 names its caller.
        for (int i = 0; i + 1 < n; ++i)
            CV_LOG_ALWAYS(CVLOG_INFO, "CvLog_BackTrace - (%lu) %s", (unsigned long)i,
                          symbols[i + 1]);
    }
    free(symbols);
}

void CvLog_LogProgramArgs(int argc, char **argv) {
    if (argc <= 1 || !argv) return;
    size_t total = 0;
    for (int i = 0; i < argc; ++i)
        total += (argv[i] ? strlen(argv[i]) : 0) + 1;
    char *joined = static_cast<char *>(malloc(total));
    if (!joined) {
        CV_LOG_ALWAYS(CVLOG_ERROR, "log_program_args - failed to allocate memory %m");
        return;
    }
    char *end = joined;
    for (int i = 0; i < argc; ++i) {
        if (i) *end++ = ' ';
        size_t len = argv[i] ? strlen(argv[i]) : 0;
        memcpy(end, argv[i] ? argv[i] : "", len);
        end += len;
    }
    *end = '\0';
    CV_LOG_ALWAYS(CVLOG_INFO, "CvLog_LogProgramArgs - args:%s", joined);
    free(joined);
}
