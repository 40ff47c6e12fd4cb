// Routing of the host functions that plug-ins call. A plug-in registers fields and hooks only
// while the host is inside one of its entry points (module init, init, queue init), and it
// removes its update hook only while the host is inside that hook; the host marks each such
// call with a scope on the calling thread, so that registrations land where they belong.
#pragma once

#include <string>
#include <vector>

#include "plugin.h"

namespace corvane_host {

struct RegistrationScope {
    enum class Phase { ModuleInit, Init, QueueInit };
    Phase phase = Phase::ModuleInit;
    void *host_handle = nullptr;
    std::vector<const corvane_plugin_desc *> *descriptors = nullptr;  // ModuleInit
    PluginInstance *plugin = nullptr;                                 // Init, QueueInit
    QueueHooks *queue = nullptr;                                      // QueueInit
    std::vector<std::string> *problems = nullptr;  // misuse noticed during the call
};

// The update hook call in progress on this thread.
struct UpdateCall {
    const host_flow_record *flow = nullptr;
    uint32_t queue_id = 0;
    corvane_update_fn hook = nullptr;
    bool removed = false;
};

// Installs a scope for the lifetime of the guard (scopes nest: a plug-in may call into
// another while it registers, and the previous scope comes back afterwards).
class ScopeGuard {
  public:
    explicit ScopeGuard(RegistrationScope *scope);
    ~ScopeGuard();
    ScopeGuard(const ScopeGuard &) = delete;
    ScopeGuard &operator=(const ScopeGuard &) = delete;

  private:
    RegistrationScope *previous_;
};

// The update hook call in progress on this thread (null outside one).
inline thread_local UpdateCall *t_update = nullptr;

// Inline: the queue installs one around every update hook call, once per packet.
class UpdateGuard {
  public:
    explicit UpdateGuard(UpdateCall *call) : previous_(t_update) { t_update = call; }
    ~UpdateGuard() { t_update = previous_; }
    UpdateGuard(const UpdateGuard &) = delete;
    UpdateGuard &operator=(const UpdateGuard &) = delete;

  private:
    UpdateCall *previous_;
};

// Calls of host functions that came outside any scope (a plug-in bug), process-wide.
unsigned long stray_host_calls();

}  // namespace corvane_host
