// Parse-path micro-benchmark: the filter hook and the payload entry on packet mixes from the
// real captures, with the default table sizes. Each iteration is one packet, so the time per
// iteration is the cost per packet.
#include <benchmark/benchmark.h>

#include <stdlib.h>

#include "packet_mix.h"

namespace {

const std::vector<bench::mix> &mixes() {
    static const std::vector<bench::mix> loaded = [] {
        const char *dir = getenv("SMB_CAPTURE_DIR");
        return bench::load_mixes(dir ? dir : SMB_CAPTURE_DIR);
    }();
    return loaded;
}

template <typename Step>
void run(benchmark::State &state, size_t mix_index, Step step) {
    const bench::mix &m = mixes()[mix_index];
    bench::plugin plugin;
    const size_t n = m.packets.size();
    // One pass first, so that the tables hold what the traffic leaves in them.
    for (const bench::packet &p : m.packets)
        step(plugin.queue, p);
    size_t i = 0;
    for (auto _ : state) {
        step(plugin.queue, m.packets[i]);
        if (++i == n) i = 0;
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["packets_in_mix"] = static_cast<double>(n);
}

void filter(benchmark::State &state) {
    run(state, static_cast<size_t>(state.range(0)), bench::run_filter);
}

void parse(benchmark::State &state) {
    run(state, static_cast<size_t>(state.range(0)), [](smb_queue_ctx *q, const bench::packet &p) {
        benchmark::DoNotOptimize(bench::run_parse(q, p));
    });
}

void register_all() {
    for (size_t i = 0; i < mixes().size(); ++i) {
        const std::string &name = mixes()[i].name;
        benchmark::RegisterBenchmark(("filter/" + name).c_str(), filter)->Arg(int64_t(i));
        benchmark::RegisterBenchmark(("parse/" + name).c_str(), parse)->Arg(int64_t(i));
    }
}

}  // namespace

int main(int argc, char **argv) {
    register_all();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
