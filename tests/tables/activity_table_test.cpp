// The per-queue table of pending requests: two slots to a bucket, the older of two pending
// requests giving way to a third, a slot free again once its response took it, and a rename's
// name staying with its own request.
#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>

#include <vector>

#include "smb_activity_table.h"

namespace {

constexpr uint32_t kAddr = 0x0200a8c0;
constexpr uint16_t kPort = 50000;

// Three message ids of one bucket, found by trying ids in order.
std::vector<uint64_t> ids_of_one_bucket(const activitytable *t) {
    const uint32_t bucket = t->bucket_of(kAddr, kPort, 1);
    std::vector<uint64_t> ids = {1};
    for (uint64_t id = 2; ids.size() < 3; ++id)
        if (t->bucket_of(kAddr, kPort, id) == bucket) ids.push_back(id);
    return ids;
}

struct Step {
    char op;      // 'p' put, 't' take
    int key;      // index into the bucket's ids
    uint64_t ns;  // put: request time; take: expected time (0: expected not found)
};

struct Sequence {
    const char *name;
    std::vector<Step> steps;
    uint64_t dropped;
};

class ActivityTable : public testing::TestWithParam<Sequence> {};

TEST_P(ActivityTable, KeepsTwoPendingRequestsPerBucket) {
    activitytable *t = activitytable_create(1024);
    const std::vector<uint64_t> ids = ids_of_one_bucket(t);
    size_t i = 0;
    for (const Step &s : GetParam().steps) {
        SCOPED_TRACE(i++);
        if (s.op == 'p') {
            activitytable_put(t, kAddr, kPort, ids[s.key], s.ns, PendingSetInfo{});
            continue;
        }
        TakenRequest r;
        EXPECT_EQ(activitytable_take(t, kAddr, kPort, ids[s.key], r), s.ns != 0);
        EXPECT_EQ(r.request_ns, s.ns);
    }
    EXPECT_EQ(t->dropped, GetParam().dropped);
    activitytable_free(t);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Buckets, ActivityTable, testing::Values(
    Sequence{"two_share_a_bucket", {{'p', 0, 10}, {'p', 1, 20}, {'t', 1, 20}, {'t', 0, 10}}, 0},
    Sequence{"third_pushes_out_the_older", {{'p', 1, 20}, {'p', 0, 10}, {'p', 2, 30},
                                            {'t', 0, 0}, {'t', 1, 20}, {'t', 2, 30}}, 1},
    Sequence{"answered_slot_is_free", {{'p', 0, 10}, {'t', 0, 10}, {'p', 1, 20}, {'p', 2, 30},
                                       {'t', 1, 20}, {'t', 2, 30}, {'t', 0, 0}}, 0},
    Sequence{"repeat_replaces_its_own", {{'p', 0, 10}, {'p', 1, 20}, {'p', 0, 15},
                                         {'t', 0, 15}, {'t', 1, 20}}, 0},
    Sequence{"taken_once", {{'p', 0, 10}, {'t', 0, 10}, {'t', 0, 0}}, 0}),
    [](const auto &info) { return std::string(info.param.name); });
// clang-format on

TEST(ActivityTable, RenameNamesStayWithTheirRequests) {
    activitytable *t = activitytable_create(1024);
    const std::vector<uint64_t> ids = ids_of_one_bucket(t);
    uint8_t names[3][SMB_NAME_SIZE];
    for (int k = 0; k < 3; ++k) {
        memset(names[k], 'a' + k, SMB_NAME_SIZE);
        activitytable_put(t, kAddr, kPort, ids[k], 10 + k,
                          PendingSetInfo{SetInfoKind::rename, names[k]});
    }
    // The first (oldest) went with its name; the others keep theirs.
    for (int k : {2, 1, 0}) {
        TakenRequest r;
        ASSERT_EQ(activitytable_take(t, kAddr, kPort, ids[k], r), k != 0);
        if (k == 0) continue;
        EXPECT_EQ(r.kind, SetInfoKind::rename);
        ASSERT_NE(r.rename_to, nullptr);
        EXPECT_EQ(memcmp(r.rename_to, names[k], SMB_NAME_SIZE), 0);
        free(r.rename_to);
    }
    activitytable_free(t);
}

}  // namespace
