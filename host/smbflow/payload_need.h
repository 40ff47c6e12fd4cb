// What part of a packet the queues need when the reading thread must copy it (live capture,
// standard input, FIFOs): its headers always; its transport payload only where a plug-in may
// look at it. The SMB plug-in parses TCP payload on its port alone (on every TCP port when its
// port filter is off), so the payload of other packets is never read and need not be copied.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "host_interface.h"

namespace smbflow {

class PayloadNeed {
  public:
    static PayloadNeed all() { return PayloadNeed(Kind::All, 0); }
    static PayloadNeed headers_only() { return PayloadNeed(Kind::Headers, 0); }
    // TCP payload on `port` (every TCP port when 0).
    static PayloadNeed tcp_port(uint16_t port) { return PayloadNeed(Kind::TcpPort, port); }

    // For a run: no plug-in needs no payload; the SMB plug-in alone needs its port's; any
    // other plug-in, or parameters whose port cannot be read with certainty, need it all.
    static PayloadNeed for_run(bool no_plugin, size_t plugins, std::string_view first_plugin_name,
                               const std::optional<std::string> &params);

    // The bytes of pkt.data to keep: the whole datagram, or its headers (up to the payload).
    uint16_t bytes(const host_packet &pkt) const {
        if (kind_ == Kind::All) return pkt.length;
        const uint16_t headers = pkt.payload_offset < pkt.length ? pkt.payload_offset : pkt.length;
        if (kind_ == Kind::TcpPort && pkt.protocol == IPPROTO_TCP &&
            (port_ == 0 || pkt.src_port == port_ || pkt.dst_port == port_))
            return pkt.length;
        return headers;
    }

    bool operator==(const PayloadNeed &) const = default;

  private:
    enum class Kind { All, Headers, TcpPort };
    PayloadNeed(Kind kind, uint16_t port) : kind_(kind), port_(port) {}
    Kind kind_;
    uint16_t port_;
};

// The port that the SMB plug-in reads from its parameter text, read the way its parameter
// parser does ("key=value" items split at ',' and '=', empty pieces dropped, values by strtol
// with base 0, the last item wins, -1 for "not given"): 445 when not given. Nothing when the
// text is a file name or the plug-in would refuse it; the caller then keeps every payload.
std::optional<uint16_t> smb_plugin_port(const std::optional<std::string> &params);

}  // namespace smbflow
