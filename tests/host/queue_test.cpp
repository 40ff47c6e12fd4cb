// Packets through a processing queue with the fake plug-in: direction and counters, the
// packet's own counts at filter time, flow splitting by the filter's hash, update-hook
// removal, timeouts in capture time, export with defaults and absent values, and every
// record freed exactly once. (A queue without plug-ins is what smbflow --no-plugin runs: its
// golden outputs.)
#include <gtest/gtest.h>

#include "fake_host.h"

namespace {

using namespace hosttest;
using corvane_host::ExportReason;
using Kind = corvane_host::FieldValue::Kind;

enum Field { kBytes, kName, kSilent, kPost };

TEST_F(FakeHostTest, TwoWayFlowCountsEachDirectionAndExportsFields) {
    send(true, kT0, "");                     // 40 bytes
    send(true, kT0 + 1000, "N:report.txt");  // 52
    send(false, kT0 + 2000, "ok");           // 42
    send(true, kT0 + 3000, "more");          // 44
    send(false, kT0 + 4000, "");             // 40
    queue->flush();
    ASSERT_EQ(handed.size(), 1u);
    const host_flow_record &r = handed[0].rec;
    EXPECT_EQ(r.src_port, 50000) << "the first packet fixes the flow's source";
    EXPECT_EQ(r.dst_port, 445);
    EXPECT_EQ(r.dir_counters[0].packets, 3u);
    EXPECT_EQ(r.dir_counters[0].bytes, 40u + 52 + 44);
    EXPECT_EQ(r.dir_counters[1].packets, 2u);
    EXPECT_EQ(r.dir_counters[1].bytes, 42u + 40);
    EXPECT_EQ(r.first_ns, kT0);
    EXPECT_EQ(r.last_ns, kT0 + 4000);
    EXPECT_EQ(r.tcp_flags[0], testnet::ACK | testnet::PSH);
    EXPECT_EQ(r.flags & HOST_FLAG_DIRECTION, 0);
    EXPECT_EQ(r.flags & HOST_FLAG_SMB_RECORD, HOST_FLAG_SMB_RECORD);

    auto flows = export_all();
    ASSERT_EQ(flows.size(), 1u);
    const auto &f = flows[0].fields;
    EXPECT_EQ(f[kBytes].kind, Kind::Value);
    EXPECT_EQ(f[kBytes].number(), 12u + 2 + 4);
    EXPECT_EQ(f[kBytes].text, "18");
    EXPECT_EQ(f[kName].kind, Kind::Value);
    EXPECT_EQ(f[kName].text, "report.txt");
    EXPECT_EQ(f[kName].binary.size(), 128u);
    EXPECT_EQ(f[kSilent].kind, Kind::Absent) << "valid, but the fill wrote nothing";
    EXPECT_EQ(f[kPost].number(), 1u) << "post-processing runs before the fills";
    EXPECT_EQ(flows[0].plugin_records, 1u);

    EXPECT_EQ(stats().bad_counters, 0u);
    EXPECT_EQ(stats().bad_direction, 0u);
    EXPECT_EQ(stats().postprocess_calls, 1u);
    EXPECT_EQ(stats().length_calls, 4u) << "each valid field is asked its length";
    EXPECT_EQ(stats().records_alive, 0) << "every record freed";
    EXPECT_EQ(stats().callbacks, stats().records_made) << "and freed once";
}

TEST_F(FakeHostTest, FirstPacketFromTheServerMakesTheServerTheSource) {
    send(false, kT0, "hello");
    send(true, kT0 + 1, "x");
    send(true, kT0 + 2, "y");
    queue->flush();
    ASSERT_EQ(handed.size(), 1u);
    EXPECT_EQ(handed[0].rec.src_port, 445);
    EXPECT_EQ(handed[0].rec.dir_counters[0].packets, 1u);
    EXPECT_EQ(handed[0].rec.dir_counters[1].packets, 2u);
    EXPECT_EQ(stats().bad_direction, 0u) << "the update hook sees bit 0 set for client packets";
    EXPECT_EQ(stats().bad_counters, 0u);
}

TEST_F(FakeHostTest, FilterHashSplitsOneConnectionIntoFlowRecords) {
    send(true, kT0, "F:1 first");
    send(false, kT0 + 1, "F:1 answer");
    send(true, kT0 + 2, "F:2 other");
    send(true, kT0 + 3, "");  // hash left alone
    send(false, kT0 + 4, "plain");
    queue->flush();
    ASSERT_EQ(handed.size(), 3u);
    std::vector<std::pair<uint64_t, uint64_t>> counts;
    for (auto &h : handed)
        counts.emplace_back(h.rec.dir_counters[0].packets, h.rec.dir_counters[1].packets);
    // Ordered by start time.
    EXPECT_EQ(counts, (std::vector<std::pair<uint64_t, uint64_t>>{{1, 1}, {1, 0}, {1, 1}}));
    EXPECT_EQ(handed[2].rec.src_port, 50000);
}

// The update hook sees the flow's counters before the packet is counted: the twelfth packet
// is the first that sees more than ten.
TEST_F(FakeHostTest, UpdateHookLeavesAFlowWithoutRecordAfterTenPackets) {
    for (int i = 0; i < 11; ++i)
        send(i % 2 == 0, kT0 + i, "");  // pure ACKs: no records
    EXPECT_EQ(stats().update_removals, 0u);
    send(false, kT0 + 11, "");
    EXPECT_EQ(stats().update_removals, 1u);
    EXPECT_EQ(queue->stats().update_removals, 1u);
    send(true, kT0 + 20, "late data");
    EXPECT_EQ(stats().update_calls, 12u) << "no update call after the removal";
    queue->flush();
    auto flows = export_all();
    ASSERT_EQ(flows.size(), 1u);
    EXPECT_EQ(flows[0].plugin_records, 0u) << "the late record never reached the flow";
    EXPECT_EQ(flows[0].fields[kBytes].kind, Kind::Default);
    EXPECT_EQ(flows[0].fields[kBytes].number(), 0xffffffffu);
    EXPECT_EQ(flows[0].fields[kBytes].text, "4294967295");
    EXPECT_EQ(flows[0].fields[kName].kind, Kind::Absent) << "no value and no default";
    EXPECT_EQ(flows[0].fields[kSilent].kind, Kind::Default);
    EXPECT_EQ(flows[0].rec.dir_counters[0].packets + flows[0].rec.dir_counters[1].packets, 13u);
    EXPECT_EQ(stats().records_alive, 0);
}

TEST_F(FakeHostTest, FlowsLeftInTheQueueAreFreedWithoutExport) {
    send(true, kT0, "a");
    send(true, kT0 + 1, "b", 50001);
    queue.reset();
    EXPECT_TRUE(handed.empty());
    EXPECT_EQ(stats().records_alive, 0);
}

struct TimeoutCase {
    const char *what;
    std::vector<uint64_t> offsets_s;  // packet times after kT0, all from the client
    std::vector<uint64_t> flow_packets;
    std::vector<ExportReason> reasons;
    friend void PrintTo(const TimeoutCase &c, std::ostream *os) { *os << c.what; }
};

class Timeouts : public FakeHostTest, public testing::WithParamInterface<TimeoutCase> {
  protected:
    void SetUp() override {}
};

TEST_P(Timeouts, FollowCaptureTime) {
    start();
    for (uint64_t s : GetParam().offsets_s)
        send(true, kT0 + s * kSecond, "x");
    queue->flush();
    std::vector<uint64_t> packets;
    std::vector<ExportReason> reasons;
    for (auto &h : handed) {
        packets.push_back(h.rec.dir_counters[0].packets);
        reasons.push_back(h.reason);
    }
    EXPECT_EQ(packets, GetParam().flow_packets) << GetParam().what;
    EXPECT_EQ(reasons, GetParam().reasons) << GetParam().what;
    // Whichever way a flow left, its own record went with it, counts intact, and was freed
    // once, by whoever ended up holding it.
    std::vector<uint64_t> payload_bytes;
    for (const auto &f : export_all())
        payload_bytes.push_back(f.fields[kBytes].number());
    EXPECT_EQ(payload_bytes, GetParam().flow_packets) << "one payload byte a packet";
    EXPECT_EQ(stats().records_alive, 0);
    EXPECT_EQ(stats().callbacks, stats().records_made);
    EXPECT_EQ(stats().release_calls, 0u) << "records handed over, not copied";
}

INSTANTIATE_TEST_SUITE_P(
    CaptureTime, Timeouts,
    testing::Values(TimeoutCase{"29 s gaps keep one flow", {0, 29, 58}, {3}, {ExportReason::End}},
                    TimeoutCase{"30 s without packets ends a flow",
                                {0, 10, 40},
                                {2, 1},
                                {ExportReason::Inactive, ExportReason::End}},
                    TimeoutCase{"300 s after its start a busy flow ends",
                                {0, 20, 40, 60, 80, 100, 120, 140, 160, 180, 200, 220, 240, 260,
                                 280, 300, 320},
                                {15, 2},
                                {ExportReason::Active, ExportReason::End}}));

// The clock alone ends flows whose timeout was pushed back by later packets, at the time
// their last packet sets, not at the time their first one did.
TEST_F(FakeHostTest, TheClockEndsFlowsWhoseTimeoutPacketsPushedBack) {
    for (uint64_t s : {0, 20, 40})
        send(true, kT0 + s * kSecond, "a");
    send(true, kT0 + 45 * kSecond, "c", 50002);
    queue->advance(kT0 + 69 * kSecond);
    EXPECT_TRUE(handed.empty()) << "idle for 29 s only";
    queue->advance(kT0 + 70 * kSecond);
    ASSERT_EQ(handed.size(), 1u) << "only the flow idle for 30 s";
    EXPECT_EQ(handed[0].reason, ExportReason::Inactive);
    EXPECT_EQ(handed[0].rec.dir_counters[0].packets, 3u);
    EXPECT_EQ(queue->flow_count(), 1u);

    for (uint64_t s = 100; s <= 390; s += 10)
        send(true, kT0 + s * kSecond, "b", 50001);
    queue->advance(kT0 + 399 * kSecond);
    EXPECT_EQ(handed.size(), 2u) << "the second flow idle since 45 s; the third busy for 299 s";
    queue->advance(kT0 + 400 * kSecond);
    ASSERT_EQ(handed.size(), 3u);
    EXPECT_EQ(handed[2].reason, ExportReason::Active);
    EXPECT_EQ(handed[2].rec.dir_counters[0].packets, 30u);
}

// A connection remembers the flow entry its last packet went to. When that flow times out,
// its entry is freed and the next new flow, of another connection, takes it: the first
// connection's next packet must start a flow of its own, not count in the other's, also when
// the filter gave both flows the same hash.
TEST_F(FakeHostTest, AFreedFlowEntryTakenByAnotherConnectionIsNotFoundAgain) {
    for (const std::string payload : {"a", "H:7"}) {
        if (!handed.empty()) {
            TearDown();
            handed.clear();
            start();
        }
        for (uint64_t s = 0; s <= 280; s += 20)
            send(true, kT0 + s * kSecond, payload);
        queue->advance(kT0 + 300 * kSecond);
        ASSERT_EQ(handed.size(), 1u);
        EXPECT_EQ(handed[0].reason, ExportReason::Active);
        EXPECT_EQ(queue->flow_count(), 0u);
        send(true, kT0 + 301 * kSecond, payload, 50001);
        send(true, kT0 + 302 * kSecond, payload);
        send(true, kT0 + 303 * kSecond, payload, 50001);
        queue->flush();
        ASSERT_EQ(handed.size(), 3u);
        std::vector<std::pair<uint16_t, uint64_t>> port_packets;
        for (const auto &h : handed)
            port_packets.emplace_back(h.rec.src_port, h.rec.dir_counters[0].packets);
        EXPECT_EQ(port_packets,
                  (std::vector<std::pair<uint16_t, uint64_t>>{{50000, 15}, {50001, 2}, {50000, 1}}))
            << payload;
    }
}

// Connections interleaved packet by packet each keep the direction their first packet set,
// also once their idle entries were dropped and taken again by other connections.
TEST_F(FakeHostTest, InterleavedConnectionsKeepTheirOwnDirection) {
    struct Step {
        bool from_client;
        uint64_t at_s;
        uint16_t client_port;
    };
    const Step steps[] = {{true, 0, 50000},   {false, 1, 50001}, {true, 2, 50001},
                          {false, 3, 50000},  {true, 4, 50000},  // idle from here: both go
                          {false, 41, 50002}, {true, 42, 50002}, {true, 43, 50000}};
    for (const Step &s : steps) {
        if (s.at_s == 41) queue->advance(kT0 + 40 * kSecond);
        send(s.from_client, kT0 + s.at_s * kSecond, "x", s.client_port);
    }
    queue->flush();
    std::vector<std::tuple<uint16_t, uint64_t, uint64_t>> got;
    for (const auto &h : handed)
        got.emplace_back(h.rec.src_port, h.rec.dir_counters[0].packets,
                         h.rec.dir_counters[1].packets);
    EXPECT_EQ(got, (std::vector<std::tuple<uint16_t, uint64_t, uint64_t>>{
                       {50000, 2, 1}, {445, 1, 1}, {445, 1, 1}, {50000, 1, 0}}));
    EXPECT_EQ(stats().bad_direction, 0u);
}

TEST_F(FakeHostTest, TimeoutsPastTheEndOfTimeNeverEndAFlow) {
    queue.reset();
    host->shutdown();
    start({UINT64_MAX, UINT64_MAX, 1'000'000'000ull});
    send(true, kT0, "a");
    queue->advance(UINT64_MAX - 1);
    EXPECT_TRUE(handed.empty());
    EXPECT_EQ(queue->flow_count(), 1u);
}

}  // namespace
