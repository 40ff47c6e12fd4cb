// Leveled logging over zlog, with an early stderr/syslog path before initialisation.
#pragma once

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#include "../../lib/export.h"

typedef struct zlog_category_s zlog_category_t;

// zlog's level numbers.
enum {
    CVLOG_TRACE = 10,
    CVLOG_DEBUG = 20,
    CVLOG_INFO = 40,
    CVLOG_NOTICE = 60,
    CVLOG_WARN = 80,
    CVLOG_ERROR = 100,
};

typedef struct CvLogCtx {
    uint32_t level;  // callers log a message of level L only when level <= L
    zlog_category_t *category;
    void *priv;
} CvLogCtx;

CV_EXPORT_DATA CvLogCtx g_CvLogCtx;

CV_EXPORT void CvLog_Log(zlog_category_t *category, const char *file, size_t filelen,
                         const char *func, size_t funclen, long line, int level, int32_t unused,
                         const char *format, ...) __attribute__((format(printf, 9, 10)));
CV_EXPORT void CvLog_Vlog(zlog_category_t *category, const char *file, size_t filelen,
                          const char *func, size_t funclen, long line, int level, int32_t unused,
                          const char *format, va_list args);
CV_EXPORT void CvLog_EarlyLog(const char *category, const char *file, const char *func, long line,
                              int level, const char *format, ...)
    __attribute__((format(printf, 6, 7)));
CV_EXPORT uint32_t CvLog_crc32c(const void *data, uint64_t length, uint32_t seed);

// The call-site helper: tests the threshold, then logs with the module's source path
// (CV_LOG_SOURCE, defined by each source file before it includes this header), the function
// name and the line.
#define CV_LOG(lvl, ...)                                                                     \
    do {                                                                                     \
        if (g_CvLogCtx.level <= (uint32_t)(lvl))                                             \
            CvLog_Log(g_CvLogCtx.category, CV_LOG_SOURCE, sizeof(CV_LOG_SOURCE) - 1, __func__, \
                      sizeof(__func__) - 1, __LINE__, (lvl), -1, __VA_ARGS__);               \
    } while (0)
