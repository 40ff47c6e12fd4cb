#define CV_LOG_SOURCE "lib/utils"
#include "utils_alloc.h"

#include <stdlib.h>
#include <string.h>

#include "cv_log.h"

void *corvaneexp_malloc_noexit(size_t size, int aligned) {
    void *p = nullptr;
    if (aligned) {
        size = (size + 127) & ~size_t(127);
        if (posix_memalign(&p, 128, size) != 0) {
            p = nullptr;
            CV_LOG(CVLOG_WARN, "Posix memalign problem (malloc)");
        }
    } else {
        p = malloc(size);
    }
    if (!p) {
        CV_LOG(CVLOG_WARN, "Unable to malloc: %lu KiB", (unsigned long)(size / 1024));
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

void *corvaneexp_realloc(void *ptr, size_t size) {
    void *p = realloc(ptr, size);
    if (!p) {
        CV_LOG(CVLOG_ERROR, "Realloc failed !!!");
        exit(-1);
    }
    return p;
}
