// Rendering of the fixed-size UTF-16LE name buffers that plug-ins export (share and file
// names as they travel in SMB2) into UTF-8 text.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "text_buffer.h"

namespace corvane_host {

// Converts `size` bytes of UTF-16LE to UTF-8. The text ends at the first zero code unit (or
// at the end of the buffer; an odd last byte is ignored). Unpaired surrogates become U+FFFD.
std::string utf16le_to_utf8(const uint8_t *buf, size_t size);
// The same, appended to `out`.
void append_utf16le_as_utf8(std::string &out, const uint8_t *buf, size_t size);
// The same, written in place at the end of `out`.
void append_utf16le_as_utf8(TextBuffer &out, const uint8_t *buf, size_t size);

// Appends the UTF-8 encoding of one code point.
void append_utf8(std::string &out, uint32_t cp);

}  // namespace corvane_host
