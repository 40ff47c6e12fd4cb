#include "mini_host.h"

#include <string.h>

#include <algorithm>

namespace mini_host {

namespace {

std::vector<field> g_fields;
std::vector<const host_flow_record *> g_removed;
int g_field_handles[16];
volatile uint8_t g_sink;

// Touches every byte, as a real writer copies them into the output record.
int consume(const void *value, uint32_t size) {
    uint8_t copy[256];
    const auto *bytes = static_cast<const uint8_t *>(value);
    for (uint32_t done = 0; done < size;) {
        const uint32_t n = std::min<uint32_t>(size - done, sizeof copy);
        memcpy(copy, bytes + done, n);
        g_sink = copy[n - 1];
        done += n;
    }
    return 0;
}

}  // namespace

const std::vector<field> &fields() {
    return g_fields;
}

bool update_removed(const host_flow_record *flow) {
    return std::find(g_removed.begin(), g_removed.end(), flow) != g_removed.end();
}

void reset() {
    g_fields.clear();
    g_removed.clear();
}

void export_flow(host_flow_record *flow, host_slot *slot) {
    for (const field &f : g_fields) {
        (void)f.length(nullptr, flow, slot);
        if (!f.validity(nullptr, flow, slot)) continue;
        uint8_t output[64];
        f.fill(nullptr, flow, slot, output, 0, 0);
        f.fill_txt(nullptr, flow, slot, output, 0, 0);
    }
}

}  // namespace mini_host

using mini_host::g_field_handles;
using mini_host::g_fields;

extern "C" {

int corvane_plugin_add(void *, void *, void *, void *, void *) {
    return 0;
}

void *corvane_getter_add(void *, uint32_t, uint32_t, const char *, uint32_t, uint32_t, int, void *,
                         corvane_validity_fn validity, corvane_length_fn length,
                         corvane_fill_fn fill, corvane_fill_fn fill_txt, int) {
    g_fields.push_back({validity, length, fill, fill_txt});
    return &g_field_handles[(g_fields.size() - 1) % 16];
}

void corvane_getter_set_default(void *, const void *value, uint32_t size) {
    mini_host::consume(value, size);
}

void corvane_hook_postprocess(void *, uint32_t, corvane_postprocess_fn) {}
void corvane_hook_callback(void *, uint32_t, corvane_callback_fn) {}
void corvane_hook_queue_filter(void *, uint32_t, corvane_filter_fn) {}
void corvane_hook_queue_update(void *, uint32_t, corvane_update_fn) {}
void corvane_hook_queue_release(void *, uint32_t, corvane_release_fn) {}

void *corvane_hook_update_remove(host_flow_record *flow, uint32_t, corvane_update_fn) {
    mini_host::g_removed.push_back(flow);
    return nullptr;
}

int record_universal_get_num(void *, const void *value, uint32_t size, uint32_t, uint32_t) {
    return mini_host::consume(value, size);
}

int record_universal_get_txt_num(void *, const void *value, uint32_t size, uint32_t, uint32_t) {
    return mini_host::consume(value, size);
}

int record_universal_get_txt_string(void *, const void *buffer, uint32_t size, uint32_t, uint32_t) {
    return mini_host::consume(buffer, size);
}

int record_universal_get_array(void *, const void *buffer, uint32_t size, uint32_t, uint32_t) {
    return mini_host::consume(buffer, size);
}

}  // extern "C"
