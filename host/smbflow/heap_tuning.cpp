#include "heap_tuning.h"

#include <cstdlib>  // defines __GLIBC__ on glibc
#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace smbflow {

// glibc grows the heap of a thread's own arena by exactly what an allocation lacks, a page at a
// time, with a system call each: the queue and export threads' records and names cost one
// mprotect() per 4 KiB as they build up (about 1,700 for a million SMB packets). A top pad of
// a few MiB makes that a handful; the pad is address space, and a page of it costs memory only
// once it is written. (Setting it keeps glibc's mmap threshold at its first 128 KiB; a higher
// one would bring the blocks above that into the heaps, and back the page-by-page growth.)
void tune_heap() {
#if defined(__GLIBC__)
    mallopt(M_TOP_PAD, 8 << 20);
#endif
}

}  // namespace smbflow
