// The threads of smbflow's pipeline: the channel between them delivers every item once and in
// order whatever the capacity and the number of producers (a lost wake-up hangs the test), and
// a run through the pipeline with the fake plug-in exports every flow once and frees every
// record once, on the thread that made it, except those of the flows held at the end.
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "channel.h"
#include "fake_host.h"
#include "pipeline.h"

namespace {

using namespace hosttest;

struct ChannelCase {
    size_t capacity;
    unsigned producers;
};

class ChannelOrder : public testing::TestWithParam<ChannelCase> {};

TEST_P(ChannelOrder, EveryItemArrivesOnceInEachProducersOrder) {
    const auto [capacity, producers] = GetParam();
    constexpr uint32_t kItems = 4000;
    smbflow::Channel<std::pair<unsigned, uint32_t>> channel(capacity);
    std::vector<std::thread> threads;
    for (unsigned p = 0; p < producers; ++p)
        threads.emplace_back([&, p] {
            for (uint32_t i = 0; i < kItems; ++i)
                channel.push({p, i});
        });
    std::vector<uint32_t> next(producers, 0);
    uint64_t received = 0;
    std::thread consumer([&] {
        while (auto item = channel.pop()) {
            ++received;
            if (item->second != next[item->first]++) break;
        }
    });
    for (auto &t : threads)
        t.join();
    channel.close();
    consumer.join();
    EXPECT_EQ(received, uint64_t{kItems} * producers);
    for (unsigned p = 0; p < producers; ++p)
        EXPECT_EQ(next[p], kItems) << "producer " << p;
}

INSTANTIATE_TEST_SUITE_P(Sizes, ChannelOrder,
                         testing::Values(ChannelCase{1, 1}, ChannelCase{2, 3}, ChannelCase{8, 1},
                                         ChannelCase{16, 4}),
                         [](const testing::TestParamInfo<ChannelCase> &info) {
                             return "capacity" + std::to_string(info.param.capacity) + "by" +
                                    std::to_string(info.param.producers);
                         });

TEST(Channel, TryCallsNeitherBlockNorPassTheLimitAndCloseDrainsFirst) {
    smbflow::Channel<int> channel(2);
    EXPECT_FALSE(channel.try_pop());
    EXPECT_TRUE(channel.empty());
    EXPECT_TRUE(channel.try_push(1));
    EXPECT_TRUE(channel.try_push(2));
    EXPECT_FALSE(channel.try_push(3)) << "full";
    channel.close();
    EXPECT_FALSE(channel.try_push(4)) << "closed";
    EXPECT_EQ(channel.pop(), 1);
    EXPECT_EQ(channel.try_pop(), 2);
    EXPECT_FALSE(channel.pop()) << "closed and drained";
}

// Connections that each send one request and get one answer, a tenth of a second apart: the
// inactive timeout (30 s) lets most of them go during the run, in many messages.
class PipelineRecords : public testing::TestWithParam<unsigned> {};

TEST_P(PipelineRecords, FreedOnceAndOnTheQueueThreadThatMadeThem) {
    const unsigned queues = GetParam();
    constexpr unsigned kConnections = 6000;
    constexpr uint64_t kGap = kSecond / 10;
    corvane_host::Host host;
    ASSERT_FALSE(host.load_library(FAKE_PLUGIN));
    reset_fake_stats(host);
    host.init_plugin(0, "");
    uint64_t exported = 0, at_end = 0;
    {
        smbflow::Pipeline pipeline(host, queues, corvane_host::QueueConfig{},
                                   [&](const corvane_host::ExportedFlow &flow) {
                                       ++exported;
                                       if (flow.reason == corvane_host::ExportReason::End) ++at_end;
                                   });
        for (unsigned c = 0; c < kConnections; ++c) {
            for (bool from_client : {true, false}) {
                testnet::TcpSpec s;
                const auto client = testnet::ipv4(10, 2, uint8_t(c >> 8), uint8_t(c));
                const auto server = testnet::ipv4(10, 1, 0, 2);
                s.src = from_client ? client : server;
                s.dst = from_client ? server : client;
                s.sport = from_client ? 40000 : 445;
                s.dport = from_client ? 445 : 40000;
                s.flags = testnet::ACK | testnet::PSH;
                s.payload = {'x', 'y'};
                const testnet::Bytes ip = testnet::tcp_datagram(s);
                corvane_host::DecodedPacket d;
                ASSERT_EQ(
                    corvane_host::decode_frame(corvane_host::kLinkIpv4, ip.data(), ip.size(), d),
                    corvane_host::DecodeStatus::Ok);
                d.pkt.timestamp_ns = kT0 + c * kGap + (from_client ? 0 : 1000);
                pipeline.submit(d);
            }
        }
        pipeline.finish();
    }
    const fake_plugin_stats &st = fake_stats(host);
    EXPECT_EQ(exported, kConnections);
    // Held at the end: the last 30 s, and what came since the last sweep (one a second).
    EXPECT_GE(at_end, 30 * kSecond / kGap);
    EXPECT_LE(at_end, 31 * kSecond / kGap);
    EXPECT_EQ(st.records_alive, 0);
    EXPECT_EQ(st.callbacks, st.records_made);
    // A flow's record is made on its queue's thread; those of the flows held at the end are
    // freed on the export thread, every other one goes back to its queue's thread.
    EXPECT_EQ(st.callbacks_elsewhere, at_end);
    host.shutdown();
}

INSTANTIATE_TEST_SUITE_P(Queues, PipelineRecords, testing::Values(1u, 4u));

}  // namespace
