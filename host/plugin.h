// What the host keeps about each plug-in: its descriptor, its context, the fields and the
// flow-level hooks that it registered, and the per-queue hooks of one processing queue.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "host_interface.h"

namespace corvane_host {

// Plug-ins one host can run side by side; each packet and flow has one slot per plug-in.
inline constexpr size_t kMaxPlugins = 4;

// An exported field as registered by corvane_getter_add.
struct FieldDef {
    size_t plugin_index = 0;
    std::string name;
    uint32_t type = 0;  // CORVANE_FIELD_NUMBER, CORVANE_FIELD_STRING or CORVANE_FIELD_OCTETS
    uint32_t size = 0;  // byte size of the value
    void *ctx = nullptr;
    corvane_validity_fn validity = nullptr;
    corvane_length_fn length = nullptr;
    corvane_fill_fn fill = nullptr;
    corvane_fill_fn fill_txt = nullptr;
    bool has_default = false;
    std::vector<uint8_t> default_value;
};

struct PluginInstance {
    uint32_t id = 0;  // the plug-in id handed to init and passed back with each registration
    size_t index = 0;
    std::string origin;       // library path or label, for messages
    void *library = nullptr;  // dlopen handle, null for a linked-in module
    const corvane_plugin_desc *desc = nullptr;
    void *ctx = nullptr;  // what init returned
    bool initialised = false;
    std::vector<std::unique_ptr<FieldDef>> fields;
    void *postprocess_ctx = nullptr;
    corvane_postprocess_fn postprocess = nullptr;
    void *callback_ctx = nullptr;
    corvane_callback_fn callback = nullptr;

    // Frees one record held in a slot through the plug-in's callback hook, or hands it to the
    // thread's release list when it has one (see SlotReleases). Always inline: a queue calls
    // it for about every other packet.
    [[gnu::always_inline]] inline void free_slot(host_slot *slot) const;
};

// Records whose freeing a thread leaves to another: the thread that exports flow records is
// not the one that made their records, and a record freed away from the thread that allocated
// it goes back to that thread's allocator arena under its lock, which the allocating thread
// takes at the same time (two futex calls per meeting). The export thread collects them
// instead, and the queue's thread frees them when the list comes back to it.
struct SlotRelease {
    const PluginInstance *plugin;
    host_slot record;
};
using SlotReleases = std::vector<SlotRelease>;

// Where free_slot puts records on this thread; null: they are freed at once.
inline thread_local SlotReleases *t_slot_releases = nullptr;

void PluginInstance::free_slot(host_slot *slot) const {
    if (*slot && callback) {
        if (t_slot_releases)
            t_slot_releases->push_back({this, *slot});
        else
            callback(callback_ctx, slot);
    }
    *slot = nullptr;
}

// Frees what a release list holds (on a thread without a list of its own) and empties it.
inline void free_released(SlotReleases &released) {
    for (SlotRelease &r : released)
        r.plugin->free_slot(&r.record);
    released.clear();
}

// The hooks that one plug-in registered for one processing queue.
struct QueueHooks {
    void *queue_ctx = nullptr;  // what init_queue returned, handed to shutdown_queue
    void *filter_ctx = nullptr;
    corvane_filter_fn filter = nullptr;
    void *update_ctx = nullptr;
    corvane_update_fn update = nullptr;
    void *release_ctx = nullptr;
    corvane_release_fn release = nullptr;
};

}  // namespace corvane_host
