// Helpers shared by the state-table tests.
#pragma once

#include <stdint.h>

#include <initializer_list>
#include <utility>
#include <vector>

#include "crc.h"
#include "smb.h"
#include "support/names.h"

namespace tables_test {

using testnames::Name;
using testnames::name_of;
using testnames::utf16_name;

// (value, byte width) fields as little-endian bytes without padding: a key packed by hand.
inline std::vector<uint8_t> le(std::initializer_list<std::pair<uint64_t, int>> fields) {
    std::vector<uint8_t> out;
    for (auto [value, width] : fields)
        for (int i = 0; i < width; ++i)
            out.push_back(uint8_t(value >> (8 * i)));
    return out;
}

// The slot of a hand-packed key: its CRC-32C (seed 0) masked to the slot count.
template <typename Table>
size_t slot_of(const Table *t, const std::vector<uint8_t> &bytes) {
    return corvaneexp_crc32c(bytes.data(), bytes.size(), 0) & uint32_t(t->mask);
}

// The first identifier after `from` whose hand-packed key, key_bytes(id), lands on the slot of
// `from`'s: worked out here, not by the table, so that a table choosing slots otherwise fails
// the tests that rely on the collision.
template <typename Table, typename KeyBytes>
uint64_t colliding_id(const Table *t, uint64_t from, KeyBytes key_bytes) {
    const size_t slot = slot_of(t, key_bytes(from));
    for (uint64_t id = from + 1;; ++id)
        if (slot_of(t, key_bytes(id)) == slot) return id;
}

}  // namespace tables_test
