// A recording host for the plug-in's unit tests: it implements every host function that the
// plug-in calls, remembers each call in order, and keeps the registered fields and hooks.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "smb.h"

namespace fake_host {

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
    std::string writer;  // "num", "txt_num", "txt_string", "array"
    void *output;
    std::vector<uint8_t> bytes;  // the size bytes at the value's address
    const void *address;
    uint32_t size, a, b;
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
    void *update_remove_result = nullptr;
};

state &host();
void reset();
void note_call(const std::string &name);

// The functions registered as hooks of one kind, in order.
std::vector<void *> hooks_of(const std::string &kind);

// A value exported for one field of one flow, as the host would do it: validity, length, then
// the binary fill (or the default when the field is not valid).
struct exported {
    bool valid;
    int length;
    std::vector<write> writes;
};
exported export_field(const std::string &name, host_flow_record *flow, host_slot *slot,
                      bool text = false);

}  // namespace fake_host
