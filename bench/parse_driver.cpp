// Runs one packet mix through the filter hook or the payload entry a given number of times,
// for instruction counting under callgrind (tools/bench-callgrind.sh): the counted work is
// exactly bench_run_passes, after one uncounted pass that fills the tables.
//
//   smb_parse_driver filter|parse MIX [PASSES]     prints: MIX PACKETS_PROCESSED
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "packet_mix.h"

namespace {

using step_fn = void (*)(smb_queue_ctx *, const bench::packet &);

void parse_step(smb_queue_ctx *q, const bench::packet &p) {
    bench::run_parse(q, p);
}

}  // namespace

extern "C" __attribute__((noinline)) size_t bench_run_passes(smb_queue_ctx *q, const bench::mix *m,
                                                             int passes, step_fn step) {
    size_t done = 0;
    for (int pass = 0; pass < passes; ++pass)
        for (const bench::packet &p : m->packets) {
            step(q, p);
            ++done;
        }
    return done;
}

int main(int argc, char **argv) {
    if (argc < 3 || (strcmp(argv[1], "filter") != 0 && strcmp(argv[1], "parse") != 0)) {
        fprintf(stderr, "usage: %s filter|parse MIX [PASSES]\n", argv[0]);
        return 2;
    }
    const step_fn step = strcmp(argv[1], "filter") == 0 ? bench::run_filter : parse_step;
    const int passes = argc > 3 ? atoi(argv[3]) : 10;
    const char *dir = getenv("SMB_CAPTURE_DIR");
    const auto mixes = bench::load_mixes(dir ? dir : SMB_CAPTURE_DIR);
    for (const bench::mix &m : mixes) {
        if (m.name != argv[2]) continue;
        // Plug-in parameters from the environment, e.g. SMB_BENCH_PARAMS=activity=1.
        bench::plugin plugin(getenv("SMB_BENCH_PARAMS"));
        for (const bench::packet &p : m.packets)
            step(plugin.queue, p);
        printf("%s %zu\n", m.name.c_str(), bench_run_passes(plugin.queue, &m, passes, step));
        return 0;
    }
    fprintf(stderr, "no mix %s\n", argv[2]);
    return 2;
}
