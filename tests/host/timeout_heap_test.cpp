// The timeout heap against a plain ordered reference under random pushes, removals of
// arbitrary items and refiling of the first one: every item's recorded place must stay right,
// or removing an item would take out another.
#include "timeout_heap.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <vector>

namespace {

struct Item {
    uint32_t pos = 0;
    bool in = false;
};

struct PosOf {
    uint32_t &operator()(Item *item) const { return item->pos; }
};

TEST(TimeoutHeap, AgreesWithAnOrderedReference) {
    std::mt19937_64 rng(20261123);
    std::vector<Item> items(300);
    std::multimap<uint64_t, Item *> reference;
    std::map<Item *, uint64_t> due_of;
    corvane_host::TimeoutHeap<Item *, PosOf> heap;

    for (int step = 0; step < 20000; ++step) {
        Item *item = &items[rng() % items.size()];
        const uint64_t due = rng() % 1000;
        auto forget = [&](Item *x) {
            auto range = reference.equal_range(due_of[x]);
            for (auto it = range.first; it != range.second; ++it)
                if (it->second == x) {
                    reference.erase(it);
                    break;
                }
        };
        switch (rng() % 3) {
            case 0:
                if (item->in) break;
                heap.push(item, due);
                item->in = true;
                reference.emplace(due, item);
                due_of[item] = due;
                break;
            case 1:
                if (!item->in) break;
                heap.remove(item);
                item->in = false;
                forget(item);
                break;
            case 2:
                if (heap.empty()) break;
                Item *top = heap.top();
                const uint64_t later = heap.top_due() + due;
                heap.refile_top(later);
                forget(top);
                reference.emplace(later, top);
                due_of[top] = later;
                break;
        }
        ASSERT_EQ(heap.size(), reference.size()) << "step " << step;
        if (!heap.empty()) {
            ASSERT_EQ(heap.top_due(), reference.begin()->first) << "step " << step;
            ASSERT_EQ(due_of[heap.top()], heap.top_due()) << "step " << step;
        }
    }
}

}  // namespace
