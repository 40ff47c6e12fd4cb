// Standard error without blank lines: the plug-in's log messages end with a line break of
// their own, to which its early log path adds another. Everything written through stdio's
// stderr (smbflow's messages and the plug-in's alike) goes through a filter that writes a line
// break only when it ends a line that has text.
#pragma once

namespace smbflow {

// Replaces stdio's stderr by the filter; unbuffered, like stderr itself.
void drop_blank_lines_on_stderr();

}  // namespace smbflow
