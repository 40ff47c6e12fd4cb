// Zeroed allocation with an optional 128-byte aligned mode; exhaustion is logged and fatal.
#pragma once

#include <stddef.h>

#include "export.h"

CV_EXPORT void *corvaneexp_malloc_noexit(size_t size, int aligned);
CV_EXPORT void *corvaneexp_malloc(size_t size, int aligned);
CV_EXPORT void *corvaneexp_realloc(void *ptr, size_t size);

#ifdef __cplusplus
namespace cv::alloc {

// An allocation left as the system allocator hands it out (not zeroed), for callers that
// write every byte themselves; exhaustion is logged and fatal as for corvaneexp_malloc.
void *allocate_uninitialised(size_t size);

// A zeroed allocation from calloc, which takes large blocks from fresh pages that the kernel
// zeroes only when they are first touched: a big, sparsely used array costs no memset. No
// alignment beyond the C library's. Exhaustion is logged and fatal as for corvaneexp_malloc.
void *allocate_zeroed(size_t size);

}  // namespace cv::alloc
#endif
