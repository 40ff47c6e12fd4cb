// Clock readings in fixed units and the library's load-time stamp.
#pragma once

#include <stdint.h>

#include "export.h"

CV_EXPORT uint64_t corvaneexp_timer_get_nsec(void);
CV_EXPORT uint64_t corvaneexp_timer_get_usec(void);
CV_EXPORT uint64_t corvaneexp_timer_get_msec(void);
CV_EXPORT uint64_t corvaneexp_timer_get_sec(void);
CV_EXPORT uint32_t corvaneexp_timer_get_rnd(void);
CV_EXPORT uint64_t corvaneexp_timer_get_uptime(void);
CV_EXPORT uint64_t corvaneexp_timer_startup_time_update(void);
CV_EXPORT uint64_t corvaneexp_timer_get_startup_time(void);
CV_EXPORT uint32_t timer_get_startup_time32(void);

#ifdef __cplusplus
#include <ctime>

namespace cv::timer {
// Unit conversions of one clock reading, kept apart from the clock so they can be tested at
// any instant (12.999999999 s must give 12999 ms, not 13000).
constexpr uint64_t to_nsec(const timespec &t) {
    return uint64_t(t.tv_sec) * 1000000000u + t.tv_nsec;
}
constexpr uint64_t to_usec(const timespec &t) {
    return uint64_t(t.tv_sec) * 1000000u + t.tv_nsec / 1000;
}
constexpr uint64_t to_msec(const timespec &t) {
    return uint64_t(t.tv_sec) * 1000u + t.tv_nsec / 1000000;
}
}  // namespace cv::timer
#endif
