#include "utils_timer.h"

#include <ctime>

namespace {

uint64_t startup_time;

timespec read_clock(clockid_t id) {
    timespec t{};
    clock_gettime(id, &t);
    return t;
}

// Stamped when the library is loaded, before any of its code is called.
__attribute__((constructor)) void stamp_startup_time() {
    corvaneexp_timer_startup_time_update();
}

}  // namespace

uint64_t corvaneexp_timer_get_nsec(void) {
    return cv::timer::to_nsec(read_clock(CLOCK_REALTIME));
}
uint64_t corvaneexp_timer_get_usec(void) {
    return cv::timer::to_usec(read_clock(CLOCK_REALTIME));
}
uint64_t corvaneexp_timer_get_msec(void) {
    return cv::timer::to_msec(read_clock(CLOCK_REALTIME));
}
uint64_t corvaneexp_timer_get_sec(void) {
    return uint64_t(read_clock(CLOCK_REALTIME).tv_sec);
}
uint32_t corvaneexp_timer_get_rnd(void) {
    return uint32_t(read_clock(CLOCK_REALTIME).tv_nsec);
}
uint64_t corvaneexp_timer_get_uptime(void) {
    return cv::timer::to_nsec(read_clock(CLOCK_MONOTONIC));
}

uint64_t corvaneexp_timer_startup_time_update(void) {
    startup_time = corvaneexp_timer_get_nsec();
    return startup_time;
}

uint64_t corvaneexp_timer_get_startup_time(void) {
    return startup_time;
}
uint32_t timer_get_startup_time32(void) {
    return uint32_t(startup_time);
}
