// Marks the names that make up the library's C ABI; everything else is hidden.
#pragma once

#ifdef __cplusplus
#define CV_EXTERN_C extern "C"
#else
#define CV_EXTERN_C
#endif

#define CV_EXPORT CV_EXTERN_C __attribute__((visibility("default")))

// Declares exported data (extern "C" already makes a declaration in C++).
#ifdef __cplusplus
#define CV_EXPORT_DATA CV_EXPORT
#else
#define CV_EXPORT_DATA extern __attribute__((visibility("default")))
#endif
