// A minimal host for the fuzz harnesses and benchmarks that drive the plug-in's hooks: it
// implements every host function the plug-in calls, keeps the registered fields, and makes the
// record writers read every byte they are handed, so that a field callback passing a bad buffer
// shows up under AddressSanitizer.
#pragma once

#include <stdint.h>

#include <vector>

#include "smb.h"

namespace mini_host {

struct field {
    corvane_validity_fn validity;
    corvane_length_fn length;
    corvane_fill_fn fill;
    corvane_fill_fn fill_txt;
};

// Fields registered since the last reset, in order.
const std::vector<field> &fields();
// Whether corvane_hook_update_remove was called for this flow record since the last reset.
bool update_removed(const host_flow_record *flow);
void reset();

// Runs every field's callbacks on one flow, as the host does at export.
void export_flow(host_flow_record *flow, host_slot *slot);

}  // namespace mini_host
