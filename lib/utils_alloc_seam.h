// The system allocator behind the allocation wrappers, replaceable so that tests can make an
// allocation fail on purpose. Not exported.
#pragma once

#include <stddef.h>

namespace cv::alloc {

struct SystemAllocator {
    void *(*malloc)(size_t size);
    int (*posix_memalign)(void **out, size_t alignment, size_t size);
    void *(*realloc)(void *ptr, size_t size);
};

// The allocator in use; starts as the C library's.
SystemAllocator &system_allocator();

}  // namespace cv::alloc
