// Process and thread helpers: start-up (background, user, CPUs), thread names, a condition
// variable on the monotonic clock, bit counting, hex strings and command-string parsing.
#pragma once

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#include "export.h"
#include "utils_config.h"

// A condition variable that waits on the monotonic clock, with its mutex.
typedef struct timed_cond {
    pthread_mutex_t *cond_mutex;  // the caller's, or a recursive one made by corvaneexp_cond_init
    pthread_cond_t cond_var;
    pthread_condattr_t cond_attr;
} timed_cond;

CV_EXPORT int corvaneexp_return_zero(void);
CV_EXPORT int corvaneexp_return_one(void);

// Swaps two non-overlapping areas of size bytes.
CV_EXPORT void corvaneexp_xchg(void *a, void *b, size_t size);
// A new heap string of two upper-case hex digits per byte.
CV_EXPORT char *corvaneexp_str2hexa(const void *bytes, size_t count);
// Names the calling thread; the name is cut to 15 characters.
CV_EXPORT void corvaneexp_set_thread_name(const char *format, ...)
    __attribute__((format(printf, 1, 2)));

// With mutex null, a recursive mutex is made (and left to the caller to free with its
// storage); the result is then that of the mutex's creation, else that of the condition's.
CV_EXPORT int corvaneexp_cond_init(timed_cond *cond, pthread_mutex_t *mutex);
CV_EXPORT int corvaneexp_cond_destroy(timed_cond *cond);
CV_EXPORT int corvaneexp_cond_lock(timed_cond *cond);
CV_EXPORT int corvaneexp_cond_unlock(timed_cond *cond);
CV_EXPORT int corvaneexp_cond_trylock(timed_cond *cond);
CV_EXPORT int corvaneexp_cond_signal(timed_cond *cond);
CV_EXPORT int corvaneexp_cond_broadcast(timed_cond *cond);
CV_EXPORT int corvaneexp_cond_wait(timed_cond *cond);
// Waits at most milliseconds on the monotonic clock; ETIMEDOUT when the time is up.
CV_EXPORT int corvaneexp_cond_timedwait(timed_cond *cond, uint32_t milliseconds);

CV_EXPORT uint32_t ones32(uint32_t x);
CV_EXPORT uint64_t corvaneexp_count_ones(const void *bytes, size_t count);
// The value of a string of decimal digits, or -1 when any character is not a digit.
CV_EXPORT int32_t corvaneexp_test_positive_number(const char *string);
// A 256-byte heap buffer holding the host name (empty when unknown); the caller frees it.
CV_EXPORT char *corvaneexp_hostname_get(void);
CV_EXPORT void corvaneexp_set_deadline(void);

// Goes to the background when flag is non-zero: the calling process exits with status 0 and
// the call returns in a child detached from the terminal.
CV_EXPORT void corvaneexp_daemonize(int flag);
// Drops root rights for user (nothing for null); a failed change ends the process.
CV_EXPORT void corvaneexp_switch_user(const char *user);
// Pins the calling thread to the CPUs of the mask's bits 0 to 31; 0xffffffff leaves it alone.
// A mask out of range or one that cannot be applied ends the process.
CV_EXPORT void corvaneexp_set_affinity(int64_t mask);

// Parses "name:key=value,..." into the targets of table, every key being mandatory.
// 0 on success, -1 for a missing or different name, -2 for parameter problems.
CV_EXPORT int corvaneexp_rpc_parse(const char *text, const char *name,
                                   const config_value_desc *table);

#ifdef __cplusplus
#include <sched.h>

#include <ctime>

namespace cv::process {
// The absolute deadline milliseconds after the clock reading now.
constexpr timespec deadline_after(const timespec &now, uint32_t milliseconds) {
    timespec at{};
    at.tv_sec = now.tv_sec + milliseconds / 1000;
    at.tv_nsec = long(milliseconds % 1000) * 1000000 + now.tv_nsec;
    if (at.tv_nsec >= 1000000000) {
        at.tv_nsec -= 1000000000;
        at.tv_sec += 1;
    }
    return at;
}

// CPU i is in the set exactly when bit i of the mask is set.
cpu_set_t cpu_set_of(uint32_t mask);
}  // namespace cv::process
#endif
