// The scheme skips the parts of a slot array that no write has reached: a lookup there reports
// an empty slot without reading it, and freeing the table does not look at them. Here keys are
// placed on the slots on either side of every 4 KiB boundary of the array (which need not start
// on one), where an off-by-one in the block arithmetic would hide a record or leak it.
#include <gtest/gtest.h>

#include <stdint.h>

#include <array>
#include <set>
#include <vector>

#include "smb_table_scheme.h"

namespace {

int released = 0;  // records freed through release()

// A key whose hash is its value: key n lands on slot n & mask.
struct SlotKey {
    uint64_t v;
    uint32_t hash() const { return static_cast<uint32_t>(v); }
    std::array<uint8_t, 8> packed() const { return smb::pack_le(v); }
    bool operator==(const SlotKey &) const = default;
};

struct CountedRecord {
    SlotKey key;
    uint64_t used;
    uint64_t payload;
    void release() { ++released; }
};

struct PlainTable : smb::HashTable<CountedRecord> {};
struct Buckets : smb::BucketTable<CountedRecord> {};

// The slots next to every 4 KiB boundary of the array, and its first and last.
std::vector<uint64_t> boundary_slots(CountedRecord *const *slots, int32_t size) {
    std::set<uint64_t> picked{0, uint64_t(size - 1)};
    for (int32_t i = 1; i < size; ++i)
        if ((reinterpret_cast<uintptr_t>(slots + i) & 4095) < sizeof(void *)) {
            picked.insert(uint64_t(i - 1));
            picked.insert(uint64_t(i));
        }
    return {picked.begin(), picked.end()};
}

TEST(WrittenBlocks, RecordsBesideEveryBlockBoundaryAreFoundRemovedAndFreed) {
    auto *t = smb::create_table<PlainTable>(65536);
    const auto keys = boundary_slots(t->slots, t->size);
    ASSERT_GT(keys.size(), 2 * 120u);  // 512 KiB of slots: 128 blocks
    // Every lookup before any write: nothing there.
    for (uint64_t k : keys)
        EXPECT_EQ(t->find({k}), nullptr);
    // Every other key is stored; keys on the same slot plus the slot count stay missing.
    for (size_t i = 0; i < keys.size(); i += 2)
        t->insert({keys[i]}, [&](CountedRecord &r) { r.payload = keys[i] + 1; });
    for (size_t i = 0; i < keys.size(); ++i) {
        const CountedRecord *r = t->find({keys[i]});
        if (i % 2 == 0) {
            ASSERT_NE(r, nullptr) << "slot " << keys[i];
            EXPECT_EQ(r->payload, keys[i] + 1);
        } else {
            EXPECT_EQ(r, nullptr) << "slot " << keys[i];
        }
        EXPECT_EQ(t->find({keys[i] + uint64_t(t->size)}), nullptr);
        EXPECT_FALSE(t->remove({keys[i] + uint64_t(t->size)}));
    }
    // find_or_create in a block that only lookups had reached, then remove from both kinds.
    bool created = false;
    ASSERT_NE(t->find_or_create({keys[1]}, created), nullptr);
    EXPECT_TRUE(created);
    EXPECT_NE(t->find({keys[1]}), nullptr);
    EXPECT_TRUE(t->remove({keys[0]}));
    EXPECT_EQ(t->find({keys[0]}), nullptr);
    // Freeing releases every record still held: the stored half, less one removed, plus one.
    released = 0;
    smb::free_table(t);
    EXPECT_EQ(released, int((keys.size() + 1) / 2));
}

// A record just past a boundary whose block before it no write reached: the array's groups of
// eight slots that freeing scans need not start on a block.
TEST(WrittenBlocks, RecordsBehindUnwrittenBlocksAreFreed) {
    auto *t = smb::create_table<PlainTable>(65536);
    const auto keys = boundary_slots(t->slots, t->size);
    int stored = 0;
    // keys[0] is slot 0; then the last slot before a boundary and the first after it, in turn.
    for (size_t i = 2; i < keys.size(); i += 4) {
        t->insert({keys[i]}, [](CountedRecord &) {});
        ++stored;
    }
    ASSERT_GT(stored, 60);
    released = 0;
    smb::free_table(t);
    EXPECT_EQ(released, stored);
}

TEST(WrittenBlocks, BucketRecordsInEveryBlockAreFreed) {
    auto *t = smb::create_table<Buckets>(65536);
    const auto keys = boundary_slots(t->slots, t->size);
    for (uint64_t k : keys)
        EXPECT_EQ(t->find({k}), nullptr);
    bool evicted = false;
    for (uint64_t k : keys)
        t->claim({k}, evicted);
    // Keys of one bucket share it: each claimed key has a record of its own.
    for (uint64_t k : keys)
        EXPECT_NE(t->find({k}), nullptr) << "slot " << k;
    released = 0;
    smb::free_table(t);
    EXPECT_EQ(released, int(keys.size()));
}

}  // namespace
