// The registration functions of the host interface: where plug-ins hand over their
// descriptor, fields, default values and hooks, and take their update hook off a flow.
#include <atomic>
#include <cstdio>

#include <fmt/format.h>

#include "registration.h"

#define HOST_API extern "C" __attribute__((visibility("default")))

namespace corvane_host {

namespace {

thread_local RegistrationScope *t_scope = nullptr;
std::atomic<unsigned long> g_stray_calls{0};

void stray(const char *function) {
    ++g_stray_calls;
    fprintf(stderr, "corvane host: %s called outside a plug-in entry point; ignored\n", function);
}

void note(const RegistrationScope *scope, std::string problem) {
    if (scope->problems) scope->problems->push_back(std::move(problem));
}

// The scope for a registration that needs a plug-in, or null after reporting the misuse.
RegistrationScope *plugin_scope(const char *function, uint32_t plugin_id) {
    RegistrationScope *scope = t_scope;
    if (!scope || !scope->plugin) {
        stray(function);
        return nullptr;
    }
    if (plugin_id != scope->plugin->id)
        note(scope, fmt::format("{}: plug-in id {} given, {} expected", function, plugin_id,
                                scope->plugin->id));
    return scope;
}

RegistrationScope *queue_scope(const char *function, uint32_t plugin_id) {
    RegistrationScope *scope = plugin_scope(function, plugin_id);
    if (scope && (scope->phase != RegistrationScope::Phase::QueueInit || !scope->queue)) {
        note(scope, fmt::format("{} called outside queue initialisation; ignored", function));
        return nullptr;
    }
    return scope;
}

// Registers one of a queue's hooks with its context, from inside that queue's init_queue.
template <typename Hook>
void set_queue_hook(const char *function, uint32_t plugin_id, void *ctx, Hook hook,
                    void *QueueHooks::*ctx_member, Hook QueueHooks::*hook_member) {
    if (RegistrationScope *scope = queue_scope(function, plugin_id)) {
        scope->queue->*ctx_member = ctx;
        scope->queue->*hook_member = hook;
    }
}

}  // namespace

ScopeGuard::ScopeGuard(RegistrationScope *scope) : previous_(t_scope) {
    t_scope = scope;
}
ScopeGuard::~ScopeGuard() {
    t_scope = previous_;
}

unsigned long stray_host_calls() {
    return g_stray_calls.load();
}

}  // namespace corvane_host

using namespace corvane_host;

HOST_API int corvane_plugin_add(void *descriptor, void *, void *, void *, void *) {
    RegistrationScope *scope = t_scope;
    if (!scope || scope->phase != RegistrationScope::Phase::ModuleInit || !scope->descriptors) {
        stray("corvane_plugin_add");
        return -1;
    }
    if (!descriptor) {
        note(scope, "corvane_plugin_add: null descriptor");
        return -1;
    }
    scope->descriptors->push_back(static_cast<const corvane_plugin_desc *>(descriptor));
    return 0;
}

HOST_API void *corvane_getter_add(void *host, uint32_t plugin_id, uint32_t, const char *name,
                                  uint32_t type, uint32_t size, int, void *ctx,
                                  corvane_validity_fn validity, corvane_length_fn length,
                                  corvane_fill_fn fill, corvane_fill_fn fill_txt, int) {
    RegistrationScope *scope = plugin_scope("corvane_getter_add", plugin_id);
    if (!scope) return nullptr;
    if (scope->phase != RegistrationScope::Phase::Init)
        note(scope, "corvane_getter_add called outside init");
    if (host != scope->host_handle) note(scope, "corvane_getter_add: foreign host handle");
    auto field = std::make_unique<FieldDef>();
    field->plugin_index = scope->plugin->index;
    field->name = name ? name : "";
    field->type = type;
    field->size = size;
    field->ctx = ctx;
    field->validity = validity;
    field->length = length;
    field->fill = fill;
    field->fill_txt = fill_txt;
    FieldDef *handle = field.get();
    scope->plugin->fields.push_back(std::move(field));
    return handle;
}

HOST_API void corvane_getter_set_default(void *field, const void *value, uint32_t size) {
    RegistrationScope *scope = t_scope;
    if (!scope || !scope->plugin) {
        stray("corvane_getter_set_default");
        return;
    }
    // Only handles of this plug-in's own fields are honoured.
    for (auto &own : scope->plugin->fields) {
        if (own.get() != field) continue;
        own->has_default = value != nullptr;
        own->default_value.clear();
        if (value) {
            const auto *bytes = static_cast<const uint8_t *>(value);
            own->default_value.assign(bytes, bytes + size);
        }
        return;
    }
    note(scope, "corvane_getter_set_default: unknown field handle");
}

HOST_API void corvane_hook_postprocess(void *ctx, uint32_t plugin_id, corvane_postprocess_fn hook) {
    if (RegistrationScope *scope = plugin_scope("corvane_hook_postprocess", plugin_id)) {
        scope->plugin->postprocess_ctx = ctx;
        scope->plugin->postprocess = hook;
    }
}

HOST_API void corvane_hook_callback(void *ctx, uint32_t plugin_id, corvane_callback_fn hook) {
    if (RegistrationScope *scope = plugin_scope("corvane_hook_callback", plugin_id)) {
        scope->plugin->callback_ctx = ctx;
        scope->plugin->callback = hook;
    }
}

HOST_API void corvane_hook_queue_filter(void *queue_ctx, uint32_t plugin_id,
                                        corvane_filter_fn hook) {
    set_queue_hook("corvane_hook_queue_filter", plugin_id, queue_ctx, hook, &QueueHooks::filter_ctx,
                   &QueueHooks::filter);
}

HOST_API void corvane_hook_queue_update(void *queue_ctx, uint32_t plugin_id,
                                        corvane_update_fn hook) {
    set_queue_hook("corvane_hook_queue_update", plugin_id, queue_ctx, hook, &QueueHooks::update_ctx,
                   &QueueHooks::update);
}

HOST_API void corvane_hook_queue_release(void *queue_ctx, uint32_t plugin_id,
                                         corvane_release_fn hook) {
    set_queue_hook("corvane_hook_queue_release", plugin_id, queue_ctx, hook,
                   &QueueHooks::release_ctx, &QueueHooks::release);
}

// Takes the calling update hook off this flow. The host reads no result of the update hook,
// so what this returns (and the hook passes on) is only null.
HOST_API void *corvane_hook_update_remove(host_flow_record *flow, uint32_t queue_id,
                                          corvane_update_fn hook) {
    UpdateCall *call = t_update;
    if (!call) {
        stray("corvane_hook_update_remove");
        return nullptr;
    }
    if (flow == call->flow && queue_id == call->queue_id && hook == call->hook) {
        call->removed = true;
    } else {
        fprintf(stderr,
                "corvane host: corvane_hook_update_remove does not match the update call in "
                "progress; ignored\n");
    }
    return nullptr;
}
