// Helpers shared by the state-table tests.
#pragma once

#include <stdint.h>
#include <string.h>

#include <array>
#include <string_view>

#include "smb.h"

namespace tables_test {

using Name = std::array<uint8_t, SMB_NAME_SIZE>;

// A name as the wire carries it: UTF-16LE, zero-filled to 128 bytes.
inline Name utf16_name(std::string_view ascii) {
    Name n{};
    for (size_t i = 0; i < ascii.size() && 2 * i + 1 < n.size(); ++i)
        n[2 * i] = uint8_t(ascii[i]);
    return n;
}

inline Name copy_name(const uint8_t *p) {
    Name n{};
    memcpy(n.data(), p, n.size());
    return n;
}

// The first identifier after `from` whose key, make_key(id), lands on the slot of `from`'s.
template <typename Table, typename MakeKey>
uint64_t colliding_id(const Table *t, uint64_t from, MakeKey make_key) {
    const size_t slot = t->index_of(make_key(from));
    for (uint64_t id = from + 1;; ++id)
        if (t->index_of(make_key(id)) == slot) return id;
}

}  // namespace tables_test
