// A minimal host for the programs and tests that drive the plug-in's hooks directly (fuzz
// harnesses, benchmarks, the plug-in's unit tests): it implements every host function the
// plug-in calls and remembers each call in order, with the registered fields and hooks and
// every value handed to a record writer. The writers copy every byte they are handed, so that
// a field callback passing a bad buffer shows up under AddressSanitizer.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include "smb.h"

namespace mini_host {

struct field {
    void *host;
    uint32_t plugin_id;
    uint32_t all_ones;
    std::string name;
    uint32_t type;
    uint32_t size;
    void *ctx;
    corvane_validity_fn validity;
    corvane_length_fn length;
    corvane_fill_fn fill;
    corvane_fill_fn fill_txt;
    std::vector<uint8_t> default_value;  // empty: no default set
};

struct hook {
    std::string kind;  // "postprocess", "callback", "queue_filter", "queue_update", "queue_release"
    void *ctx;
    uint32_t plugin_id;
    void *fn;
};

// One call of a record writer.
struct write {
    std::string writer;          // "num", "txt_num", "txt_string", "array"
    std::vector<uint8_t> bytes;  // the size bytes at the value's address
    uint32_t a, b;
};

struct removal {
    host_flow_record *flow;
    uint32_t queue_id;
    corvane_update_fn hook;
};

struct state {
    std::vector<std::string> calls;  // every host function called, in order
    std::vector<field> fields;
    std::vector<hook> hooks;
    std::vector<write> writes;
    std::vector<removal> removals;
    void *update_remove_result = nullptr;  // what corvane_hook_update_remove returns
};

// Everything since the last reset.
state &host();
void reset();

// Whether corvane_hook_update_remove was called for this flow record since the last reset.
bool update_removed(const host_flow_record *flow);

// The plug-in with one queue, set up through its own init hooks with the given parameters as
// a host runs it; shut down, and this host's records cleared, when it goes.
struct plugin {
    explicit plugin(const char *params = nullptr);
    ~plugin();
    plugin(const plugin &) = delete;
    plugin &operator=(const plugin &) = delete;
    smb_plugin_ctx *ctx;
    smb_queue_ctx *queue;
};

// Runs every field's callbacks on one flow, as the host does at export.
void export_flow(host_flow_record *flow, host_slot *slot);

// A value exported for one field of one flow, as the host would do it: validity, length, then
// the binary (or text) fill when the field is valid.
struct exported {
    bool valid;
    int length;
    std::vector<write> writes;
};
exported export_field(const std::string &name, host_flow_record *flow, host_slot *slot,
                      bool text = false);

}  // namespace mini_host
