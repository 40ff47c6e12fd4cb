// Text for a terminal: names come from the network, so whatever a client put into them must
// not reach the operator's terminal as control sequences, nor break a table row.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace smbflow {

// The text with every control character (C0, DEL and the C1 range U+0080..U+009F) written as
// a visible escape: \xNN for the bytes below 0x80, \u0080..\u009F for the C1 code points.
// A run of backslashes followed by an escape, or by what would read as one ('x' and two hex
// digits, 'u' and four), is doubled, so that every escape reads one way: an odd run ends in an
// escape, an even one in text. Other backslashes (Windows paths) and other text, invalid UTF-8
// included, are copied unchanged.
std::string visible_text(std::string_view s);

// Columns the text takes on a terminal: two for East Asian wide and full-width characters and
// most emoji, none for combining marks and continuation bytes, one otherwise.
size_t display_width(std::string_view s);

}  // namespace smbflow
