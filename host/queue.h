// One processing queue: runs each packet through the plug-ins' filter hooks, finds or makes
// its flow record in the queue's flow cache, counts it, runs the update hooks, and hands
// flow records to export when they time out (in capture time) or when the queue is flushed.
// A queue is used from one thread at a time.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <vector>

#include "flat_table.h"
#include "flow_key.h"
#include "host.h"
#include "timeout_heap.h"

namespace corvane_host {

struct QueueConfig {
    uint64_t active_timeout_ns = 300'000'000'000ull;
    uint64_t inactive_timeout_ns = 30'000'000'000ull;
    uint64_t sweep_interval_ns = 1'000'000'000ull;  // how often the cache is scanned for timeouts
};

enum class ExportReason : uint8_t { Inactive, Active, End };

// A flow record on its way to export, with the plug-ins' records in its slots (moved out of
// the flow cache). Whoever holds it owns those records.
struct FlowHandoff {
    host_flow_record rec{};
    std::array<host_slot, kMaxPlugins> slots{};
    uint64_t flow_hash = 0;
    ExportReason reason = ExportReason::End;
    uint32_t plugin_records = 0;  // set by post-processing: bit i, plug-in i had a record
};

using FlowSink = std::function<void(FlowHandoff &&)>;

struct QueueStats {
    uint64_t packets = 0;
    uint64_t flows_created = 0;
    uint64_t flows_exported = 0;
    uint64_t smb_port_packets = 0;    // packets that a plug-in flagged 0x8000
    uint64_t smb_record_packets = 0;  // packets that a plug-in flagged 0x0010
    uint64_t update_removals = 0;
};

class Queue {
  public:
    // Calls every plug-in's init_queue; the plug-ins register their queue hooks there.
    Queue(Host &host, uint32_t queue_id, QueueConfig config, FlowSink sink);
    // Frees the records of flows still in the cache (without export) and calls every
    // plug-in's shutdown_queue.
    ~Queue();
    Queue(const Queue &) = delete;
    Queue &operator=(const Queue &) = delete;

    // One packet. The caller fills the descriptor's data, length, payload_offset, addresses,
    // ports, ip_version, protocol, ipv4_aux16, tcp_flags and timestamp_ns; `bytes` is what
    // the packet counts in its flow. The queue sets flow_hash, flags and dir_counters.
    void process(host_packet &pkt, uint64_t bytes);

    // Moves the queue's capture-time clock; flows idle or open too long are exported.
    void advance(uint64_t now_ns);

    // Hands every flow in the cache to export, ordered by start time.
    void flush();

    const QueueStats &stats() const { return stats_; }
    size_t flow_count() const { return flows_.size(); }
    uint32_t id() const { return id_; }

  private:
    struct Flow {
        host_flow_record rec{};
        std::array<host_slot, kMaxPlugins> slots{};
        uint32_t update_off = 0;  // plug-ins whose update hook this flow no longer calls
        bool src_is_a = true;     // the first packet came from endpoint a
        uint32_t heap_pos = 0;    // its place in timeouts_
        uint64_t serial = 0;      // 1 + the number of flows made before it; 0: a free entry
    };
    struct Conn {
        bool first_from_a = true;
        uint64_t last_ns = 0;
        uint64_t digest = 0;  // conn_hash of the key, made when the entry is
        // The flow entry that the connection's last packet went to: the next packet usually
        // goes there too, and finds it without a lookup. Entries never move, and an erased
        // one is zeroed and takes a new serial when it is used again: the pointer is still
        // this connection's flow when the serial matches, and then the flow hash alone tells
        // whether the packet goes there (the flow's key is this connection and that hash).
        void *last_flow = nullptr;
        uint64_t last_serial = 0;
    };

    bool timed_out(const Flow &flow, uint64_t now_ns) const;
    uint64_t deadline(const Flow &flow) const;
    void hand_off(const FlowKey &key, Flow &flow, ExportReason reason);
    void sweep(uint64_t now_ns);
    using FlowMap = FlatTable<FlowKey, Flow, FlowKeyHash>;
    // The heap holds the cache's entries by address, which stays valid while they are in it.
    using FlowEntry = FlowMap::Entry;
    struct HeapPosOf {
        uint32_t &operator()(FlowEntry *e) const { return e->second.heap_pos; }
    };
    void drop(FlowEntry *e);  // out of the timeout heap and the cache
    // Exports and drops the flows in victims_, in export order.
    void export_sorted(uint64_t now_ns, bool end);
    struct Victim {
        uint64_t first_ns;  // the entry's start time, at hand for sorting
        FlowEntry *entry;
    };

    Host &host_;
    uint32_t id_;
    QueueConfig config_;
    FlowSink sink_;
    std::array<QueueHooks, kMaxPlugins> hooks_{};
    // The host's plug-ins, fixed while the queue lives: at hand for every packet.
    size_t plugin_count_ = 0;
    std::array<const PluginInstance *, kMaxPlugins> plugins_{};
    FlowMap flows_;
    using ConnEntry = FlatTable<ConnKey, Conn, ConnKeyHash>::Entry;
    FlatTable<ConnKey, Conn, ConnKeyHash> conns_;
    ConnEntry *last_conn_ = nullptr;  // the entry of the last packet's connection
    // Every flow in the cache, by the time its timeout could next fall due. Packets push a
    // flow's timeout later without touching the heap; a sweep that finds the flow still
    // active files it again, so each flow is handled about once per timeout period.
    TimeoutHeap<FlowEntry *, HeapPosOf> timeouts_;
    std::vector<Victim> victims_;  // flows leaving at one sweep (kept for its capacity)
    uint64_t clock_ns_ = 0;
    uint64_t next_sweep_ns_ = 0;
    uint64_t next_conn_sweep_ns_ = 0;
    QueueStats stats_;
};

}  // namespace corvane_host
