// A small zlog-compatible logging back end: the C API, level numbers and configuration format
// of zlog (sections [global], [levels], [formats], [rules]), without file rotation, MDC or
// user-defined outputs.
#pragma once

#include <stdarg.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct zlog_category_s zlog_category_t;

typedef enum {
    ZLOG_LEVEL_DEBUG = 20,
    ZLOG_LEVEL_INFO = 40,
    ZLOG_LEVEL_NOTICE = 60,
    ZLOG_LEVEL_WARN = 80,
    ZLOG_LEVEL_ERROR = 100,
    ZLOG_LEVEL_FATAL = 120
} zlog_level;

// Reads the configuration (null: $ZLOG_CONF_PATH, else every category to stdout). Fails with
// -1 when the file cannot be read or parsed, or when zlog is already initialised.
int zlog_init(const char *confpath);
// Replaces the configuration (null: the last path); on failure the old one stays in force.
int zlog_reload(const char *confpath);
void zlog_fini(void);
// Categories are created on first use and stay valid across reloads.
zlog_category_t *zlog_get_category(const char *cname);

void zlog(zlog_category_t *category, const char *file, size_t filelen, const char *func,
          size_t funclen, long line, int level, const char *format, ...)
    __attribute__((format(printf, 8, 9)));
void vzlog(zlog_category_t *category, const char *file, size_t filelen, const char *func,
           size_t funclen, long line, int level, const char *format, va_list args);

#ifdef __cplusplus
}
#endif
