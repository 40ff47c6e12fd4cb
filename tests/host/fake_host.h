// A host with the fake plug-in loaded, and packets for it, shared by the library tests.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "exporter.h"
#include "fake_plugin.h"
#include "host.h"
#include "packet_builder.h"
#include "packet_decoder.h"
#include "queue.h"

namespace hosttest {

inline const fake_plugin_stats &fake_stats(const corvane_host::Host &host) {
    auto get = reinterpret_cast<fake_plugin_stats_fn>(
        dlsym(host.plugin(0).library, "fake_plugin_stats_get"));
    return *get();
}

inline void reset_fake_stats(const corvane_host::Host &host) {
    auto reset = reinterpret_cast<fake_plugin_reset_fn>(
        dlsym(host.plugin(0).library, "fake_plugin_stats_reset"));
    reset();
}

// A host with the fake plug-in initialised, and one queue whose exports are collected.
class FakeHostTest : public testing::Test {
  protected:
    void SetUp() override { start(); }

    void start(corvane_host::QueueConfig config = {}, const char *params = "") {
        host = std::make_unique<corvane_host::Host>();
        auto problem = host->load_library(FAKE_PLUGIN);
        ASSERT_FALSE(problem) << *problem;
        reset_fake_stats(*host);
        host->init_plugin(0, params);
        queue = std::make_unique<corvane_host::Queue>(
            *host, 0, config,
            [this](corvane_host::FlowHandoff &&f) { handed.push_back(std::move(f)); });
    }

    void TearDown() override {
        queue.reset();
        for (auto &f : handed)
            corvane_host::Exporter(*host).discard(f);
        host->shutdown();
    }

    // Sends one TCP packet through the queue.
    void send(bool from_client, uint64_t ts_ns, const std::string &payload,
              uint16_t client_port = 50000, uint16_t server_port = 445) {
        testnet::TcpSpec s;
        s.src = from_client ? client : server;
        s.dst = from_client ? server : client;
        s.sport = from_client ? client_port : server_port;
        s.dport = from_client ? server_port : client_port;
        s.flags = testnet::ACK | (payload.empty() ? 0 : testnet::PSH);
        s.payload.assign(payload.begin(), payload.end());
        const testnet::Bytes ip = testnet::tcp_datagram(s);
        corvane_host::DecodedPacket d;
        ASSERT_EQ(corvane_host::decode_frame(corvane_host::kLinkIpv4, ip.data(), ip.size(), d),
                  corvane_host::DecodeStatus::Ok);
        d.pkt.timestamp_ns = ts_ns;
        queue->process(d.pkt, d.ip_bytes);
    }

    std::vector<corvane_host::ExportedFlow> export_all() {
        corvane_host::Exporter exporter(*host);
        std::vector<corvane_host::ExportedFlow> out;
        for (auto &f : handed)
            out.push_back(exporter.run(f));
        handed.clear();
        return out;
    }

    const fake_plugin_stats &stats() const { return fake_stats(*host); }

    testnet::Addr client = testnet::ipv4(10, 1, 0, 7);
    testnet::Addr server = testnet::ipv4(10, 1, 0, 2);
    std::unique_ptr<corvane_host::Host> host;
    std::unique_ptr<corvane_host::Queue> queue;
    std::vector<corvane_host::FlowHandoff> handed;
};

constexpr uint64_t kSecond = 1'000'000'000ull;
constexpr uint64_t kT0 = 1'700'000'000ull * kSecond;

}  // namespace hosttest
