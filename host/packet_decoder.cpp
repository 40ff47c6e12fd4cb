#include "packet_decoder.h"

#include <algorithm>
#include <cstring>

namespace corvane_host {

namespace {

constexpr uint16_t kEtherIpv4 = 0x0800;
constexpr uint16_t kEtherIpv6 = 0x86dd;
constexpr uint16_t kEtherVlan = 0x8100;
constexpr uint16_t kEtherQinQ = 0x88a8;
constexpr uint16_t kEtherQinQOld = 0x9100;
constexpr size_t kMaxDescriptorLength = 65535;

uint16_t be16(const uint8_t *p) {
    return static_cast<uint16_t>(p[0] << 8 | p[1]);
}
uint32_t be32(const uint8_t *p) {
    return uint32_t{p[0]} << 24 | p[1] << 16 | p[2] << 8 | p[3];
}

bool is_vlan(uint16_t type) {
    return type == kEtherVlan || type == kEtherQinQ || type == kEtherQinQOld;
}

// Skips VLAN tags behind an ethertype at `type_at`; returns the offset of the network header
// and its ethertype, or 0 when the tags run past the captured bytes.
[[gnu::always_inline]] inline size_t skip_vlans(const uint8_t *frame, size_t caplen, size_t type_at,
                                                uint16_t &type) {
    type = be16(frame + type_at);
    size_t off = type_at + 2;
    while (is_vlan(type)) {
        if (off + 4 > caplen) return 0;
        type = be16(frame + off + 2);
        off += 4;
    }
    return off;
}

enum class Net { Ipv4, Ipv6, Other, Truncated };

Net net_of_ethertype(uint16_t type) {
    if (type == kEtherIpv4) return Net::Ipv4;
    if (type == kEtherIpv6) return Net::Ipv6;
    return Net::Other;
}

Net net_of_version(const uint8_t *p, size_t avail) {
    if (avail < 1) return Net::Truncated;
    if ((p[0] >> 4) == 4) return Net::Ipv4;
    if ((p[0] >> 4) == 6) return Net::Ipv6;
    return Net::Other;
}

// BSD loopback address families for IPv6 differ between systems.
Net net_of_family(uint32_t family) {
    if (family == 2) return Net::Ipv4;
    if (family == 10 || family == 24 || family == 28 || family == 30) return Net::Ipv6;
    return Net::Other;
}

// Finds the network header: its offset and kind.
Net locate_network(int link_type, const uint8_t *frame, size_t caplen, size_t &off) {
    uint16_t type;
    switch (link_type) {
        case kLinkEthernet:
            if (caplen < 14) return Net::Truncated;
            off = skip_vlans(frame, caplen, 12, type);
            if (off == 0) return Net::Truncated;
            return net_of_ethertype(type);
        case kLinkLinuxSll:
            if (caplen < 16) return Net::Truncated;
            off = skip_vlans(frame, caplen, 14, type);
            if (off == 0) return Net::Truncated;
            return net_of_ethertype(type);
        case kLinkLinuxSll2:
            if (caplen < 20) return Net::Truncated;
            off = 20;
            return net_of_ethertype(be16(frame));
        case kLinkNull: {
            if (caplen < 4) return Net::Truncated;
            off = 4;
            uint32_t family;
            memcpy(&family, frame, 4);  // written in the byte order of the capturing machine
            if (family > 0xffff) family = __builtin_bswap32(family);
            return net_of_family(family);
        }
        case kLinkLoop:
            if (caplen < 4) return Net::Truncated;
            off = 4;
            return net_of_family(be32(frame));
        case kLinkRaw:
        case kLinkRawAlt:
            off = 0;
            return net_of_version(frame, caplen);
        case kLinkIpv4:
            off = 0;
            return Net::Ipv4;
        case kLinkIpv6:
            off = 0;
            return Net::Ipv6;
        default:
            return Net::Other;
    }
}

bool has_ports(uint8_t protocol) {
    return protocol == 6 || protocol == 17 || protocol == 132 || protocol == 136 || protocol == 33;
}

// Reads the transport header at `l4` within the `len` bytes of the datagram at `ip`.
[[gnu::always_inline]] inline void decode_transport(const uint8_t *ip, size_t len, size_t l4,
                                                    DecodedPacket &out) {
    host_packet &pkt = out.pkt;
    pkt.payload_offset = static_cast<uint16_t>(std::min(l4, len));
    if (!has_ports(pkt.protocol) || l4 + 4 > len) {
        if (has_ports(pkt.protocol)) pkt.payload_offset = static_cast<uint16_t>(len);
        return;
    }
    out.transport_offset = static_cast<uint16_t>(l4);
    pkt.src_port = be16(ip + l4);
    pkt.dst_port = be16(ip + l4 + 2);
    size_t header = 0;
    if (pkt.protocol == 6) {
        if (l4 + 20 <= len) {
            pkt.tcp_flags = ip[l4 + 13];
            header = (ip[l4 + 12] >> 4) * 4u;
            if (header < 20) header = len;  // a bogus data offset: no payload
        } else {
            header = len;
        }
    } else if (pkt.protocol == 17 || pkt.protocol == 136) {
        header = 8;
    } else if (pkt.protocol == 132) {
        header = 12;
    } else {
        header = 12;  // DCCP: generic header without extended sequence numbers
    }
    pkt.payload_offset = static_cast<uint16_t>(std::min(l4 + header, len));
}

// The descriptor covers the datagram as far as it was captured, its IP header claiming
// `total` bytes; the flow counts `total`. Returns the descriptor's length.
[[gnu::always_inline]] inline size_t set_datagram(DecodedPacket &out, const uint8_t *ip,
                                                  size_t total, size_t avail) {
    out.ip_bytes = total;
    size_t len = std::min(total, avail);
    if (len > kMaxDescriptorLength) {
        len = kMaxDescriptorLength;
        out.capped = true;
    }
    out.pkt.data = ip;
    out.pkt.length = static_cast<uint16_t>(len);
    return len;
}

DecodeStatus decode_ipv4(const uint8_t *ip, size_t avail, DecodedPacket &out) {
    host_packet &pkt = out.pkt;
    if (avail < 20) return DecodeStatus::Truncated;
    const size_t ihl = (ip[0] & 0x0f) * 4u;
    if ((ip[0] >> 4) != 4 || ihl < 20) return DecodeStatus::Malformed;
    if (ihl > avail) return DecodeStatus::Truncated;
    size_t total = be16(ip + 2);
    if (total == 0) total = avail;  // segmentation offload: the length field is left empty
    if (total < ihl) return DecodeStatus::Malformed;
    pkt.ip_version = 4;
    pkt.protocol = ip[9];
    pkt.ipv4_aux16 = be16(ip + 6) & 0x3fff;  // MF flag and fragment offset
    memcpy(&pkt.src_addr.v4, ip + 12, 4);
    memcpy(&pkt.dst_addr.v4, ip + 16, 4);
    const size_t len = set_datagram(out, ip, total, avail);
    const bool later_fragment = (pkt.ipv4_aux16 & 0x1fff) != 0;
    if (later_fragment)
        pkt.payload_offset = static_cast<uint16_t>(std::min(ihl, len));
    else
        decode_transport(ip, len, ihl, out);
    return DecodeStatus::Ok;
}

bool is_extension_header(uint8_t next) {
    return next == 0 || next == 43 || next == 60 || next == 51 || next == 135 || next == 139 ||
           next == 140;
}

DecodeStatus decode_ipv6(const uint8_t *ip, size_t avail, DecodedPacket &out) {
    host_packet &pkt = out.pkt;
    if (avail < 40) return DecodeStatus::Truncated;
    if ((ip[0] >> 4) != 6) return DecodeStatus::Malformed;
    const size_t payload = be16(ip + 4);
    size_t total = payload ? 40 + payload : avail;  // 0: jumbogram or offload
    pkt.ip_version = 6;
    memcpy(pkt.src_addr.v6, ip + 8, 16);
    memcpy(pkt.dst_addr.v6, ip + 24, 16);
    const size_t len = set_datagram(out, ip, total, avail);

    uint8_t next = ip[6];
    size_t off = 40;
    while (is_extension_header(next)) {
        if (off + 8 > len) {
            pkt.protocol = next;
            pkt.payload_offset = static_cast<uint16_t>(len);
            return DecodeStatus::Ok;
        }
        const size_t ext = next == 51 ? (ip[off + 1] + 2u) * 4u : (ip[off + 1] + 1u) * 8u;
        next = ip[off];
        off += ext;
    }
    if (next == 44) {
        // Fragments are not reassembled: they stay under the fragment header's number, so
        // no plug-in mistakes a fragment for a whole segment.
        pkt.protocol = 44;
        pkt.payload_offset = static_cast<uint16_t>(std::min(off + 8, len));
        return DecodeStatus::Ok;
    }
    pkt.protocol = next;
    if (off > len) {
        pkt.payload_offset = static_cast<uint16_t>(len);
        return DecodeStatus::Ok;
    }
    decode_transport(ip, len, off, out);
    return DecodeStatus::Ok;
}

}  // namespace

bool link_type_supported(int link_type) {
    switch (link_type) {
        case kLinkNull:
        case kLinkEthernet:
        case kLinkRaw:
        case kLinkRawAlt:
        case kLinkLoop:
        case kLinkLinuxSll:
        case kLinkIpv4:
        case kLinkIpv6:
        case kLinkLinuxSll2:
            return true;
        default:
            return false;
    }
}

namespace {

// Zeroes the descriptor in two halves: one memset of the whole compiles to a string
// instruction whose start-up costs more than the rest of a packet's decoding.
static_assert(sizeof(DecodedPacket) == 128);
void clear(DecodedPacket &out) {
    auto *p = reinterpret_cast<unsigned char *>(&out);
    memset(p, 0, 64);
    memset(p + 64, 0, 64);
}

// Most frames: Ethernet without VLAN tags, IPv4 without options and not a later fragment, a
// TCP or UDP header wholly inside the datagram, a length field that is set. Decodes those
// as the general path below would (false, with `out` untouched, for any other frame) in a
// fraction of its branches.
[[gnu::always_inline]] inline bool decode_common(int link_type, const uint8_t *frame, size_t caplen,
                                                 DecodedPacket &out) {
    constexpr size_t kIp = 14;  // the IPv4 header's offset
    constexpr size_t kL4 = 20;  // the transport header's offset in the datagram
    if (link_type != kLinkEthernet || caplen < kIp + kL4 + 20 || frame[kIp] != 0x45 ||
        be16(frame + 12) != kEtherIpv4)
        return false;
    const uint8_t *ip = frame + kIp;
    const uint8_t protocol = ip[9];
    const uint16_t fragment = be16(ip + 6) & 0x3fff;
    const size_t total = be16(ip + 2);
    const size_t len = std::min(total, caplen - kIp);  // total < 65536: never capped
    const size_t header = protocol == 6 ? 20 : 8;
    if ((protocol != 6 && protocol != 17) || (fragment & 0x1fff) || len < kL4 + header)
        return false;
    clear(out);
    host_packet &pkt = out.pkt;
    out.ip_bytes = total;
    out.transport_offset = kL4;
    pkt.data = ip;
    pkt.length = static_cast<uint16_t>(len);
    pkt.ip_version = 4;
    pkt.protocol = protocol;
    pkt.ipv4_aux16 = fragment;
    memcpy(&pkt.src_addr.v4, ip + 12, 4);
    memcpy(&pkt.dst_addr.v4, ip + 16, 4);
    pkt.src_port = be16(ip + kL4);
    pkt.dst_port = be16(ip + kL4 + 2);
    size_t payload = kL4 + 8;
    if (protocol == 6) {
        pkt.tcp_flags = ip[kL4 + 13];
        const size_t offset = (ip[kL4 + 12] >> 4) * 4u;
        payload = offset < 20 ? len : kL4 + offset;  // a bogus data offset: no payload
    }
    pkt.payload_offset = static_cast<uint16_t>(std::min(payload, len));
    return true;
}

}  // namespace

DecodeStatus decode_frame(int link_type, const uint8_t *frame, size_t caplen, DecodedPacket &out) {
    if (decode_common(link_type, frame, caplen, out)) return DecodeStatus::Ok;
    clear(out);
    size_t off = 0;
    switch (locate_network(link_type, frame, caplen, off)) {
        case Net::Truncated:
            return DecodeStatus::Truncated;
        case Net::Other:
            return DecodeStatus::NotIp;
        case Net::Ipv4:
            return decode_ipv4(frame + off, caplen - off, out);
        case Net::Ipv6:
            return decode_ipv6(frame + off, caplen - off, out);
    }
    return DecodeStatus::NotIp;
}

}  // namespace corvane_host
