// Command-line options of smbflow and its exit statuses.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "writers.h"

namespace smbflow {

enum ExitStatus : int {
    kExitOk = 0,
    kExitInput = 1,   // a capture file or interface could not be read
    kExitUsage = 2,   // bad options or filter expression
    kExitPlugin = 3,  // the plug-in could not be loaded or speaks another API version
    kExitOutput = 4,  // the output could not be written
};

struct Options {
    std::vector<std::string> files;
    std::string interface;
    std::string filter;
    uint64_t count = 0;  // 0: no limit
    std::string output;  // empty: standard output
    std::optional<Format> format;
    std::string fields;  // output columns in this order, comma-separated; empty: all
    unsigned queues = 1;
    std::optional<std::string> params;
    std::string plugin;  // empty: the default next to the program
    bool no_plugin = false;
    double active_timeout_s = 300;
    double inactive_timeout_s = 30;
    int snaplen = 262144;
    // Running as a service.
    unsigned buffer_size_mb = 0;  // kernel capture buffer; 0: libpcap's default
    std::string pid_file;
    std::string user;             // drop to this user once the capture is open
    double stats_interval_s = 0;  // 0: no periodic statistics
    uint64_t rotate_s = 0;        // 0: one output file
    // IPFIX export.
    std::vector<std::string> ipfix;  // destinations, as URLs
    uint32_t ipfix_pen = 32473;
    uint32_t observation_domain = 1;
    double template_refresh_s = 30;
    uint64_t template_refresh_messages = 100;
    bool ipfix_uniflow = false;
    double ipfix_connect_timeout_s = 5;
    bool no_progress = false;
    bool quiet = false;
};

// Parses the command line. Returns an exit status when the program should stop right away
// (help shown, or a usage error reported).
// `plugin_help`, when not empty, is shown under --help as the loaded plug-in's parameters.
std::optional<int> parse_options(int argc, char **argv, Options &opts,
                                 const std::string &plugin_help = {});

}  // namespace smbflow
