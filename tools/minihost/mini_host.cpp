#include "mini_host.h"

#include <algorithm>
#include <stdexcept>

namespace mini_host {

namespace {

state g_state;
int g_field_handles[64];

int record_write(const char *writer, const void *value, uint32_t size, uint32_t a, uint32_t b) {
    const auto *bytes = static_cast<const uint8_t *>(value);
    g_state.writes.push_back({writer, {bytes, bytes + size}, a, b});
    g_state.calls.push_back(std::string("record_universal_get_") + writer);
    return 0;
}

void add_hook(const char *kind, void *ctx, uint32_t plugin_id, void *fn) {
    g_state.hooks.push_back({kind, ctx, plugin_id, fn});
    g_state.calls.push_back(std::string("corvane_hook_") + kind);
}

}  // namespace

state &host() {
    return g_state;
}

void reset() {
    g_state = state{};
}

bool update_removed(const host_flow_record *flow) {
    return std::any_of(g_state.removals.begin(), g_state.removals.end(),
                       [flow](const removal &r) { return r.flow == flow; });
}

plugin::plugin(const char *params)
    : ctx(static_cast<smb_plugin_ctx *>(process_smb_init(1, params, nullptr, 0))),
      queue(static_cast<smb_queue_ctx *>(process_smb_init_queue(1, ctx, 0))) {}

plugin::~plugin() {
    process_smb_shutdown_queue(queue);
    process_smb_shutdown(ctx);
    reset();
}

void export_flow(host_flow_record *flow, host_slot *slot) {
    for (const field &f : g_state.fields) {
        (void)f.length(nullptr, flow, slot);
        if (!f.validity(nullptr, flow, slot)) continue;
        uint8_t output[64];
        f.fill(nullptr, flow, slot, output, 0, 0);
        f.fill_txt(nullptr, flow, slot, output, 0, 0);
    }
}

exported export_field(const std::string &name, host_flow_record *flow, host_slot *slot, bool text) {
    auto it = std::find_if(g_state.fields.begin(), g_state.fields.end(),
                           [&](const field &f) { return f.name == name; });
    if (it == g_state.fields.end()) throw std::runtime_error("no field " + name);
    exported out{};
    const size_t before = g_state.writes.size();
    out.valid = it->validity(nullptr, flow, slot) != 0;
    out.length = it->length(nullptr, flow, slot);
    if (out.valid) (text ? it->fill_txt : it->fill)(nullptr, flow, slot, &out, 7, 9);
    out.writes.assign(g_state.writes.begin() + before, g_state.writes.end());
    return out;
}

}  // namespace mini_host

using mini_host::g_state;

extern "C" {

// Weak, so that a test of the plug-in's entry point can bring its own.
__attribute__((weak)) int corvane_plugin_add(void *, void *, void *, void *, void *) {
    g_state.calls.push_back("corvane_plugin_add");
    return 0;
}

void *corvane_getter_add(void *host, uint32_t plugin_id, uint32_t all_ones, const char *name,
                         uint32_t type, uint32_t size, int zero, void *ctx,
                         corvane_validity_fn validity, corvane_length_fn length,
                         corvane_fill_fn fill, corvane_fill_fn fill_txt, int zero2) {
    if (zero != 0 || zero2 != 0) throw std::runtime_error("getter_add: constant arguments");
    g_state.fields.push_back(
        {host, plugin_id, all_ones, name, type, size, ctx, validity, length, fill, fill_txt, {}});
    g_state.calls.push_back(std::string("corvane_getter_add ") + name);
    return &mini_host::g_field_handles[(g_state.fields.size() - 1) % 64];
}

void corvane_getter_set_default(void *field, const void *value, uint32_t size) {
    auto &f = g_state.fields.at(static_cast<int *>(field) - mini_host::g_field_handles);
    const auto *bytes = static_cast<const uint8_t *>(value);
    f.default_value.assign(bytes, bytes + size);
    g_state.calls.push_back("corvane_getter_set_default " + f.name);
}

void corvane_hook_postprocess(void *ctx, uint32_t plugin_id, corvane_postprocess_fn hook) {
    mini_host::add_hook("postprocess", ctx, plugin_id, reinterpret_cast<void *>(hook));
}
void corvane_hook_callback(void *ctx, uint32_t plugin_id, corvane_callback_fn hook) {
    mini_host::add_hook("callback", ctx, plugin_id, reinterpret_cast<void *>(hook));
}
void corvane_hook_queue_filter(void *ctx, uint32_t plugin_id, corvane_filter_fn hook) {
    mini_host::add_hook("queue_filter", ctx, plugin_id, reinterpret_cast<void *>(hook));
}
void corvane_hook_queue_update(void *ctx, uint32_t plugin_id, corvane_update_fn hook) {
    mini_host::add_hook("queue_update", ctx, plugin_id, reinterpret_cast<void *>(hook));
}
void corvane_hook_queue_release(void *ctx, uint32_t plugin_id, corvane_release_fn hook) {
    mini_host::add_hook("queue_release", ctx, plugin_id, reinterpret_cast<void *>(hook));
}

void *corvane_hook_update_remove(host_flow_record *flow, uint32_t queue_id,
                                 corvane_update_fn hook) {
    g_state.removals.push_back({flow, queue_id, hook});
    g_state.calls.push_back("corvane_hook_update_remove");
    return g_state.update_remove_result;
}

int record_universal_get_num(void *, const void *value, uint32_t size, uint32_t a, uint32_t b) {
    return mini_host::record_write("num", value, size, a, b);
}
int record_universal_get_txt_num(void *, const void *value, uint32_t size, uint32_t a, uint32_t b) {
    return mini_host::record_write("txt_num", value, size, a, b);
}
int record_universal_get_txt_string(void *, const void *buffer, uint32_t size, uint32_t a,
                                    uint32_t b) {
    return mini_host::record_write("txt_string", buffer, size, a, b);
}
int record_universal_get_array(void *, const void *buffer, uint32_t size, uint32_t a, uint32_t b) {
    return mini_host::record_write("array", buffer, size, a, b);
}

}  // extern "C"
