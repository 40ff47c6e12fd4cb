// A min-heap of items by the time at which each is to be looked at again. Every item records
// its own place in the heap (through PosOf), so that an item leaving early leaves the heap at
// once and a due item can be filed again in place: no stale entries, one 16-byte entry per
// item however often it is filed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace corvane_host {

// PosOf: a callable giving `uint32_t &` for an Item, where the heap keeps the item's place.
template <typename Item, typename PosOf>
class TimeoutHeap {
  public:
    bool empty() const { return entries_.empty(); }
    size_t size() const { return entries_.size(); }
    uint64_t top_due() const { return entries_.front().due; }
    Item top() const { return entries_.front().item; }

    void push(Item item, uint64_t due) {
        entries_.push_back({due, item});
        place(entries_.size() - 1);
        up(entries_.size() - 1);
    }

    // Files the first item again with a later time.
    void refile_top(uint64_t due) {
        entries_.front().due = due;
        down(0);
    }

    void remove(Item item) {
        const size_t at = PosOf{}(item);
        const size_t last = entries_.size() - 1;
        if (at != last) {
            entries_[at] = entries_[last];
            place(at);
        }
        entries_.pop_back();
        if (at < entries_.size()) {
            up(at);
            down(at);
        }
    }

    void clear() { entries_.clear(); }

  private:
    struct Entry {
        uint64_t due;
        Item item;
    };

    void place(size_t at) { PosOf{}(entries_[at].item) = static_cast<uint32_t>(at); }

    void swap_at(size_t a, size_t b) {
        std::swap(entries_[a], entries_[b]);
        place(a);
        place(b);
    }

    void up(size_t at) {
        while (at > 0) {
            const size_t parent = (at - 1) / 2;
            if (entries_[parent].due <= entries_[at].due) break;
            swap_at(at, parent);
            at = parent;
        }
    }

    void down(size_t at) {
        for (;;) {
            const size_t left = 2 * at + 1;
            if (left >= entries_.size()) break;
            size_t least = left;
            if (left + 1 < entries_.size() && entries_[left + 1].due < entries_[left].due)
                least = left + 1;
            if (entries_[at].due <= entries_[least].due) break;
            swap_at(at, least);
            at = least;
        }
    }

    std::vector<Entry> entries_;
};

}  // namespace corvane_host
