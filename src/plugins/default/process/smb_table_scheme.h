// The hash-table scheme behind the plug-in's five state tables (and, with buckets of several
// slots, BucketTable below, behind its own tables of connections, sessions and pipes).
//
// A table is a fixed array of slots (a power of two, at least 1024), each slot holding at most
// one record. The slot of a key is the CRC-32C (seed 0) of the key's fields packed
// little-endian without padding, masked to the slot count. There is no chaining, probing or
// ageing: a lookup examines one slot, and a record lives until another key lands on its slot.
// Records are made zero-filled the first time a key lands on an empty slot and are owned by
// the table; later keys overwrite them in place. They are carved from chunks of about 4 KiB
// that the table allocates as it fills, rather than allocated one by one: a busy table takes
// tens of thousands of small records, each otherwise a call into the allocator. A removed
// record waits on the table's free list for the next claim; chunks go with the table.
//
// A record type is a plain struct whose first member is `key`, of a key type that compares
// with == and packs itself with `packed()`. A key of a table of the plug-in's own (not one of
// the five) may bring a cheaper `hash()` of its own, whose low bits pick the slot. A record that
// owns memory of its own provides `release()`, which frees it and leaves the record as if newly
// allocated.
//
// The shared tables (tree, file, data) add a process-private spin lock to their handle. The
// table operations never take it: callers hold it around each call with smb::SpinGuard and
// copy what they need out of the record before releasing it.
#pragma once

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

#include <array>
#include <bit>
#include <cmath>
#include <concepts>
#include <cstring>

#include "crc.h"
#include "crc_fixed.h"
#include "utils_alloc.h"

namespace smb {

// Holds a table's spin lock for one scope.
class SpinGuard {
  public:
    explicit SpinGuard(pthread_spinlock_t &lock) : lock_(lock) { pthread_spin_lock(&lock_); }
    ~SpinGuard() { pthread_spin_unlock(&lock_); }
    SpinGuard(const SpinGuard &) = delete;
    SpinGuard &operator=(const SpinGuard &) = delete;

  private:
    pthread_spinlock_t &lock_;
};

// The big tables are zeroed by calloc, so that their pages cost memory only once keys land on
// them. A page whose first access is a read is mapped to the system's shared zero page, and the
// first write to it then replaces that mapping: the system must flush the stale entry from the
// TLB of every CPU that runs a thread of the process, an interrupt to each that costs more than
// the page itself (a few thousand of them over a large capture, 7 % of the run's CPU). An access
// that starts with a write gets the page of its own at once, with nothing to flush. This makes
// the access to `p` a write that leaves its byte as it was: not atomic, so only for memory that
// the caller owns (a table's lock held, or a table of one thread).
inline void touch_for_write(void *p) {
#if defined(__x86_64__) || defined(__i386__)
    asm volatile("orb $0, %0" : "+m"(*static_cast<unsigned char *>(p)));
#else
    auto *byte = static_cast<volatile unsigned char *>(p);
    *byte = *byte;
#endif
}

// The fields, in hash order, as one little-endian byte string without padding.
template <std::unsigned_integral... Field>
constexpr std::array<uint8_t, (sizeof(Field) + ... + 0)> pack_le(Field... fields) {
    std::array<uint8_t, (sizeof(Field) + ... + 0)> out{};
    size_t pos = 0;
    auto put = [&](auto value) {
        // Every lookup packs its key: on a little-endian machine each field is one store.
        if (!std::is_constant_evaluated() && std::endian::native == std::endian::little) {
            std::memcpy(out.data() + pos, &value, sizeof value);
            pos += sizeof value;
            return;
        }
        for (size_t i = 0; i < sizeof(value); ++i)
            out[pos++] = uint8_t(value >> (8 * i));
    };
    (put(fields), ...);
    return out;
}

inline constexpr int kMinSlotBits = 10;

// Slot count for a requested size: the power of two nearest to it, a tie going up, never below
// 1024. Sizes of 0 or below (logarithm -inf or NaN) give 1024. A request of 1518500250 or more
// gives 2^31, which a table cannot hold (its create operation then fails to allocate).
inline int64_t slot_count(int32_t requested) {
    double e = std::log(static_cast<double>(requested)) * 1.4426950408889634;
    if (e - std::trunc(e) >= 0.5) e += 1.0;
    e = std::fmax(e, static_cast<double>(kMinSlotBits));  // fmax drops a NaN
    return int64_t{1} << static_cast<int>(e);
}

template <typename R>
concept TableRecord = requires(R r, const R cr) {
    { cr.key == cr.key } -> std::convertible_to<bool>;
    {cr.key.packed()};
};

// What an insert did to its slot.
enum class InsertOutcome { created = 0, kept = 1, replaced = 2 };

// The fields every table handle starts with, and the scheme's operations on them. A handle
// type derives from this (and adds `lock` when it is shared).
template <TableRecord Record>
struct HashTable {
    using Key = decltype(Record::key);

    Record **slots;
    int32_t size;
    int32_t mask;
    // The record pool (see above); all zero in a fresh handle.
    void *pool_free;     // removed records, linked through their first bytes
    uint8_t *pool_next;  // the newest chunk's records not handed out yet
    uint32_t pool_left;  // how many
    void *pool_chunks;   // every chunk, linked through its header
    // One bit per 4 KiB of `slots` (counted from the block that holds its first byte), set by
    // the first operation that may write there: a lookup in a block that no write has reached
    // knows that its slot is empty without reading it, and so never maps the page (see
    // touch_for_write).
    uint64_t *written;
    uintptr_t first_block;

    static uint32_t hash(const Key &key) {
        if constexpr (requires { key.hash(); }) {
            return key.hash();
        } else {
            return cv::crc::crc32c_fixed(key.packed(), 0);
        }
    }

    size_t index_of(const Key &key) const { return hash(key) & static_cast<uint32_t>(mask); }

    static constexpr unsigned kBlockBits = 12;  // 4 KiB, the smallest page there is
    size_t block_of(Record *const *s) const {
        return (reinterpret_cast<uintptr_t>(s) >> kBlockBits) - first_block;
    }
    bool reached(Record *const *s) const {
        const size_t b = block_of(s);
        return written[b >> 6] >> (b & 63) & 1;
    }
    // Before the first access to `s` that may write it. The bitmap's words are few (256 bytes
    // for a million slots) and stay in cache.
    void will_write(Record **s) {
        const size_t b = block_of(s);
        const uint64_t bit = uint64_t{1} << (b & 63);
        if (written[b >> 6] & bit) [[likely]]
            return;
        written[b >> 6] |= bit;
        touch_for_write(s);
    }
    // The slot of a lookup: null in a block that no write has reached. Lookups of keys that
    // were never stored (a file opened before the capture began) reach many such blocks.
    Record *read_slot(const Key &key) const {
        Record *const *s = &slots[index_of(key)];
        return reached(s) ? *s : nullptr;
    }
    // The slot of an operation that may write it.
    Record *&slot_to_write(const Key &key) {
        Record **s = &slots[index_of(key)];
        will_write(s);
        return *s;
    }

    // The record of `key`, or null when its slot is empty or holds another key.
    Record *find(const Key &key) {
        Record *r = read_slot(key);
        return r && r->key == key ? r : nullptr;
    }

    // First insert wins for an equal key; another key on the slot is overwritten with every
    // field reset as in a new record. `fill` writes the payload of a created or reset record.
    template <typename Fill>
    InsertOutcome insert(const Key &key, Fill &&fill) {
        Record *&r = slot_to_write(key);
        if (r && r->key == key) return InsertOutcome::kept;
        const InsertOutcome outcome = r ? InsertOutcome::replaced : InsertOutcome::created;
        fill(claim(r, key));
        return outcome;
    }

    // Newest wins even for an equal key: the slot's record, whatever it held, becomes a fresh
    // record of `key`.
    Record &replace(const Key &key) { return claim(slot_to_write(key), key); }

    // The record of `key`; on an empty slot a fresh record is made for it and `created` is set.
    // Null when another key holds the slot: that record is left alone.
    Record *find_or_create(const Key &key, bool &created) {
        Record *&r = slot_to_write(key);
        created = r == nullptr;
        if (created) return &claim(r, key);
        return r->key == key ? r : nullptr;
    }

    // Frees the record of `key` and empties its slot; false when the key is not present.
    bool remove(const Key &key) {
        Record **const s = &slots[index_of(key)];
        if (!reached(s) || !*s || !((*s)->key == key)) return false;
        Record *&r = *s;
        destroy(r);
        r = nullptr;
        return true;
    }

    void init_slots(int32_t requested) {
        const int64_t count = slot_count(requested);
        // 2^31 slots overflow the signed size: ask for an impossible array so that the
        // allocator ends the process as on any exhausted allocation.
        const size_t bytes = count > INT32_MAX ? SIZE_MAX / 2 : size_t(count) * sizeof(Record *);
        // Zeroed by calloc: a big table's pages stay untouched until keys land on them.
        slots = static_cast<Record **>(cv::alloc::allocate_zeroed(bytes));
        size = static_cast<int32_t>(count);
        mask = size - 1;
        first_block = reinterpret_cast<uintptr_t>(slots) >> kBlockBits;
        const size_t blocks = block_of(slots + (size - 1)) + 1;
        written = static_cast<uint64_t *>(cv::alloc::allocate_zeroed((blocks + 63) / 64 * 8));
    }

    void free_slots() {
        if (!slots) return;
        if constexpr (requires(Record r) { r.release(); }) {
            // Eight slots at a time (the count is a power of two of at least 1024): most groups
            // of a big table are empty, and one test of their OR skips them.
            for (int32_t i = 0; i < size; i += 8) {
                Record *const *g = slots + i;
                if (!reached(g) && !reached(g + 7)) continue;  // never written: all empty
                const uintptr_t any =
                    reinterpret_cast<uintptr_t>(g[0]) | reinterpret_cast<uintptr_t>(g[1]) |
                    reinterpret_cast<uintptr_t>(g[2]) | reinterpret_cast<uintptr_t>(g[3]) |
                    reinterpret_cast<uintptr_t>(g[4]) | reinterpret_cast<uintptr_t>(g[5]) |
                    reinterpret_cast<uintptr_t>(g[6]) | reinterpret_cast<uintptr_t>(g[7]);
                if (any == 0) continue;
                for (int32_t j = 0; j < 8; ++j)
                    if (slots[i + j]) release(*slots[i + j]);
            }
        }
        while (void *chunk = pool_chunks) {
            memcpy(&pool_chunks, chunk, sizeof pool_chunks);
            free(chunk);
        }
        pool_free = nullptr;
        pool_next = nullptr;
        pool_left = 0;
        free(slots);
        slots = nullptr;
        free(written);
        written = nullptr;
    }

  protected:
    // A chunk: a header holding the link to the previous chunk, then its records.
    static constexpr size_t kChunkHeader = alignof(Record) > sizeof(void *) ? alignof(Record)
                                                                            : sizeof(void *);
#if defined(__SANITIZE_ADDRESS__)
    // One record a chunk, so that a read past a record is seen.
    static constexpr uint32_t kChunkRecords = 1;
#else
    static constexpr uint32_t kChunkRecords =
        sizeof(Record) < 4096 - kChunkHeader ? (4096 - kChunkHeader) / sizeof(Record) : 1;
#endif
    static_assert(sizeof(Record) >= sizeof(void *), "a free record holds the list's link");

    static void release(Record &r) {
        if constexpr (requires { r.release(); }) r.release();
    }

    // A zero-filled record from the pool.
    Record *allocate() {
        if (void *r = pool_free) {
            memcpy(&pool_free, r, sizeof pool_free);
            memset(r, 0, sizeof(Record));
            return static_cast<Record *>(r);
        }
        if (pool_left == 0) {
            // Zero-filled by corvaneexp_malloc, which ends the process when memory is out.
            auto *chunk = static_cast<uint8_t *>(
                corvaneexp_malloc(kChunkHeader + size_t{kChunkRecords} * sizeof(Record), 0));
            memcpy(chunk, &pool_chunks, sizeof pool_chunks);
            pool_chunks = chunk;
            pool_next = chunk + kChunkHeader;
            pool_left = kChunkRecords;
        }
        auto *r = reinterpret_cast<Record *>(pool_next);
        pool_next += sizeof(Record);
        --pool_left;
        return r;
    }

    void destroy(Record *r) {
        release(*r);
        memcpy(r, &pool_free, sizeof pool_free);
        pool_free = r;
    }

    // Makes `r` a fresh record of `key`, taking one from the pool when the slot is empty.
    Record &claim(Record *&r, const Key &key) {
        if (r) {
            release(*r);
            *r = Record{};
        } else {
            r = allocate();
        }
        r->key = key;
        return *r;
    }
};

// The scheme of the plug-in's own tables whose records live as long as a connection or a
// session (activity=1). With one slot a key, two live connections whose keys meet on a slot
// push each other out, and a table of 4096 slots already holds such a pair with even odds at
// about 75 live keys: here a key may take any of the `Ways` slots of its bucket (the slot
// index with its low bits cleared), and only a full bucket pushes a record out, the one used
// least recently. The record type has a `uint64_t used` member, which the table stamps from a
// counter of its own at every claim and find.
template <TableRecord Record, int Ways = 8>
requires(std::has_single_bit(unsigned(Ways)) && Ways <= (1 << kMinSlotBits)) struct BucketTable
    : private HashTable<Record> {
    using Base = HashTable<Record>;
    using Key = typename Base::Key;
    using Base::free_slots;
    using Base::init_slots;
    using Base::mask;
    using Base::size;
    using Base::slots;

    uint64_t clock;  // stamps `used`

    // The record of `key`, or null.
    Record *find(const Key &key) {
        Record **b = bucket(key);
        if (!Base::reached(b) && !Base::reached(b + Ways - 1)) return nullptr;
        for (int i = 0; i < Ways; ++i)
            if (b[i] && b[i]->key == key) return touch(b[i]);
        return nullptr;
    }

    // The record of `key`; made fresh when it is missing, in an empty slot of its bucket or,
    // when the bucket is full, in place of its least recently used record (`evicted` is set).
    Record &claim(const Key &key, bool &evicted) {
        evicted = false;
        Record **b = bucket(key);
        // Its ends, as the array need not start on a block.
        Base::will_write(b);
        Base::will_write(b + Ways - 1);
        Record **empty = nullptr, **oldest = nullptr;
        for (int i = 0; i < Ways; ++i) {
            if (!b[i]) {
                if (!empty) empty = &b[i];
            } else if (b[i]->key == key) {
                return *touch(b[i]);
            } else if (!oldest || b[i]->used < (*oldest)->used) {
                oldest = &b[i];
            }
        }
        if (!empty) evicted = true;
        return *touch(&Base::claim(empty ? *empty : *oldest, key));
    }

  private:
    Record **bucket(const Key &key) {
        return this->slots + (Base::index_of(key) & ~static_cast<size_t>(Ways - 1));
    }
    Record *touch(Record *r) {
        r->used = ++clock;
        return r;
    }
};

template <typename Handle>
concept LockedHandle = requires(Handle h) {
    pthread_spin_init(&h.lock, 0);
};

// A zeroed handle in the aligned allocation mode, its slot array sized from `requested`, its
// lock (when it has one) initialised process-private.
template <typename Handle>
Handle *create_table(int32_t requested) {
    auto *t = static_cast<Handle *>(corvaneexp_malloc(sizeof(Handle), 1));
    t->init_slots(requested);
    if constexpr (LockedHandle<Handle>) pthread_spin_init(&t->lock, PTHREAD_PROCESS_PRIVATE);
    return t;
}

// Frees every record, the slot array and the handle.
template <typename Handle>
void free_table(Handle *t) {
    if (!t) return;
    t->free_slots();
    if constexpr (LockedHandle<Handle>) pthread_spin_destroy(&t->lock);
    free(t);
}

}  // namespace smb
