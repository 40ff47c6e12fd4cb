#include <gtest/gtest.h>

#include "utils_timer.h"

namespace {

TEST(Timer, UnitsRoundDownFromOneReading) {
    timespec t{12, 999999999};
    EXPECT_EQ(cv::timer::to_msec(t), 12999u);
    EXPECT_EQ(cv::timer::to_usec(t), 12999999u);
    EXPECT_EQ(cv::timer::to_nsec(t), 12999999999u);
}

TEST(Timer, StartupStampIsSetAtLoadAndStable) {
    uint64_t first = corvaneexp_timer_get_startup_time();
    EXPECT_GT(first, 1600000000ull * 1000000000ull);  // set before main ran
    EXPECT_LE(first, corvaneexp_timer_get_nsec());
    EXPECT_EQ(corvaneexp_timer_get_startup_time(), first);
    EXPECT_EQ(timer_get_startup_time32(), uint32_t(first));
}

}  // namespace
