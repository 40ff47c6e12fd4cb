#include "version.h"

#include <fixbuf/version.h>
#include <glib.h>
#include <pcap/pcap.h>

#include <fmt/format.h>

#include "host.h"
#include "host_interface.h"

#ifndef SMBFLOW_VERSION
#define SMBFLOW_VERSION "unknown"
#endif

namespace smbflow {

std::string version_text(const std::string &plugin_path) {
    std::string out =
        fmt::format("smbflow {}\nplug-in API version {}\n", SMBFLOW_VERSION, CORVANE_API_VERSION);
    corvane_host::Host host;
    if (auto problem = host.load_library(plugin_path))
        out += fmt::format("plug-in: not loaded: {}\n", *problem);
    else if (host.plugin_count() > 0)
        out += fmt::format("plug-in: {} ({}), API version {}\n", host.plugin(0).desc->name,
                           plugin_path, host.plugin(0).desc->api_version);
    // The run-time libraries, as they report themselves where they can.
    out += fmt::format("{}\n", pcap_lib_version());
    out += fmt::format("libfixbuf {}.{}.{} (built against)\n", FIXBUF_VERSION_MAJOR,
                       FIXBUF_VERSION_MINOR, FIXBUF_VERSION_RELEASE);
    out +=
        fmt::format("GLib {}.{}.{}\n", glib_major_version, glib_minor_version, glib_micro_version);
    out += fmt::format("fmt {}.{}.{}\n", FMT_VERSION / 10000, FMT_VERSION / 100 % 100,
                       FMT_VERSION % 100);
    return out;
}

}  // namespace smbflow
