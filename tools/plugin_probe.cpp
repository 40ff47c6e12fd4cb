// Loads a plug-in library, runs its entry point against a stub host and prints the
// descriptor it registers: a quick check that a build is loadable and speaks API 8.
#include <dlfcn.h>
#include <stdio.h>
#include <stdint.h>

#include "host_interface.h"

static const corvane_plugin_desc *registered;

extern "C" __attribute__((visibility("default"))) int corvane_plugin_add(void *descriptor, void *,
                                                                         void *, void *, void *) {
    registered = static_cast<const corvane_plugin_desc *>(descriptor);
    return 0;
}

int main(int argc, char **argv) {
    const char *path = argc > 1 ? argv[1] : "./plugin-process-smb.so";
    void *lib = dlopen(path, RTLD_LAZY | RTLD_LOCAL);
    if (!lib) {
        fprintf(stderr, "cannot load %s: %s\n", path, dlerror());
        return 1;
    }
    auto *version = static_cast<const uint32_t *>(dlsym(lib, "corvane_api_version"));
    auto init = reinterpret_cast<corvane_module_init_fn>(dlsym(lib, "corvane_module_init"));
    if (!version || !init) {
        fprintf(stderr, "%s is not a plug-in: %s\n", path, dlerror());
        return 1;
    }
    if (*version != CORVANE_API_VERSION) {
        fprintf(stderr, "%s speaks API %u, this host %u\n", path, *version, CORVANE_API_VERSION);
        return 1;
    }
    int rc = init(nullptr, nullptr, nullptr, nullptr);
    if (rc != 0 || !registered) {
        fprintf(stderr, "%s: corvane_module_init failed (%d)\n", path, rc);
        return 1;
    }
    printf(
        "library:     %s\napi version: %u\nname:        %s\ntype:        %lu\nvariant:     %lu\n"
        "help:\n%s\n",
        path, *version, registered->name, (unsigned long)registered->type,
        (unsigned long)registered->variant, registered->help);
    return 0;
}
