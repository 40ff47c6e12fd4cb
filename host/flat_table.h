// A hash table for the flow cache: open addressing with linear probing over an index of
// 8-byte slots, entries kept in fixed chunks that never move. A packet that finds its flow
// touches one slot and one entry, and neither flows nor packets allocate once the table has
// grown to its high-water mark: an erased entry goes on a free list for the next new key.
// Entries keep their address for as long as they are in the table, so the timeout heap can
// hold them by address as it did with node-based maps.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace corvane_host {

template <typename Key, typename Value, typename Hash>
class FlatTable {
  public:
    // `first` and `second` as in the standard maps' elements.
    struct Entry {
        Key first{};
        Value second{};
        uint32_t hash = 0;
        uint32_t next_free = 0;
    };

    FlatTable() { index_.resize(kMinSlots); }

    size_t size() const { return size_; }

    Entry *find(const Key &key) {
        const uint32_t h = mix(key);
        for (size_t s = h & mask(); index_[s].ref; s = (s + 1) & mask())
            if (index_[s].hash == h && at(index_[s].ref).first == key) return &at(index_[s].ref);
        return nullptr;
    }

    // Starts loading the index slot where a lookup of the key begins, for a lookup that comes
    // later: the index is too large for the caches, and a lookup that waits for its slot
    // waits for memory.
    void prefetch(const Key &key) const { __builtin_prefetch(&index_[mix(key) & mask()]); }

    // The key's entry, made with a value-initialised Value when missing (true).
    std::pair<Entry *, bool> try_emplace(const Key &key) {
        if (Entry *e = find(key)) return {e, false};
        if ((size_ + 1) * 2 > index_.size()) grow();
        const uint32_t ref = take();
        Entry &e = at(ref);
        e.first = key;
        e.hash = mix(key);
        insert(ref, e.hash);
        ++size_;
        return {&e, true};
    }

    void erase(Entry *e) {
        size_t s = e->hash & mask();
        while (&at(index_[s].ref) != e)
            s = (s + 1) & mask();
        // Backward shift: later slots of the same run move up into the hole, so that every
        // probe still reaches its key without tombstones.
        for (size_t next = (s + 1) & mask(); index_[next].ref; next = (next + 1) & mask()) {
            const size_t home = index_[next].hash & mask();
            if (((next - home) & mask()) >= ((next - s) & mask())) {
                index_[s] = index_[next];
                s = next;
            }
        }
        index_[s] = {};
        const uint32_t ref = e->next_free;  // the entry's own reference, kept while live
        *e = Entry{};
        e->next_free = free_;
        free_ = ref;
        --size_;
    }

    // Calls f(Entry &) for every entry; f must not change the table.
    template <typename F>
    void for_each(F &&f) {
        for (const Slot &slot : index_)
            if (slot.ref) f(at(slot.ref));
    }

    void clear() {
        for (Slot &slot : index_)
            if (slot.ref) {
                Entry &e = at(slot.ref);
                const uint32_t ref = e.next_free;
                e = Entry{};
                e.next_free = free_;
                free_ = ref;
                slot = {};
            }
        size_ = 0;
    }

  private:
    static constexpr size_t kMinSlots = 1024;
    static constexpr size_t kChunkBits = 10;  // entries per chunk: 1024

    struct Slot {
        uint32_t ref = 0;  // 1 + the entry's number; 0 is an empty slot
        uint32_t hash = 0;
    };

    static uint32_t mix(const Key &key) {
        return static_cast<uint32_t>((Hash{}(key)*0x9e3779b97f4a7c15ull) >> 32);
    }
    size_t mask() const { return index_.size() - 1; }

    Entry &at(uint32_t ref) {
        const uint32_t n = ref - 1;
        return chunks_[n >> kChunkBits][n & ((1u << kChunkBits) - 1)];
    }

    // A free entry's reference; a live entry keeps its own reference in next_free, so that
    // erase finds it without a search.
    uint32_t take() {
        uint32_t ref = free_;
        if (ref) {
            free_ = at(ref).next_free;
        } else {
            if ((made_ >> kChunkBits) == chunks_.size())
                chunks_.push_back(std::make_unique<Entry[]>(size_t{1} << kChunkBits));
            ref = static_cast<uint32_t>(++made_);
        }
        at(ref).next_free = ref;
        return ref;
    }

    void insert(uint32_t ref, uint32_t h) {
        size_t s = h & mask();
        while (index_[s].ref)
            s = (s + 1) & mask();
        index_[s] = {ref, h};
    }

    void grow() {
        std::vector<Slot> old(index_.size() * 2);
        old.swap(index_);
        for (const Slot &slot : old)
            if (slot.ref) insert(slot.ref, slot.hash);
    }

    std::vector<Slot> index_;
    std::vector<std::unique_ptr<Entry[]>> chunks_;
    size_t made_ = 0;
    size_t size_ = 0;
    uint32_t free_ = 0;
};

}  // namespace corvane_host
