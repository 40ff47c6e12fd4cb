// The threads of smbflow: the reading thread submits decoded packets; N queue threads each
// run a processing queue (both directions of a connection always go to the same queue) and
// post-process the flow records that their queue lets go; one export thread writes them.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "channel.h"
#include "exporter.h"
#include "packet_decoder.h"
#include "parse_results.h"
#include "payload_need.h"
#include "queue.h"

namespace smbflow {

class Capture;

struct PipelineStats {
    corvane_host::QueueStats queues;  // summed over the queues
    uint64_t flows_exported = 0;
    uint64_t flows_with_plugin_record = 0;
    ParseResults parse;
};

// Called on the export thread for each exported flow record, in export order.
// The record is the export thread's reused buffer: the callback may change it in place.
using RecordCallback = std::function<void(corvane_host::ExportedFlow &)>;

class Pipeline {
  public:
    // `forms`: which fill callbacks the export asks (FillForms::Text when no output needs the
    // binary form of the plug-ins' number fields). `deferred`: positions of the fields that
    // the record callback asks for itself, as it writes them (Exporter::defer); those it
    // leaves are asked after it.
    Pipeline(corvane_host::Host &host, unsigned queues, corvane_host::QueueConfig config,
             RecordCallback on_record, PayloadNeed need = PayloadNeed::all(),
             corvane_host::FillForms forms = corvane_host::FillForms::Readable,
             std::vector<uint32_t> deferred = {});
    ~Pipeline();
    Pipeline(const Pipeline &) = delete;
    Pipeline &operator=(const Pipeline &) = delete;

    // Hands the packet to the batch of its queue. With a keeper its bytes stay where they are
    // and the batch holds the keeper until the queue is done with it; without, what `need`
    // keeps of them (from the IP header on) is copied into the batch.
    void submit(const corvane_host::DecodedPacket &packet,
                const std::shared_ptr<const void> *keeper = nullptr);

    // Capture time moved on without packets (a quiet live interface): queues learn it so
    // that idle flows time out, and partly filled batches go out.
    void advance_clock(uint64_t now_ns);

    // End of input: every queue exports what it holds, and the threads stop. Flow records
    // left at the end are exported in start-time order across all queues.
    void finish();

    uint64_t flows_exported() const { return flows_exported_.load(std::memory_order_relaxed); }
    PipelineStats stats() const;  // after finish

    // The queue that a packet goes to.
    static unsigned queue_index(const host_packet &pkt, unsigned queues);

  private:
    struct Batch;
    struct ExportMsg;
    struct Worker;

    // submit's cases other than the most common one.
    [[gnu::noinline]] void submit_general(const corvane_host::DecodedPacket &packet,
                                          const std::shared_ptr<const void> *keeper);
    Batch &filling(Worker &w);  // the batch being filled, a spare one if need be
    void push(Worker &w);
    void worker_main(Worker &w);
    void send(Worker &w, bool final);
    void take_back(Worker &w, ExportMsg &&msg);  // a message back from the export thread
    void exporter_main();
    void export_one(corvane_host::ExportedFlow &flow);

    corvane_host::Host &host_;
    RecordCallback on_record_;
    PayloadNeed need_;
    corvane_host::FillForms forms_;
    std::vector<uint32_t> deferred_;
    std::vector<std::unique_ptr<Worker>> workers_;
    std::unique_ptr<Channel<std::unique_ptr<Batch>>> spare_;
    std::unique_ptr<Channel<ExportMsg>> export_;
    std::thread export_thread_;
    uint64_t clock_ns_ = 0;
    uint64_t next_broadcast_ns_ = 0;
    std::atomic<uint64_t> flows_exported_{0};
    uint64_t flows_with_plugin_record_ = 0;
    bool finished_ = false;
};

// Reads an opened capture to its end (or `max_frames` frames when not 0) and submits every frame
// that decodes, with its capture time: a whole file through the pipeline as a test or a fuzz
// harness wants it, without smbflow's reading loop and its progress and signals.
void submit_capture(Capture &capture, Pipeline &pipeline, uint64_t max_frames = 0);

}  // namespace smbflow
