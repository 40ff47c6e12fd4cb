// Decoding of captured frames into the host's packet descriptor: link layer (Ethernet with
// VLAN tags, Linux cooked capture v1 and v2, raw IP, BSD loopback), IPv4 and IPv6 (extension
// headers skipped) and the TCP/UDP/SCTP ports. The descriptor's data starts at the IP header
// and ends where the IP datagram ends, so link-layer padding and trailers are never payload.
#pragma once

#include <cstddef>
#include <cstdint>

#include "host_interface.h"

namespace corvane_host {

// Link-layer types by their libpcap DLT values.
enum LinkType : int {
    kLinkNull = 0,  // BSD loopback, address family in host byte order
    kLinkEthernet = 1,
    kLinkRaw = 12,     // raw IP (LINKTYPE_RAW)
    kLinkRawAlt = 14,  // raw IP as some systems number it
    kLinkLoop = 108,   // BSD loopback, address family in network byte order
    kLinkLinuxSll = 113,
    kLinkIpv4 = 228,
    kLinkIpv6 = 229,
    kLinkLinuxSll2 = 276,
};

bool link_type_supported(int link_type);

enum class DecodeStatus {
    Ok,
    NotIp,      // a frame of another network protocol (ARP, LLDP, ...)
    Truncated,  // the captured bytes end inside the link or IP header
    Malformed,  // an impossible header field
};

struct DecodedPacket {
    host_packet pkt{};
    uint64_t ip_bytes = 0;          // the datagram's length by its IP header: what the flow counts
    uint16_t transport_offset = 0;  // of the ports' header from pkt.data; 0 when it has none
    bool capped = false;            // longer than 65535 bytes: the descriptor's length was capped
};

// Decodes one frame. On Ok, pkt.data points into `frame`.
DecodeStatus decode_frame(int link_type, const uint8_t *frame, size_t caplen, DecodedPacket &out);

}  // namespace corvane_host
