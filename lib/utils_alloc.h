// Zeroed allocation with an optional 128-byte aligned mode; exhaustion is logged and fatal.
#pragma once

#include <stddef.h>

#include "export.h"

CV_EXPORT void *corvaneexp_malloc_noexit(size_t size, int aligned);
CV_EXPORT void *corvaneexp_malloc(size_t size, int aligned);
CV_EXPORT void *corvaneexp_realloc(void *ptr, size_t size);
