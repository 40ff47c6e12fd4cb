#include "orientation.h"

#include <cerrno>
#include <cstdlib>
#include <string>
#include <utility>

namespace smbflow {

namespace {

constexpr uint16_t kDefaultSmbPort = 445;
constexpr uint8_t kTcp = 6;

}  // namespace

uint16_t server_port_of(const std::optional<std::string> &params) {
    long port = -1;
    if (params) {
        const std::string &s = *params;
        for (size_t at = 0; at <= s.size();) {
            const size_t comma = std::min(s.find(',', at), s.size());
            const std::string item = s.substr(at, comma - at);
            at = comma + 1;
            const size_t eq = item.find('=');
            if (eq == std::string::npos || item.substr(0, eq) != "port") continue;
            const std::string value = item.substr(eq + 1);
            char *end = nullptr;
            errno = 0;
            const long v = strtol(value.c_str(), &end, 0);
            if (errno || end == value.c_str() || v > 65535) continue;
            if (v >= 0) port = v;
        }
    }
    return port > 0 ? static_cast<uint16_t>(port) : kDefaultSmbPort;
}

bool server_first(const host_flow_record &rec, uint16_t server_port) {
    return rec.protocol == kTcp && rec.src_port == server_port && rec.dst_port != server_port;
}

void turn_around(host_flow_record &rec) {
    std::swap(rec.src_addr, rec.dst_addr);
    std::swap(rec.src_port, rec.dst_port);
    std::swap(rec.dir_counters[0], rec.dir_counters[1]);
    std::swap(rec.tcp_flags[0], rec.tcp_flags[1]);
}

}  // namespace smbflow
