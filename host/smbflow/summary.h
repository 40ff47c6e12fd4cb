// What smbflow tells on standard error: a progress line while it runs (on a terminal) and a
// summary at the end.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "pipeline.h"

namespace smbflow {

struct InputStats {
    uint64_t frames = 0;       // frames read from the capture
    uint64_t not_ip = 0;       // frames of other network protocols
    uint64_t undecodable = 0;  // frames cut inside their headers, or with impossible headers
    uint64_t capped = 0;       // datagrams longer than 65535 bytes, handed on capped
    uint64_t dropped = 0;      // dropped by the kernel (live capture)
    uint64_t received = 0;     // received by the kernel's filter (live capture)
    bool live = false;
};

struct RunSummary {
    InputStats input;
    PipelineStats pipeline;
    bool plugin_loaded = false;
    bool parse_counting = false;  // the parser's results could be counted
    double elapsed_s = 0;
    // One per IPFIX destination: its URL and what went to it.
    struct Export {
        std::string url;
        uint64_t records = 0, messages = 0, dropped = 0, connections = 0;
        bool stream = false;  // TCP: connections are counted
        std::string failure;  // a file's write error
    };
    std::vector<Export> exports;
};

std::string format_summary(const RunSummary &s);

class Progress {
  public:
    explicit Progress(bool enabled) : enabled_(enabled), start_(std::chrono::steady_clock::now()) {}
    // Redraws the line at most a few times per second.
    void update(uint64_t frames, uint64_t flows);
    void clear();
    double elapsed_s() const;

  private:
    bool enabled_;
    bool shown_ = false;
    std::chrono::steady_clock::time_point start_;
    std::chrono::steady_clock::time_point last_{};
};

}  // namespace smbflow
