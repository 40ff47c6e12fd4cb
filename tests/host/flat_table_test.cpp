// The flow cache's table against a plain map under random inserts and erases, with a hash
// that puts many keys on few home slots: erasing from the middle of a long run that wraps
// round the end of the index must leave every other key reachable, at the same address.
#include "flat_table.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

namespace {

struct FewHomes {
    size_t operator()(uint32_t k) const { return k % 13; }
};

TEST(FlatTable, KeysStayReachableAtTheirAddressThroughInsertsAndErases) {
    using Table = corvane_host::FlatTable<uint32_t, uint64_t, FewHomes>;
    Table table;
    std::map<uint32_t, Table::Entry *> ref;
    std::mt19937 rng(7);
    for (int round = 0; round < 20000; ++round) {
        const uint32_t key = rng() % 3000;
        if (auto it = ref.find(key); it != ref.end() && rng() % 2) {
            ASSERT_EQ(table.find(key), it->second);
            table.erase(it->second);
            ref.erase(it);
        } else {
            auto [e, made] = table.try_emplace(key);
            ASSERT_EQ(made, it == ref.end()) << key;
            if (made) e->second = key * 3ull;
            ref[key] = e;
        }
        if (round % 1000 != 0) continue;
        for (uint32_t k = 0; k < 3000; ++k) {
            auto it = ref.find(k);
            ASSERT_EQ(table.find(k), it == ref.end() ? nullptr : it->second) << k;
            if (it != ref.end()) {
                ASSERT_EQ(it->second->second, k * 3ull);
            }
        }
    }
    ASSERT_EQ(table.size(), ref.size());
}

}  // namespace
