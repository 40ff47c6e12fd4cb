// Log calls, the early path and category lookup.
#define CV_LOG_SOURCE CVLOG_OWN_SOURCE
#include "cv_log_internal.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

#include "zlog.h"

CvLogPrivateCtx g_CvLogPrivateCtx = {{}, 0, {}, 0, "cv_log_app-not-set", 0, 0, 0, 0};
CvLogCtx g_CvLogCtx = {CVLOG_NOTICE, nullptr, &g_CvLogPrivateCtx};
const char *g_zlog_default_category = "corvane_main";

namespace cvlog {

namespace {

int realtime_clock(timespec *now) {
    return clock_gettime(CLOCK_REALTIME, now);
}

struct LevelInfo {
    const char *name;
    int priority;  // for syslog on the early path
};

LevelInfo level_info(int level) {
    switch (level) {
        case CVLOG_TRACE:
            return {"TRACE", LOG_DEBUG};
        case CVLOG_DEBUG:
            return {"DEBUG", LOG_DEBUG};
        case CVLOG_INFO:
            return {"INFO", LOG_INFO};
        case CVLOG_WARN:
            return {"WARN", LOG_WARNING};
        case CVLOG_ERROR:
            return {"ERROR", LOG_ERR};
        default:
            return {"UNKNOWN", LOG_DEBUG};
    }
}

}  // namespace

int (*g_realtime)(timespec *) = realtime_clock;

void early_vlog(const char *category, int level, const char *format, va_list args) {
    int saved_errno = errno;  // for a %m in the message; the probe below may change errno
    LevelInfo info = level_info(level);
    if (fcntl(STDERR_FILENO, F_GETFD) != 0) {
        if (!priv().syslog_open) {
            openlog(priv().app_name, LOG_PID | LOG_NDELAY | LOG_NOWAIT, LOG_USER);
            priv().syslog_open = 1;
        }
        char line[2048];
        int n = snprintf(line, sizeof line, "%d %s %s - ", int(getpid()), info.name, category);
        if (n >= 0 && size_t(n) < sizeof line) {
            errno = saved_errno;
            vsnprintf(line + n, sizeof line - size_t(n), format, args);
        }
        syslog(info.priority, "%s", line);
        return;
    }
    timespec now{};
    g_realtime(&now);
    tm utc{};
    gmtime_r(&now.tv_sec, &utc);
    char stamp[30];
    size_t len = strftime(stamp, sizeof stamp, "%F %T", &utc);
    snprintf(stamp + len, sizeof stamp - len, ".%lu",
             (unsigned long)(now.tv_nsec / 1000000 % 1000));
    fprintf(stderr, "%s ", stamp);
    fprintf(stderr, "%d %s %s - ", int(getpid()), info.name, category);
    errno = saved_errno;
    vfprintf(stderr, format, args);
    fputc('\n', stderr);
    fflush(stderr);
}

}  // namespace cvlog

void CvLog_EarlyLog(const char *category, const char *, const char *, long, int level,
                    const char *format, ...) {
    va_list args;
    va_start(args, format);
    cvlog::early_vlog(category ? category : "", level, format, args);
    va_end(args);
}

void CvLog_Vlog(zlog_category_t *category, const char *file, size_t filelen, const char *func,
                size_t funclen, long line, int level, int32_t, const char *format, va_list args) {
    if (!cvlog::priv().initialized) {
        cvlog::early_vlog("", level, format, args);
        return;
    }
    if (cvlog::priv().suppress && CvLog_SupressMessage(level, format, args)) return;
    vzlog(category, file, filelen, func, funclen, line, level, format, args);
}

void CvLog_Log(zlog_category_t *category, const char *file, size_t filelen, const char *func,
               size_t funclen, long line, int level, int32_t unused, const char *format, ...) {
    va_list args;
    va_start(args, format);
    CvLog_Vlog(category, file, filelen, func, funclen, line, level, unused, format, args);
    va_end(args);
}

zlog_category_t *CvLog_GetCat(const char *name) {
    if (!name) {
        CvLog_EarlyLog("early", CV_LOG_SOURCE, __func__, __LINE__, CVLOG_ERROR,
                       "CvLog_GetCat() category NULL exit(EXIT_FAILURE)");
        exit(EXIT_FAILURE);
    }
    if (zlog_category_t *category = zlog_get_category(name)) return category;
    if (g_CvLogCtx.category) {
        zlog(g_CvLogCtx.category, CV_LOG_SOURCE, sizeof(CV_LOG_SOURCE) - 1, __func__,
             sizeof(__func__) - 1, __LINE__, CVLOG_ERROR, "invalid category %s", name);
    }
    CvLog_EarlyLog("early", CV_LOG_SOURCE, __func__, __LINE__, CVLOG_ERROR,
                   "CvLog_GetCat() zlog_get_category failed exit(EXIT_FAILURE)");
    exit(EXIT_FAILURE);
}
