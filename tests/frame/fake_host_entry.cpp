// The fake host's plug-in registry, in an object of its own so that a test which brings its
// own corvane_plugin_add can still link the rest of the fake host.
#include "fake_host.h"

extern "C" int corvane_plugin_add(void *, void *, void *, void *, void *) {
    fake_host::note_call("corvane_plugin_add");
    return 0;
}
