// Repeated-message suppression: a fixed table of the texts logged within the last minute, a
// thread that reports and frees the entries whose minute is over, and fork handlers that keep
// the table consistent in both processes.
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "cv_log_internal.h"
#include "zlog.h"

namespace cvlog {

namespace {

constexpr int kEntries = 64;
constexpr size_t kTextSize = 2048;
constexpr time_t kPeriod = 60;  // seconds an entry counts repeats
constexpr unsigned kThreadPeriod = 1;

struct Entry {
    char text[kTextSize];
    int64_t first_seen;  // 0: free
    int32_t count;       // occurrences, the first included
    int32_t level;       // of the first occurrence; the summary is written at it
    uint64_t hash;       // CvLog_crc32c of the text
};

Entry g_loglist[kEntries];
pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_t g_verbose_thread;
bool g_thread_running = false;
bool g_fork_handlers_registered = false;

time_t seconds_clock() {
    return time(nullptr);
}

// Writes the summary of an entry that saw repeats, then frees it. The line goes to zlog
// directly so that it never meets the filter again. Caller holds g_mutex.
void report(Entry &entry, const char *func) {
    if (entry.count > 1 && g_CvLogCtx.category) {
        zlog(g_CvLogCtx.category, CVLOG_OWN_SOURCE, sizeof(CVLOG_OWN_SOURCE) - 1, func,
             strlen(func), __LINE__, entry.level, "REPEATED (%i): %s", entry.count, entry.text);
    }
    memset(&entry, 0, sizeof entry);
}

// Stopping flushes the counts and makes sure no thread holds g_mutex across the fork; both
// processes then go on with a thread of their own, whether or not one ran before.
void before_fork() {
    CvLog_StopSupressThread();
}

void after_fork() {
    CvLog_StartSupressThread();
}

}  // namespace

time_t (*g_seconds)() = seconds_clock;

void expire_repeats(time_t now) {
    pthread_mutex_lock(&g_mutex);
    for (Entry &entry : g_loglist) {
        if (!entry.first_seen) continue;
        // Stamps in the future come from a clock that was set back: report those too.
        if (entry.first_seen <= now && now <= entry.first_seen + kPeriod) continue;
        report(entry, "CvLog_SupressThread");
    }
    pthread_mutex_unlock(&g_mutex);
}

void start_suppression() {
    CvLog_StartSupressThread();
    if (!g_fork_handlers_registered) {
        pthread_atfork(before_fork, after_fork, after_fork);
        g_fork_handlers_registered = true;
    }
}

void clear_repeats() {
    pthread_mutex_lock(&g_mutex);
    memset(g_loglist, 0, sizeof g_loglist);
    pthread_mutex_unlock(&g_mutex);
}

}  // namespace cvlog

bool CvLog_SupressMessage(int level, const char *format, va_list args) {
    using namespace cvlog;
    if (g_CvLogCtx.level <= CVLOG_TRACE) return false;  // the most verbose threshold keeps all

    char text[kTextSize] = {};
    va_list copy;  // the caller hands its own list to zlog afterwards
    va_copy(copy, args);
    int formatted = vsnprintf(text, sizeof text, format, copy);
    va_end(copy);
    if (formatted < 0) return false;  // nothing to match on: log it unfiltered
    size_t n = size_t(formatted) >= kTextSize ? kTextSize - 1 : size_t(formatted);
    uint64_t hash = CvLog_crc32c(text, n, 0);

    pthread_mutex_lock(&g_mutex);
    Entry *free_entry = nullptr;
    for (Entry &entry : g_loglist) {
        if (!entry.first_seen) {
            if (!free_entry) free_entry = &entry;
            continue;
        }
        if (entry.hash == hash && memcmp(entry.text, text, n) == 0 && entry.text[n] == '\0') {
            ++entry.count;
            pthread_mutex_unlock(&g_mutex);
            return true;
        }
    }
    if (free_entry) {  // with all 64 in use the message is logged and not tracked
        free_entry->first_seen = g_seconds();
        free_entry->count = 1;
        free_entry->hash = hash;
        free_entry->level = level;
        memcpy(free_entry->text, text, n);
        free_entry->text[n] = '\0';
    }
    pthread_mutex_unlock(&g_mutex);
    return false;
}

void CvLog_FlushSupressMessage(void) {
    using namespace cvlog;
    if (!priv().suppress) return;
    pthread_mutex_lock(&g_mutex);
    for (Entry &entry : g_loglist)
        if (entry.first_seen) report(entry, __func__);
    pthread_mutex_unlock(&g_mutex);
}

void *CvLog_SupressThread(void *) {
    using namespace cvlog;
    for (;;) {
        sleep(kThreadPeriod);  // a cancellation point
        // Never cancelled while holding the mutex or inside zlog.
        int state;
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &state);
        if (priv().suppress) expire_repeats(g_seconds());
        pthread_setcancelstate(state, nullptr);
        pthread_testcancel();
    }
    return nullptr;
}

void CvLog_StartSupressThread(void) {
    using namespace cvlog;
    if (g_thread_running) return;
    g_thread_running =
        pthread_create(&g_verbose_thread, nullptr, CvLog_SupressThread, nullptr) == 0;
}

void CvLog_StopSupressThread(void) {
    using namespace cvlog;
    if (g_thread_running) {
        pthread_cancel(g_verbose_thread);
        pthread_join(g_verbose_thread, nullptr);
        g_thread_running = false;
    }
    CvLog_FlushSupressMessage();
}
