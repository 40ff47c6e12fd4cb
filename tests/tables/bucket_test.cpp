// The bucket scheme of the connection and session tables (activity=1): keys that meet on a
// slot all stay while their bucket of eight has room, and a full bucket pushes out its least
// recently used record. Buckets are worked out here from the keys, not asked of the tables.
#include <gtest/gtest.h>

#include <string.h>

#include <vector>

#include "smb_activity_table.h"
#include "smb_identity.h"
#include "smb_session_table.h"
#include "table_test_support.h"

using namespace tables_test;

namespace {

constexpr uint32_t kClient = 0x0a000002;
constexpr size_t kWays = 8;

// The connection key's bucket: its multiplicative hash, masked, low three bits cleared.
size_t conn_bucket(const conntable *t, uint16_t port) {
    const uint64_t h = ((uint64_t{kClient} << 16) | port) * 0x9E3779B97F4A7C15ull;
    const uint32_t hash = static_cast<uint32_t>(h >> 32) ^ static_cast<uint32_t>(h >> 17);
    return (hash & uint32_t(t->size - 1)) & ~(kWays - 1);
}

// `count` client ports whose keys share the bucket of the first.
std::vector<uint16_t> ports_in_one_bucket(const conntable *t, size_t count) {
    std::vector<uint16_t> ports{40000};
    const size_t bucket = conn_bucket(t, ports[0]);
    for (uint32_t p = 40001; ports.size() < count && p < 65536; ++p)
        if (conn_bucket(t, uint16_t(p)) == bucket) ports.push_back(uint16_t(p));
    return ports;
}

struct ConnTable : ::testing::Test {
    conntable *t = conntable_create(1024);
    ~ConnTable() override { conntable_free(t); }
    uint16_t dialect_of(uint16_t port) {
        const conn_record *r = conntable_find(t, kClient, port);
        return r ? r->dialect : 0;
    }
};

TEST_F(ConnTable, EightConnectionsOfOneBucketAllStay) {
    const auto ports = ports_in_one_bucket(t, kWays);
    ASSERT_EQ(ports.size(), kWays);
    for (size_t i = 0; i < ports.size(); ++i)
        conntable_note(t, kClient, ports[i], uint16_t(0x0300 + i), 0);
    for (size_t i = 0; i < ports.size(); ++i)
        EXPECT_EQ(dialect_of(ports[i]), 0x0300 + i) << "port " << ports[i];
    EXPECT_EQ(t->dropped, 0u);
}

TEST_F(ConnTable, AFullBucketPushesOutItsLeastRecentlyUsedConnection) {
    const auto ports = ports_in_one_bucket(t, kWays + 1);
    ASSERT_EQ(ports.size(), kWays + 1);
    for (size_t i = 0; i < kWays; ++i)
        conntable_note(t, kClient, ports[i], 0x0311, 0);
    // The oldest is used again: the second oldest is now the least recently used.
    ASSERT_NE(conntable_find(t, kClient, ports[0]), nullptr);
    conntable_note(t, kClient, ports[kWays], 0x0210, 0);
    EXPECT_EQ(t->dropped, 1u);
    EXPECT_EQ(conntable_find(t, kClient, ports[1]), nullptr);
    EXPECT_EQ(dialect_of(ports[0]), 0x0311);
    EXPECT_EQ(dialect_of(ports[kWays]), 0x0210);
    for (size_t i = 2; i < kWays; ++i)
        EXPECT_EQ(dialect_of(ports[i]), 0x0311) << "port " << ports[i];
}

TEST_F(ConnTable, ParkedCountersOfConnectionsOnOneSlotStayApart) {
    // Two ports on the same slot, not only the same bucket.
    const uint16_t first = 40000;
    uint16_t second = 0;
    for (uint32_t p = first + 1; p < 65536 && !second; ++p) {
        const uint64_t a = ((uint64_t{kClient} << 16) | first) * 0x9E3779B97F4A7C15ull;
        const uint64_t b = ((uint64_t{kClient} << 16) | p) * 0x9E3779B97F4A7C15ull;
        const uint32_t mask = uint32_t(t->size - 1);
        if (((uint32_t(a >> 32) ^ uint32_t(a >> 17)) & mask) ==
            ((uint32_t(b >> 32) ^ uint32_t(b >> 17)) & mask))
            second = uint16_t(p);
    }
    ASSERT_NE(second, 0);
    smb_activity one{}, two{};
    one.latency_count = 3;
    two.latency_count = 5;
    conntable_park(t, kClient, first, one);
    conntable_park(t, kClient, second, two);
    const conn_record *a = conntable_find(t, kClient, first);
    const conn_record *b = conntable_find(t, kClient, second);
    ASSERT_TRUE(a && a->parked && b && b->parked);
    EXPECT_EQ(a->parked->latency_count, 3u);
    EXPECT_EQ(b->parked->latency_count, 5u);
    EXPECT_EQ(t->dropped, 0u);
}

TEST(SessionTable, SessionsOfOneSlotKeepTheirNames) {
    sessiontable *t = sessiontable_create(1024);
    // Session ids whose hand-packed keys (SessionId, address, port) share a slot.
    auto slot = [&](uint64_t id) { return slot_of(t, le({{id, 8}, {kClient, 4}, {445, 2}})); };
    std::vector<uint64_t> ids{0x1000};
    for (uint64_t id = 0x1001; ids.size() < kWays; ++id)
        if (slot(id) == slot(ids[0])) ids.push_back(id);
    for (size_t i = 0; i < ids.size(); ++i) {
        smb::ntlmssp::Identity names{};
        names.user[0] = uint8_t('a' + i);
        sessiontable_put(t, kClient, 445, ids[i], 1000 + i, false, names);
    }
    for (size_t i = 0; i < ids.size(); ++i) {
        const session_record *r = sessiontable_find(t, kClient, 445, ids[i]);
        ASSERT_NE(r, nullptr) << "session " << i;
        ASSERT_NE(r->names, nullptr);
        EXPECT_EQ(r->names->text(smb::ntlmssp::Name::user)[0], 'a' + i);
    }
    EXPECT_EQ(t->evicted, 0u);
    sessiontable_free(t);
}

// Sessions of one user give the same names and may share a block: each session still gives
// back exactly its own names, also when only a later byte, or only the anonymous flag, tells
// two puts apart, and when a session's earlier block is the one shared.
TEST(SessionTable, SessionsGiveBackTheirOwnNamesWhenBlocksAreShared) {
    sessiontable *t = sessiontable_create(1024);
    auto names_of = [](uint8_t user, uint8_t domain_tail) {
        smb::ntlmssp::Identity names{};
        names.user[0] = user;
        names.domain[0] = 'd';
        names.domain[SMB_NAME_SIZE - 1] = domain_tail;
        names.workstation[0] = 'w';
        return names;
    };
    struct Put {
        uint64_t session;
        smb::ntlmssp::Identity names;
        bool anonymous;
    };
    const std::vector<Put> puts = {
        {1, names_of('a', 0), false}, {2, names_of('a', 0), false}, {3, names_of('b', 0), false},
        {4, names_of('a', 0), false}, {5, names_of('a', 7), false}, {6, names_of('a', 7), true},
        {7, names_of('a', 7), false}, {2, names_of('c', 0), false},  // session 2 authenticates
                                                                     // again
    };
    for (const Put &p : puts)
        sessiontable_put(t, kClient, 445, p.session, 1000, p.anonymous, p.names);
    std::vector<const Put *> last(8, nullptr);
    for (const Put &p : puts)
        last[p.session] = &p;
    for (uint64_t session = 1; session < last.size(); ++session) {
        SCOPED_TRACE(session);
        const session_record *r = sessiontable_find(t, kClient, 445, session);
        ASSERT_NE(r, nullptr);
        if (last[session]->anonymous) {
            EXPECT_EQ(r->names, nullptr);
            continue;
        }
        ASSERT_NE(r->names, nullptr);
        const std::pair<smb::ntlmssp::Name, const uint8_t *> expected[] = {
            {smb::ntlmssp::Name::user, last[session]->names.user},
            {smb::ntlmssp::Name::domain, last[session]->names.domain},
            {smb::ntlmssp::Name::workstation, last[session]->names.workstation}};
        for (const auto &[name, bytes] : expected) {
            uint8_t out[SMB_NAME_SIZE];
            r->names->expand(name, out);
            EXPECT_EQ(memcmp(out, bytes, SMB_NAME_SIZE), 0) << "name " << int(name);
        }
    }
    sessiontable_free(t);
}

}  // namespace
