#include "fake_host.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace fake_host {

namespace {
state g_state;
int g_field_handles[64];

void record_write(const char *writer, void *output, const void *value, uint32_t size, uint32_t a,
                  uint32_t b) {
    const auto *bytes = static_cast<const uint8_t *>(value);
    g_state.writes.push_back({writer, output, {bytes, bytes + size}, value, size, a, b});
    g_state.calls.push_back(std::string("record_universal_get_") + writer);
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

std::vector<void *> hooks_of(const std::string &kind) {
    std::vector<void *> out;
    for (const hook &h : g_state.hooks)
        if (h.kind == kind) out.push_back(h.fn);
    return out;
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

}  // namespace fake_host

using fake_host::g_field_handles;
using fake_host::g_state;

extern "C" {

void *corvane_getter_add(void *host, uint32_t plugin_id, uint32_t all_ones, const char *name,
                         uint32_t type, uint32_t size, int zero, void *ctx,
                         corvane_validity_fn validity, corvane_length_fn length,
                         corvane_fill_fn fill, corvane_fill_fn fill_txt, int zero2) {
    if (zero != 0 || zero2 != 0) throw std::runtime_error("getter_add: constant arguments");
    g_state.fields.push_back(
        {host, plugin_id, all_ones, name, type, size, ctx, validity, length, fill, fill_txt, {}});
    g_state.calls.push_back(std::string("corvane_getter_add ") + name);
    return &g_field_handles[g_state.fields.size() - 1];
}

void corvane_getter_set_default(void *field, const void *value, uint32_t size) {
    const size_t index = static_cast<int *>(field) - g_field_handles;
    auto &f = g_state.fields.at(index);
    const auto *bytes = static_cast<const uint8_t *>(value);
    f.default_value.assign(bytes, bytes + size);
    g_state.calls.push_back("corvane_getter_set_default " + f.name);
}

void corvane_hook_postprocess(void *ctx, uint32_t plugin_id, corvane_postprocess_fn hook) {
    fake_host::add_hook("postprocess", ctx, plugin_id, reinterpret_cast<void *>(hook));
}

void corvane_hook_callback(void *ctx, uint32_t plugin_id, corvane_callback_fn hook) {
    fake_host::add_hook("callback", ctx, plugin_id, reinterpret_cast<void *>(hook));
}

void corvane_hook_queue_filter(void *ctx, uint32_t plugin_id, corvane_filter_fn hook) {
    fake_host::add_hook("queue_filter", ctx, plugin_id, reinterpret_cast<void *>(hook));
}

void corvane_hook_queue_update(void *ctx, uint32_t plugin_id, corvane_update_fn hook) {
    fake_host::add_hook("queue_update", ctx, plugin_id, reinterpret_cast<void *>(hook));
}

void corvane_hook_queue_release(void *ctx, uint32_t plugin_id, corvane_release_fn hook) {
    fake_host::add_hook("queue_release", ctx, plugin_id, reinterpret_cast<void *>(hook));
}

void *corvane_hook_update_remove(host_flow_record *flow, uint32_t queue_id,
                                 corvane_update_fn hook) {
    g_state.removals.push_back({flow, queue_id, hook});
    g_state.calls.push_back("corvane_hook_update_remove");
    return g_state.update_remove_result;
}

int record_universal_get_num(void *output, const void *value, uint32_t size, uint32_t a,
                             uint32_t b) {
    fake_host::record_write("num", output, value, size, a, b);
    return 0;
}

int record_universal_get_txt_num(void *output, const void *value, uint32_t size, uint32_t a,
                                 uint32_t b) {
    fake_host::record_write("txt_num", output, value, size, a, b);
    return 0;
}

int record_universal_get_txt_string(void *output, const void *buffer, uint32_t size, uint32_t a,
                                    uint32_t b) {
    fake_host::record_write("txt_string", output, buffer, size, a, b);
    return 0;
}

int record_universal_get_array(void *output, const void *buffer, uint32_t size, uint32_t a,
                               uint32_t b) {
    fake_host::record_write("array", output, buffer, size, a, b);
    return 0;
}

}  // extern "C"
