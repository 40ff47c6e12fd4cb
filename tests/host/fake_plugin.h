// What the fake plug-in (fake_plugin.cpp) counts, read by the tests through dlsym.
#pragma once

#include <stdint.h>

struct fake_plugin_stats {
    int64_t records_alive;  // records made (filter, release copies) minus records freed
    uint64_t records_made;
    uint64_t callbacks;  // records freed through the callback hook
    uint64_t filter_calls;
    uint64_t update_calls;
    uint64_t update_removals;
    uint64_t release_calls;
    uint64_t postprocess_calls;
    uint64_t length_calls;   // length callbacks asked (one per valid field of an exported record)
    uint64_t bad_counters;   // filter saw dir_counters other than the packet's own counts
    uint64_t bad_direction;  // update saw a direction bit that disagrees with the ports
    uint64_t init_calls;
    uint64_t init_queue_calls;
    uint64_t shutdown_queue_calls;
    uint64_t shutdown_calls;
    uint64_t callbacks_elsewhere;  // records freed on another thread than the one that made them
    char last_params[256];
};

typedef const struct fake_plugin_stats *(*fake_plugin_stats_fn)(void);
typedef void (*fake_plugin_reset_fn)(void);
