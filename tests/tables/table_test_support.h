// Helpers shared by the state-table tests.
#pragma once

#include <stdint.h>

#include "smb.h"
#include "support/names.h"

namespace tables_test {

using testnames::Name;
using testnames::name_of;
using testnames::utf16_name;

// The first identifier after `from` whose key, make_key(id), lands on the slot of `from`'s.
template <typename Table, typename MakeKey>
uint64_t colliding_id(const Table *t, uint64_t from, MakeKey make_key) {
    const size_t slot = t->index_of(make_key(from));
    for (uint64_t id = from + 1;; ++id)
        if (t->index_of(make_key(id)) == slot) return id;
}

}  // namespace tables_test
