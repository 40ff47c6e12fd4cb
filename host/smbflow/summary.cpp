#include "summary.h"

#include <fmt/format.h>

namespace smbflow {

namespace {

std::string rate(double count, double seconds) {
    if (seconds <= 0) return "-";
    const double r = count / seconds;
    if (r >= 1e6) return fmt::format("{:.2f} M", r / 1e6);
    if (r >= 1e3) return fmt::format("{:.1f} k", r / 1e3);
    return fmt::format("{:.0f} ", r);
}

}  // namespace

std::string format_summary(const RunSummary &s) {
    const auto &in = s.input;
    const auto &p = s.pipeline;
    std::string out;
    auto line = [&out](std::string_view key, const std::string &value) {
        out += fmt::format("  {:<26}{}\n", key, value);
    };
    out += "smbflow summary\n";
    line("packets read", std::to_string(in.frames));
    if (in.not_ip) line("  not IP (skipped)", std::to_string(in.not_ip));
    if (in.undecodable) line("  undecodable (skipped)", std::to_string(in.undecodable));
    if (in.capped) line("  capped at 65535 bytes", std::to_string(in.capped));
    // As tcpdump does, a live capture always says what the kernel saw and dropped.
    if (in.live) line("  received by the kernel", std::to_string(in.received));
    if (in.live || in.dropped) line("  dropped by the kernel", std::to_string(in.dropped));
    line("packets processed", std::to_string(p.queues.packets));
    line("flow records", std::to_string(p.flows_exported));
    if (s.plugin_loaded) {
        line("  with SMB fields", std::to_string(p.flows_with_plugin_record));
        line("packets on the SMB port", std::to_string(p.queues.smb_port_packets));
        line("packets with SMB records", std::to_string(p.queues.smb_record_packets));
        std::string results;
        if (!s.parse_counting)
            results = "not counted (the plug-in has no smb_parse_packet)";
        else if (p.parse.total() == 0)
            results = "none";
        else
            results = p.parse.describe();
        line("parse results by code", results);
    } else {
        line("plug-in", "none");
    }
    for (const auto &e : s.exports) {
        line("IPFIX to", e.url);
        line("  flow records sent", std::to_string(e.records));
        line("  messages sent", std::to_string(e.messages));
        line("  flow records dropped",
             std::to_string(e.dropped) + (e.dropped ? " (not written)" : ""));
        if (!e.failure.empty()) line("  write error", e.failure);
        if (e.stream) line("  connections", std::to_string(e.connections));
    }
    line("elapsed", fmt::format("{:.3f} s", s.elapsed_s));
    line("packets per second", rate(double(in.frames), s.elapsed_s) + "pps");
    return out;
}

void Progress::update(uint64_t frames, uint64_t flows) {
    if (!enabled_) return;
    const auto now = std::chrono::steady_clock::now();
    if (shown_ && now - last_ < std::chrono::milliseconds(250)) return;
    last_ = now;
    shown_ = true;
    const double secs = std::chrono::duration<double>(now - start_).count();
    fprintf(stderr, "\r\033[Kpackets %llu  flow records %llu  %spps  %.0f s",
            (unsigned long long)frames, (unsigned long long)flows,
            rate(double(frames), secs).c_str(), secs);
    fflush(stderr);
}

void Progress::clear() {
    if (enabled_ && shown_) fputs("\r\033[K", stderr);
    shown_ = false;
}

double Progress::elapsed_s() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

}  // namespace smbflow
