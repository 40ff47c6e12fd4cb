// Back traces, program arguments and the allocation wrappers with their failures.
#define CV_LOG_SOURCE "tests/log"
#include <stdint.h>
#include <stdlib.h>

#include <regex>

#include "log_test_util.h"
#include "utils_alloc.h"
#include "utils_alloc_seam.h"

namespace {

using namespace logtest;
using Lines = std::vector<std::string>;

class Diag : public LogTest {
  protected:
    void SetUp() override {
        write_conf("", file_conf(out_));
        CvLog_Init(name_.c_str(), "diag");
        g_CvLogCtx.level = 101;  // these lines are written whatever the threshold
    }
};

TEST_F(Diag, ProgramArgumentsJoinedByBlanks) {
    char prog[] = "prog", opt[] = "-c", file[] = "x.conf";
    char *argv[] = {prog, opt, file, nullptr};
    CvLog_LogProgramArgs(1, argv);
    CvLog_LogProgramArgs(3, argv);
    EXPECT_EQ(out_lines(), Lines{"INFO diag CvLog_LogProgramArgs - args:prog -c x.conf"});
}

__attribute__((noinline)) void trace_c(int depth) {
    CvLog_BackTrace(depth);
}
__attribute__((noinline)) void trace_b(int depth) {
    trace_c(depth);
}
__attribute__((noinline)) void trace_a(int depth) {
    trace_b(depth);
}

TEST_F(Diag, BackTraceLeavesItselfOutAndNumbersFromZero) {
    trace_a(1);
    EXPECT_TRUE(out_lines().empty());
    trace_a(8);
    Lines lines = out_lines();
    ASSERT_EQ(lines.size(), 7u);
    for (size_t i = 0; i < lines.size(); ++i)
        EXPECT_TRUE(
            lines[i].starts_with("INFO diag CvLog_BackTrace - (" + std::to_string(i) + ") "))
            << lines[i];
}

// Makes the system allocator fail for the lifetime of the object.
struct FailingAllocator {
    cv::alloc::SystemAllocator saved = cv::alloc::system_allocator();
    FailingAllocator() {
        cv::alloc::system_allocator() = {[](size_t) -> void * { return nullptr; },
                                         [](void **, size_t, size_t) { return 12; },
                                         [](void *, size_t) -> void * { return nullptr; }};
    }
    ~FailingAllocator() { cv::alloc::system_allocator() = saved; }
};

TEST_F(LogTest, AllocationZeroedAndPaddedToWholeUnits) {
    const struct {
        size_t size;
        int aligned;
        size_t expected;
    } cases[] = {{88, 1, 128}, {128, 1, 128}, {129, 1, 256}, {64, 0, 64}};
    for (const auto &c : cases) {
        auto *p = static_cast<unsigned char *>(corvaneexp_malloc(c.size, c.aligned));
        EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % (c.aligned ? 128 : 1), 0u);
        for (size_t i = 0; i < c.expected; ++i)
            ASSERT_EQ(p[i], 0) << i;  // ASan checks the size
        p = static_cast<unsigned char *>(corvaneexp_realloc(p, c.expected + 10));
        EXPECT_EQ(p[0], 0);
        free(p);
    }
}

// Every failure of the non-exiting form logs and writes a back trace (at INFO, so it shows on
// the early path even at the default threshold).
TEST_F(LogTest, FailedAllocationLogsAndTraces) {
    const struct {
        size_t size;
        int aligned;
        const char *messages;  // before the back trace
    } cases[] = {
        {1000, 0, R"(WARN  - Unable to malloc: 0 KiB\n)"},
        {5000, 0, R"(WARN  - Unable to malloc: 4 KiB\n)"},
        {1000, 1,
         R"(WARN  - Posix memalign problem \(malloc\)\n.* WARN  - Unable to malloc: 1 KiB\n)"}};
    for (const auto &c : cases) {
        StderrCapture capture;
        {
            FailingAllocator failing;
            EXPECT_EQ(corvaneexp_malloc_noexit(c.size, c.aligned), nullptr);
        }
        std::string text = capture.text();
        EXPECT_TRUE(std::regex_search(text, std::regex(c.messages))) << text;
        EXPECT_TRUE(std::regex_search(text, std::regex(R"(INFO  - CvLog_BackTrace - \(0\) .*\n)")))
            << text;
    }
}

TEST_F(LogTest, ExitingFormsEndTheProcess) {
    FailingAllocator failing;
    EXPECT_EXIT(corvaneexp_malloc(64, 0), ::testing::ExitedWithCode(102),
                "Unable to malloc: 0 KiB\n.*ERROR  - corvaneexp_malloc\\(\\) failed\n");
    EXPECT_EXIT(corvaneexp_realloc(nullptr, 64), ::testing::ExitedWithCode(255),
                "ERROR  - Realloc failed !!!\n");
    // Above ERROR only the back trace, which ignores the threshold, is written.
    g_CvLogCtx.level = 101;
    EXPECT_EXIT(corvaneexp_malloc(64, 1), ::testing::ExitedWithCode(102),
                "^([^\n]* INFO  - CvLog_BackTrace - [^\n]*\n)+$");
}

}  // namespace
