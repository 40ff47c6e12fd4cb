// A host for process plug-ins: loads plug-in libraries, checks their interface version,
// registers their descriptors, runs their init and shutdown, and keeps the fields and hooks
// that they register. Processing queues (queue.h) and export (exporter.h) build on it.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "plugin.h"

namespace corvane_host {

class Host {
  public:
    Host() = default;
    ~Host();
    Host(const Host &) = delete;
    Host &operator=(const Host &) = delete;

    // Loads a plug-in library with dlopen, checks that its corvane_api_version is the one this
    // host speaks and calls its corvane_module_init. Returns a message on failure.
    std::optional<std::string> load_library(const std::string &path);

    // Registers what a module entry point that is already in the process hands over.
    std::optional<std::string> add_module(corvane_module_init_fn entry, const std::string &origin,
                                          void *library = nullptr);

    // Calls the plug-in's init with its parameter string (null: no parameters). The plug-in
    // registers its fields and flow hooks here; it may also end the process on bad parameters.
    void init_plugin(size_t index, const char *params);

    // Calls shutdown for every initialised plug-in. Every queue must be gone by then.
    void shutdown();

    size_t plugin_count() const { return plugins_.size(); }
    PluginInstance &plugin(size_t index) { return *plugins_[index]; }
    const PluginInstance &plugin(size_t index) const { return *plugins_[index]; }

    // Every registered field, plug-in by plug-in in registration order.
    std::vector<const FieldDef *> fields() const;

    // Misuse of the interface noticed during registration calls (for warnings).
    const std::vector<std::string> &problems() const { return problems_; }
    std::vector<std::string> &problems() { return problems_; }

    // Queues announce themselves so that shutdown can insist they are gone.
    void queue_opened() { ++live_queues_; }
    void queue_closed() { --live_queues_; }

  private:
    std::vector<std::unique_ptr<PluginInstance>> plugins_;
    std::vector<std::string> problems_;
    int live_queues_ = 0;
    bool shut_down_ = false;
};

}  // namespace corvane_host
