// The output object that the host hands to a field's fill callbacks, and that the four
// record writers (record_universal_*) write into. A binary fill produces the value's bytes,
// a text fill its text.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "text_buffer.h"

namespace corvane_host {

// The fill callbacks' argument b, passed on by plug-ins to record_universal_get_num, selects
// the byte order of a binary number: 0 as in memory (this host: little-endian), non-zero
// network order. Argument a is the field's position in the host's field list.
inline constexpr uint32_t kByteOrderHost = 0;
inline constexpr uint32_t kByteOrderNetwork = 1;

struct FieldOutput {
    std::vector<uint8_t> binary;
    TextBuffer text;      // written in place by the text writers
    unsigned writes = 0;  // successful writer calls; 0 means the fill gave no value

    void clear() {
        binary.clear();
        text.clear();
        writes = 0;
    }
};

// Text of an unsigned little-endian number of 1 to 8 bytes, in decimal.
std::string number_text(const uint8_t *value, uint32_t size);

}  // namespace corvane_host
