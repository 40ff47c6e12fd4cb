// How smbflow asks the C library's allocator to treat its threads' heaps.
#pragma once

namespace smbflow {

// Call once, first thing in main(), before any thread starts.
void tune_allocator();

}  // namespace smbflow
