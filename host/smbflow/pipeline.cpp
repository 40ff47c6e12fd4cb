#include "pipeline.h"

#include "capture.h"
#include "flow_format.h"
#include "mapped_capture.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <span>
#include <tuple>

namespace smbflow {

using namespace corvane_host;

namespace {

constexpr size_t kBatchPackets = 256;
constexpr size_t kBatchBytes = 1 << 20;
constexpr size_t kBatchesInFlight = 16;  // per queue
// Flow records that a queue gathers before it wakes the export thread, unless it runs out of
// packets first: one message per batch woke the export thread (which keeps up easily and so
// waits) several thousand times per million packets, each a futex call on both sides.
constexpr size_t kExportFlows = 512;
constexpr size_t kMessagesPerQueue = 16;  // room in the export channel, per queue
// Records that came back from the export which a queue frees after each batch of packets, at
// the least: about what a batch makes, so that the plug-in's per-thread stores of freed
// records are refilled for the next batch to take from (freed all at once, most of them would
// overflow the stores into the allocator, and the next batch would allocate afresh).
constexpr size_t kFreedPerBatch = 64;

void free_some(SlotReleases &pending) {
    const size_t n = std::min(pending.size(), std::max(kFreedPerBatch, pending.size() / 8));
    for (size_t i = 0; i < n; ++i) {
        pending.back().plugin->free_slot(&pending.back().record);
        pending.pop_back();
    }
}
constexpr uint64_t kBroadcastNs = 1'000'000'000ull;
constexpr size_t kInPlace = SIZE_MAX;  // an item whose bytes are not in the arena

// Order of the flow records exported at the end of input.
auto end_key(const FlowHandoff &f) {
    std::array<uint8_t, 16> src, dst;
    std::memcpy(src.data(), &f.rec.src_addr, 16);
    std::memcpy(dst.data(), &f.rec.dst_addr, 16);
    return std::make_tuple(f.rec.first_ns, f.rec.ip_version, src, f.rec.src_port, dst,
                           f.rec.dst_port, f.rec.protocol, f.flow_hash);
}

bool end_order(const FlowHandoff &x, const FlowHandoff &y) {
    return end_key(x) < end_key(y);
}

}  // namespace

struct Pipeline::Batch {
    struct Item {
        host_packet pkt;
        uint64_t bytes;
        size_t offset;
    };
    std::vector<uint8_t> arena;
    // A fixed array rather than a vector: submit's bookkeeping per packet is a count.
    std::unique_ptr<Item[]> items = std::make_unique_for_overwrite<Item[]>(kBatchPackets);
    size_t count = 0;
    std::vector<std::shared_ptr<const void>> keep;  // what in-place items point into
    uint64_t clock_ns = 0;

    // The next item, for a packet whose bytes stay where they are (in the mapped file).
    Item &add_in_place(const DecodedPacket &packet) {
        Item &item = items[count++];
        item.pkt = packet.pkt;
        item.bytes = packet.ip_bytes;
        item.offset = kInPlace;
        return item;
    }
};

// Flow records that a queue exported, already post-processed: the export thread takes their
// fields' values, which needs nothing of the queue's state. The messages go back to their
// queue once written, so that their vectors are reused, with the plug-ins' records that the
// export let go (`released`): the queue's thread frees them, the one that allocated them.
// What a queue holds at the end of input comes unprocessed instead (`final`): it is
// post-processed on the export thread in the order of output, once every queue is done.
struct Pipeline::ExportMsg {
    std::vector<FlowHandoff> flows;  // the first `count` are in use
    size_t count = 0;
    std::vector<FlowHandoff> held;
    SlotReleases released;
    unsigned from = 0;  // the queue's index
    bool final = false;
};

struct Pipeline::Worker {
    Worker(const Host &host, size_t export_room)
        : written(export_room + 1), exporter(host, FillForms::Readable, host_rendered_fields()) {}
    unsigned index = 0;
    std::unique_ptr<Queue> queue;
    Channel<std::unique_ptr<Batch>> in{kBatchesInFlight};
    // Messages back from the export thread. A queue makes a message only when none has come
    // back, so it has at most the export channel's room and two (the one it fills and the
    // one being written): this channel never fills, and the export thread never waits on it.
    Channel<ExportMsg> written;
    size_t out = 0;  // messages sent and not back yet
    std::unique_ptr<Batch> filling;
    uint64_t pushed_clock_ns = 0;
    Exporter exporter;
    ExportMsg handed;      // filled by the queue's sink on the worker thread
    SlotReleases pending;  // records back from the export, to free on this thread
    bool flushing = false;
    ParseResults parse;
    std::thread thread;
};

Pipeline::Pipeline(Host &host, unsigned queues, QueueConfig config, RecordCallback on_record,
                   PayloadNeed need, FillForms forms, std::vector<uint32_t> deferred)
    : host_(host),
      on_record_(std::move(on_record)),
      need_(need),
      forms_(forms),
      deferred_(std::move(deferred)) {
    queues = std::max(queues, 1u);
    spare_ = std::make_unique<Channel<std::unique_ptr<Batch>>>(queues * (kBatchesInFlight + 2));
    export_ = std::make_unique<Channel<ExportMsg>>(queues * kMessagesPerQueue);
    for (unsigned i = 0; i < queues; ++i) {
        auto w = std::make_unique<Worker>(host_, queues * kMessagesPerQueue);
        Worker *raw = w.get();
        w->index = i;
        // Post-processing runs here, on the queue's thread, the moment the queue lets the flow
        // record go: the shared tables are then as the flow's last packet left them, not as
        // packets processed since then have changed them.
        w->queue = std::make_unique<Queue>(host_, i, config, [raw](FlowHandoff &&f) {
            ExportMsg &m = raw->handed;
            if (raw->flushing) {
                m.held.push_back(std::move(f));
                return;
            }
            raw->exporter.postprocess(f);
            if (m.count == m.flows.size()) m.flows.emplace_back();
            m.flows[m.count++] = f;
        });
        workers_.push_back(std::move(w));
    }
    export_thread_ = std::thread([this] { exporter_main(); });
    for (auto &w : workers_)
        w->thread = std::thread([this, raw = w.get()] { worker_main(*raw); });
}

Pipeline::~Pipeline() {
    finish();
}

unsigned Pipeline::queue_index(const host_packet &pkt, unsigned queues) {
    bool from_a;
    return static_cast<unsigned>(conn_key_of(pkt, from_a).digest % queues);
}

Pipeline::Batch &Pipeline::filling(Worker &w) {
    if (!w.filling) {
        if (auto spare = spare_->try_pop())
            w.filling = std::move(*spare);
        else
            w.filling = std::make_unique<Batch>();
    }
    return *w.filling;
}

void Pipeline::push(Worker &w) {
    filling(w);
    w.filling->clock_ns = clock_ns_;
    w.pushed_clock_ns = clock_ns_;
    w.in.push(std::move(w.filling));
}

void Pipeline::submit(const DecodedPacket &packet, const std::shared_ptr<const void> *keeper) {
    const host_packet &pkt = packet.pkt;
    clock_ns_ = std::max(clock_ns_, pkt.timestamp_ns);
    // Most packets of a mapped file with one queue: the item is all there is to do, and
    // without the rest inline the call has next to nothing to set up.
    if (workers_.size() == 1 && keeper && clock_ns_ < next_broadcast_ns_) {
        Batch *b = workers_[0]->filling.get();
        if (b && b->count + 1 < kBatchPackets && b->arena.size() < kBatchBytes &&
            !b->keep.empty() && b->keep.back() == *keeper) {
            b->add_in_place(packet);
            return;
        }
    }
    submit_general(packet, keeper);
}

void Pipeline::submit_general(const DecodedPacket &packet,
                              const std::shared_ptr<const void> *keeper) {
    const host_packet &pkt = packet.pkt;
    // With one queue there is nothing to choose, and the queue hashes the connection itself.
    Worker &w = workers_.size() == 1 ? *workers_[0] : *workers_[queue_index(pkt, workers_.size())];
    Batch &b = w.filling ? *w.filling : filling(w);
    Batch::Item &item = b.add_in_place(packet);
    if (keeper) {
        if (b.keep.empty() || b.keep.back() != *keeper) b.keep.push_back(*keeper);
    } else {
        item.offset = b.arena.size();
        item.pkt.length = need_.bytes(pkt);
        b.arena.insert(b.arena.end(), pkt.data, pkt.data + item.pkt.length);
    }
    if (b.count == kBatchPackets || b.arena.size() >= kBatchBytes) push(w);
    if (clock_ns_ >= next_broadcast_ns_) {
        // Queues that get no packets still learn how capture time moves on.
        if (next_broadcast_ns_ != 0)
            for (auto &other : workers_)
                if (clock_ns_ - other->pushed_clock_ns >= kBroadcastNs) push(*other);
        next_broadcast_ns_ = clock_ns_ + kBroadcastNs;
    }
}

void Pipeline::advance_clock(uint64_t now_ns) {
    clock_ns_ = std::max(clock_ns_, now_ns);
    for (auto &w : workers_)
        push(*w);
}

void Pipeline::worker_main(Worker &w) {
    parse_results_bind_thread(&w.parse);
    while (auto batch = w.in.pop()) {
        Batch &b = **batch;
        for (auto &item : std::span(b.items.get(), b.count)) {
            if (item.offset != kInPlace) item.pkt.data = b.arena.data() + item.offset;
            w.queue->process(item.pkt, item.bytes);
        }
        w.queue->advance(b.clock_ns);
        // Flows go out at the latest when the queue is about to wait for packets, so that
        // a quiet live interface does not hold them back.
        if (w.handed.count && (w.handed.count >= kExportFlows || w.in.empty())) send(w, false);
        free_some(w.pending);
        b.arena.clear();
        b.count = 0;
        b.keep.clear();
        spare_->try_push(std::move(*batch));
    }
    // Every record of this queue that the export let go is freed on this thread before the
    // end; what the queue still holds goes out with its last message and is freed on the
    // export thread.
    if (w.handed.count) send(w, false);
    while (w.out)
        take_back(w, *w.written.pop());
    free_released(w.pending);
    w.flushing = true;
    w.queue->flush();
    send(w, true);
    parse_results_bind_thread(nullptr);
}

void Pipeline::send(Worker &w, bool final) {
    w.handed.final = final;
    w.handed.from = w.index;
    export_->push(std::move(w.handed));
    w.handed = ExportMsg{};
    if (final) return;
    ++w.out;
    if (auto reused = w.written.try_pop()) take_back(w, std::move(*reused));
}

void Pipeline::take_back(Worker &w, ExportMsg &&msg) {
    --w.out;
    w.handed = std::move(msg);
    SlotReleases &back = w.handed.released;
    if (w.pending.empty())
        std::swap(w.pending, back);
    else
        w.pending.insert(w.pending.end(), back.begin(), back.end());
    back.clear();
    w.handed.count = 0;
}

void Pipeline::export_one(ExportedFlow &flow) {
    if (flow.plugin_records) ++flows_with_plugin_record_;
    flows_exported_.fetch_add(1, std::memory_order_relaxed);
    on_record_(flow);
}

void Pipeline::exporter_main() {
    Exporter exporter(host_, forms_, host_rendered_fields());
    exporter.defer(deferred_);
    ExportedFlow out;
    std::vector<FlowHandoff> at_end;
    size_t finals = 0;
    while (finals < workers_.size()) {
        auto msg = export_->pop();
        if (!msg) break;
        // A queue's last message does not go back: its records are freed here.
        if (!msg->final) t_slot_releases = &msg->released;
        for (auto &flow : std::span(msg->flows).first(msg->count)) {
            exporter.export_postprocessed(flow, out);
            export_one(out);
            exporter.complete(flow, out);
        }
        t_slot_releases = nullptr;
        if (msg->final) {
            ++finals;
            std::move(msg->held.begin(), msg->held.end(), std::back_inserter(at_end));
            continue;
        }
        workers_[msg->from]->written.push(std::move(*msg));
    }
    // Every queue is done: the shared tables are final, and neither the order of what the
    // queues held at the end nor what post-processing finds for it depends on how packets
    // were spread over queues.
    std::stable_sort(at_end.begin(), at_end.end(), end_order);
    for (auto &flow : at_end) {
        exporter.run(flow, out);
        export_one(out);
        exporter.complete(flow, out);
    }
}

void Pipeline::finish() {
    if (finished_) return;
    finished_ = true;
    for (auto &w : workers_) {
        if (w->filling && w->filling->count) push(*w);
        w->in.close();
    }
    for (auto &w : workers_)
        w->thread.join();
    export_thread_.join();
}

PipelineStats Pipeline::stats() const {
    PipelineStats s;
    for (const auto &w : workers_) {
        const QueueStats &q = w->queue->stats();
        s.queues.packets += q.packets;
        s.queues.flows_created += q.flows_created;
        s.queues.flows_exported += q.flows_exported;
        s.queues.smb_port_packets += q.smb_port_packets;
        s.queues.smb_record_packets += q.smb_record_packets;
        s.queues.update_removals += q.update_removals;
        s.parse += w->parse;
    }
    s.flows_exported = flows_exported_.load();
    s.flows_with_plugin_record = flows_with_plugin_record_;
    return s;
}

void submit_capture(Capture &capture, Pipeline &pipeline, uint64_t max_frames) {
    Frame frame;
    corvane_host::DecodedPacket packet;
    for (uint64_t n = 0; max_frames == 0 || n < max_frames; ++n) {
        if (read_frame(capture, frame) != ReadStatus::Packet) break;
        if (corvane_host::decode_frame(frame.link_type, frame.data, frame.caplen, packet) !=
            corvane_host::DecodeStatus::Ok)
            continue;
        packet.pkt.timestamp_ns = frame.ts_ns;
        pipeline.submit(packet, frame.keeper);
    }
}

}  // namespace smbflow
