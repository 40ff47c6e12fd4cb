#define CV_LOG_SOURCE "lib/utils"
#include "utils_alloc.h"

#include <stdlib.h>
#include <string.h>

#include "cv_log.h"
#include "utils_alloc_seam.h"

namespace cv::alloc {

SystemAllocator &system_allocator() {
    static SystemAllocator allocator{::malloc, ::posix_memalign, ::realloc};
    return allocator;
}

}  // namespace cv::alloc

namespace {
constexpr size_t kAlignment = 128;  // queue contexts and table handles get their own lines
constexpr int kBackTraceDepth = 8;
}  // namespace

void *corvaneexp_malloc_noexit(size_t size, int aligned) {
    auto &system = cv::alloc::system_allocator();
    void *p = nullptr;
    if (aligned) {
        size = (size + kAlignment - 1) & ~(kAlignment - 1);
        if (system.posix_memalign(&p, kAlignment, size) != 0) {
            p = nullptr;
            CV_LOG(CVLOG_WARN, "Posix memalign problem (malloc)");
        }
    } else {
        p = system.malloc(size);
    }
    if (!p) {
        CV_LOG(CVLOG_WARN, "Unable to malloc: %lu KiB", (unsigned long)(size / 1024));
        CvLog_BackTrace(kBackTraceDepth);
        return nullptr;
    }
    memset(p, 0, size);
    return p;
}

void *corvaneexp_malloc(size_t size, int aligned) {
    void *p = corvaneexp_malloc_noexit(size, aligned);
    if (!p) {
        CV_LOG(CVLOG_ERROR, "corvaneexp_malloc() failed");
        exit(-666);
    }
    return p;
}

namespace {

// The same messages and exit status as an exhausted corvaneexp_malloc.
[[noreturn]] void out_of_memory(size_t size) {
    CV_LOG(CVLOG_WARN, "Unable to malloc: %lu KiB", (unsigned long)(size / 1024));
    CvLog_BackTrace(kBackTraceDepth);
    CV_LOG(CVLOG_ERROR, "corvaneexp_malloc() failed");
    exit(-666);
}

}  // namespace

void *cv::alloc::allocate_uninitialised(size_t size) {
    void *p = system_allocator().malloc(size);
    if (!p) out_of_memory(size);
    return p;
}

void *cv::alloc::allocate_zeroed(size_t size) {
    void *p = calloc(1, size);
    if (!p) out_of_memory(size);
    return p;
}

void *corvaneexp_realloc(void *ptr, size_t size) {
    void *p = cv::alloc::system_allocator().realloc(ptr, size);
    if (!p) {
        CV_LOG(CVLOG_ERROR, "Realloc failed !!!");
        exit(-1);
    }
    return p;
}
