// The C library's heap, set up for a process whose queue and export threads allocate and free
// records at a high rate.
#pragma once

namespace smbflow {

// Called once at start, before any thread.
void tune_heap();

}  // namespace smbflow
