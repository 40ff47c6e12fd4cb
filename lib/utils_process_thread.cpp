// Thread names and the condition variable that waits on the monotonic clock.
#include <stdarg.h>
#include <stdio.h>
#include <sys/prctl.h>
#include <time.h>

#include "utils_alloc.h"
#include "utils_process.h"

void corvaneexp_set_thread_name(const char *format, ...) {
    char name[16];  // the kernel keeps 15 characters and the terminator
    va_list args;
    va_start(args, format);
    vsnprintf(name, sizeof name, format, args);
    va_end(args);
    prctl(PR_SET_NAME, name, 0, 0, 0);
}

int corvaneexp_cond_init(timed_cond *cond, pthread_mutex_t *mutex) {
    // Deadlines are taken from the monotonic clock, so that a change of the wall clock neither
    // cuts a wait short nor stretches it.
    pthread_condattr_init(&cond->cond_attr);
    pthread_condattr_setclock(&cond->cond_attr, CLOCK_MONOTONIC);
    int created = pthread_cond_init(&cond->cond_var, &cond->cond_attr);
    if (mutex) {
        cond->cond_mutex = mutex;
        return created;
    }
    cond->cond_mutex =
        static_cast<pthread_mutex_t *>(corvaneexp_malloc(sizeof(pthread_mutex_t), 1));
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    int result = pthread_mutex_init(cond->cond_mutex, &attr);
    pthread_mutexattr_destroy(&attr);
    return result;
}

int corvaneexp_cond_destroy(timed_cond *cond) {
    int result = pthread_cond_destroy(&cond->cond_var);
    pthread_condattr_destroy(&cond->cond_attr);
    return result;
}

int corvaneexp_cond_lock(timed_cond *cond) {
    return pthread_mutex_lock(cond->cond_mutex);
}
int corvaneexp_cond_unlock(timed_cond *cond) {
    return pthread_mutex_unlock(cond->cond_mutex);
}
int corvaneexp_cond_trylock(timed_cond *cond) {
    return pthread_mutex_trylock(cond->cond_mutex);
}
int corvaneexp_cond_signal(timed_cond *cond) {
    return pthread_cond_signal(&cond->cond_var);
}
int corvaneexp_cond_broadcast(timed_cond *cond) {
    return pthread_cond_broadcast(&cond->cond_var);
}

int corvaneexp_cond_wait(timed_cond *cond) {
    return pthread_cond_wait(&cond->cond_var, cond->cond_mutex);
}

int corvaneexp_cond_timedwait(timed_cond *cond, uint32_t milliseconds) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    timespec deadline = cv::process::deadline_after(now, milliseconds);
    return pthread_cond_timedwait(&cond->cond_var, cond->cond_mutex, &deadline);
}
