// Minimal early-path logging; the zlog-backed facility replaces the body of CvLog_Vlog.
#include "cv_log.h"

#include <fcntl.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

CvLogCtx g_CvLogCtx = {CVLOG_NOTICE, nullptr, nullptr};

namespace {
const char *level_name(int level) {
    switch (level) {
        case CVLOG_TRACE: return "TRACE";
        case CVLOG_DEBUG: return "DEBUG";
        case CVLOG_INFO: return "INFO";
        case CVLOG_WARN: return "WARN";
        case CVLOG_ERROR: return "ERROR";
        default: return "UNKNOWN";
    }
}

void early_vlog(const char *category, int level, const char *format, va_list args) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm utc{};
    gmtime_r(&now.tv_sec, &utc);
    char stamp[30];
    strftime(stamp, sizeof stamp, "%F %T", &utc);
    fprintf(stderr, "%s.%lu %d %s %s - ", stamp, (unsigned long)(now.tv_nsec / 1000000 % 1000),
            (int)getpid(), level_name(level), category);
    vfprintf(stderr, format, args);
    fputc('\n', stderr);
    fflush(stderr);
}
}  // namespace

void CvLog_EarlyLog(const char *category, const char *, const char *, long, int level,
                    const char *format, ...) {
    va_list args;
    va_start(args, format);
    early_vlog(category, level, format, args);
    va_end(args);
}

void CvLog_Vlog(zlog_category_t *, const char *, size_t, const char *, size_t, long, int level,
                int32_t, const char *format, va_list args) {
    early_vlog("", level, format, args);
}

void CvLog_Log(zlog_category_t *category, const char *file, size_t filelen, const char *func,
               size_t funclen, long line, int level, int32_t unused, const char *format, ...) {
    va_list args;
    va_start(args, format);
    CvLog_Vlog(category, file, filelen, func, funclen, line, level, unused, format, args);
    va_end(args);
}
