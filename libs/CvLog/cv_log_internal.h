// What the parts of the logging facility share with each other (and with its tests); none of
// it is exported.
#pragma once

#include <stdarg.h>
#include <time.h>

#include "cv_log.h"

#define CVLOG_OWN_SOURCE "libs/CvLog/cv_log"

namespace cvlog {

inline CvLogPrivateCtx &priv() {
    return g_CvLogPrivateCtx;
}

// The clocks the facility reads: the wall clock of the early path and the seconds of the
// suppression table. Tests replace them to place messages in time without waiting.
extern int (*g_realtime)(timespec *now);
extern time_t (*g_seconds)();

// One line on the early path (stderr, or syslog when stderr is closed).
void early_vlog(const char *category, int level, const char *format, va_list args);

// One pass of the suppression thread at the given time: reports the entries whose minute is
// over (or that were stamped in the future).
void expire_repeats(time_t now);
// Starts the suppression thread and, the first time, registers the fork handlers.
void start_suppression();
// Frees every suppression entry without reporting it.
void clear_repeats();

// Back to the state before any initialisation: zlog closed, contexts at their initial values,
// suppression thread stopped and its table empty. For tests that initialise repeatedly.
void reset();

}  // namespace cvlog
