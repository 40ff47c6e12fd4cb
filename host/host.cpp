#include "host.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>

#include <fmt/format.h>

#include "registration.h"

namespace corvane_host {

Host::~Host() {
    shutdown();
}

std::optional<std::string> Host::load_library(const std::string &path) {
    void *library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!library) return fmt::format("cannot load plug-in {}: {}", path, dlerror());
    const auto *version = static_cast<const uint32_t *>(dlsym(library, "corvane_api_version"));
    auto entry = reinterpret_cast<corvane_module_init_fn>(dlsym(library, "corvane_module_init"));
    if (!version || !entry) {
        dlclose(library);
        return fmt::format("{} is not a plug-in: it lacks {}", path,
                           version ? "corvane_module_init" : "corvane_api_version");
    }
    if (*version != CORVANE_API_VERSION) {
        const uint32_t built_for = *version;
        dlclose(library);
        return fmt::format("{} was built for plug-in API version {}; this host speaks version {}",
                           path, built_for, CORVANE_API_VERSION);
    }
    // The library stays loaded for the life of the process: plug-ins may leave threads or
    // atexit handlers behind.
    return add_module(entry, path, library);
}

std::optional<std::string> Host::add_module(corvane_module_init_fn entry, const std::string &origin,
                                            void *library) {
    std::vector<const corvane_plugin_desc *> descriptors;
    RegistrationScope scope;
    scope.phase = RegistrationScope::Phase::ModuleInit;
    scope.host_handle = this;
    scope.descriptors = &descriptors;
    scope.problems = &problems_;
    int rc;
    {
        ScopeGuard guard(&scope);
        rc = entry(this, nullptr, nullptr, nullptr);
    }
    if (rc != 0) return fmt::format("{}: corvane_module_init failed ({})", origin, rc);
    if (descriptors.empty())
        return fmt::format("{}: corvane_module_init registered no plug-in", origin);
    for (const corvane_plugin_desc *desc : descriptors) {
        if (desc->api_version != CORVANE_API_VERSION)
            return fmt::format(
                "{}: plug-in {} declares API version {}; this host speaks version {}", origin,
                desc->name ? desc->name : "?", desc->api_version, CORVANE_API_VERSION);
        if (!desc->init || !desc->init_queue || !desc->shutdown_queue || !desc->shutdown)
            return fmt::format("{}: plug-in {} lacks a lifecycle hook", origin,
                               desc->name ? desc->name : "?");
        if (plugins_.size() == kMaxPlugins)
            return fmt::format("{}: more than {} plug-ins", origin, kMaxPlugins);
        auto plugin = std::make_unique<PluginInstance>();
        plugin->index = plugins_.size();
        plugin->id = static_cast<uint32_t>(plugin->index);
        plugin->origin = origin;
        plugin->library = library;
        plugin->desc = desc;
        plugins_.push_back(std::move(plugin));
    }
    return std::nullopt;
}

void Host::init_plugin(size_t index, const char *params) {
    PluginInstance &p = *plugins_[index];
    RegistrationScope scope;
    scope.phase = RegistrationScope::Phase::Init;
    scope.host_handle = this;
    scope.plugin = &p;
    scope.problems = &problems_;
    ScopeGuard guard(&scope);
    p.ctx = p.desc->init(p.id, params, this, 0);
    p.initialised = true;
}

void Host::shutdown() {
    if (shut_down_) return;
    shut_down_ = true;
    if (live_queues_ != 0) {
        fprintf(stderr, "corvane host: shutdown with %d queues still open\n", live_queues_);
        abort();
    }
    for (auto &p : plugins_) {
        if (!p->initialised) continue;
        p->desc->shutdown(p->ctx);
        p->initialised = false;
        p->ctx = nullptr;
    }
}

std::vector<const FieldDef *> Host::fields() const {
    std::vector<const FieldDef *> all;
    for (const auto &p : plugins_)
        for (const auto &f : p->fields)
            all.push_back(f.get());
    return all;
}

}  // namespace corvane_host
