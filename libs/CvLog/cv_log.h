// Leveled logging over zlog, with an early stderr/syslog path before initialisation and the
// suppression of repeated messages.
#pragma once

#include <stdarg.h>
#include <stdbool.h>
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
    void *priv;  // &g_CvLogPrivateCtx
} CvLogCtx;

#define CVLOG_PATH_MAX 4096

typedef struct CvLogPrivateCtx {
    char init_config_path[CVLOG_PATH_MAX];  // used between CvLog_Preinit and CvLog_Reinit
    uint8_t init_config_is_temp;            // init_config_path is a fail-safe file to remove
    char config_path[CVLOG_PATH_MAX];       // the main configuration
    uint8_t config_is_temp;
    char app_name[CVLOG_PATH_MAX];  // the syslog identity
    uint8_t suppress;               // repeated-message suppression on
    uint8_t initialized;            // zlog is ready; until then messages take the early path
    uint8_t syslog_open;
    uint8_t daemonized;
} CvLogPrivateCtx;

CV_EXPORT_DATA CvLogCtx g_CvLogCtx;
CV_EXPORT_DATA CvLogPrivateCtx g_CvLogPrivateCtx;
CV_EXPORT_DATA const char *g_zlog_default_category;  // "corvane_main"

// Log calls. CvLog_Log does not test the threshold: its callers do (see CV_LOG). The int32_t
// argument is unused; callers pass -1.
CV_EXPORT void CvLog_Log(zlog_category_t *category, const char *file, size_t filelen,
                         const char *func, size_t funclen, long line, int level, int32_t unused,
                         const char *format, ...) __attribute__((format(printf, 9, 10)));
CV_EXPORT void CvLog_Vlog(zlog_category_t *category, const char *file, size_t filelen,
                          const char *func, size_t funclen, long line, int level, int32_t unused,
                          const char *format, va_list args);
// Writes one line to stderr, or to syslog when stderr is closed.
CV_EXPORT void CvLog_EarlyLog(const char *category, const char *file, const char *func, long line,
                              int level, const char *format, ...)
    __attribute__((format(printf, 6, 7)));
// The zlog category of that name; a missing one ends the process with status 1.
CV_EXPORT zlog_category_t *CvLog_GetCat(const char *name);
CV_EXPORT uint32_t CvLog_crc32c(const void *data, uint64_t length, uint32_t seed);

// Start-up and shutdown. Every failure ends the process with status 1 after its message.
CV_EXPORT void CvLog_Init(const char *app_name, const char *category);
CV_EXPORT void CvLog_Preinit(const char *app_name, const char *category);
CV_EXPORT void CvLog_PreinitWithSupress(const char *app_name, const char *category,
                                        int32_t suppress);
CV_EXPORT void CvLog_Reinit(const char *category);
CV_EXPORT void CvLog_AfterDaemonize(const char *category);
CV_EXPORT void CvLog_SwitchUserPrepare(const char *user);
CV_EXPORT void CvLog_AfterSwitchUser(const char *daemon_category, const char *foreground_category);
CV_EXPORT void CvLog_Deinit(void);

// Repeated-message suppression: a text seen again within a minute is only counted, and one
// "REPEATED (%i): %s" line reports the count when the minute is over.
CV_EXPORT bool CvLog_SupressMessage(int level, const char *format, va_list args);
CV_EXPORT void CvLog_FlushSupressMessage(void);
CV_EXPORT void CvLog_StartSupressThread(void);
CV_EXPORT void CvLog_StopSupressThread(void);
CV_EXPORT void *CvLog_SupressThread(void *unused);

// Diagnostics, written at INFO whatever the threshold.
CV_EXPORT void CvLog_BackTrace(int32_t depth);
CV_EXPORT void CvLog_LogProgramArgs(int argc, char **argv);

// The call-site helper: tests the threshold, then logs with the module's source path
// (CV_LOG_SOURCE, defined by each source file before it includes this header), the function
// name and the line.
#define CV_LOG(lvl, ...)                                                                       \
    do {                                                                                       \
        if (g_CvLogCtx.level <= (uint32_t)(lvl))                                               \
            CvLog_Log(g_CvLogCtx.category, CV_LOG_SOURCE, sizeof(CV_LOG_SOURCE) - 1, __func__, \
                      sizeof(__func__) - 1, __LINE__, (lvl), -1, __VA_ARGS__);                 \
    } while (0)

// The same without the threshold test, for the lines that are written whatever it is.
#define CV_LOG_ALWAYS(lvl, ...)                                                        \
    CvLog_Log(g_CvLogCtx.category, CV_LOG_SOURCE, sizeof(CV_LOG_SOURCE) - 1, __func__, \
              sizeof(__func__) - 1, __LINE__, (lvl), -1, __VA_ARGS__)
