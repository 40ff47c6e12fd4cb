#include "tcp_capture.h"

#include <pcap/pcap.h>
#include <string.h>

namespace capture {

namespace {

constexpr uint16_t kEtherIpv4 = 0x0800;
constexpr uint16_t kEtherIpv6 = 0x86dd;
constexpr uint16_t kEtherVlan = 0x8100;
constexpr uint16_t kEtherQinQ = 0x88a8;
constexpr uint8_t kProtoTcp = 6;

uint16_t be16(const uint8_t *p) {
    return static_cast<uint16_t>(p[0] << 8 | p[1]);
}

// Offset of the IP header and its EtherType for a link type, or false.
bool link_header(std::span<const uint8_t> f, int link_type, size_t &offset, uint16_t &ether) {
    switch (link_type) {
        case DLT_EN10MB: {
            if (f.size() < 14) return false;
            offset = 14;
            ether = be16(&f[12]);
            while ((ether == kEtherVlan || ether == kEtherQinQ) && f.size() >= offset + 4) {
                ether = be16(&f[offset + 2]);
                offset += 4;
            }
            return true;
        }
        case DLT_LINUX_SLL:
            if (f.size() < 16) return false;
            offset = 16;
            ether = be16(&f[14]);
            return true;
        case DLT_RAW:
        case 101:  // LINKTYPE_RAW, as files store raw IP
            if (f.empty()) return false;
            offset = 0;
            ether = (f[0] >> 4) == 6 ? kEtherIpv6 : kEtherIpv4;
            return true;
        default:
            return false;
    }
}

}  // namespace

bool decode_tcp(std::span<const uint8_t> f, int link_type, tcp_view &out) {
    out = tcp_view{};
    size_t ip = 0;
    uint16_t ether = 0;
    if (!link_header(f, link_type, ip, ether)) return false;

    size_t tcp = 0, ip_end = 0;
    if (ether == kEtherIpv4) {
        if (f.size() < ip + 20 || (f[ip] >> 4) != 4) return false;
        const size_t ihl = (f[ip] & 0x0f) * 4u;
        if (ihl < 20 || f[ip + 9] != kProtoTcp) return false;
        if (be16(&f[ip + 6]) & 0x1fff) return false;  // not the first fragment
        out.ip_version = 4;
        memcpy(out.src.data(), &f[ip + 12], 4);
        memcpy(out.dst.data(), &f[ip + 16], 4);
        tcp = ip + ihl;
        ip_end = ip + be16(&f[ip + 2]);
    } else if (ether == kEtherIpv6) {
        if (f.size() < ip + 40 || (f[ip] >> 4) != 6) return false;
        out.ip_version = 6;
        memcpy(out.src.data(), &f[ip + 8], 16);
        memcpy(out.dst.data(), &f[ip + 24], 16);
        ip_end = ip + 40 + be16(&f[ip + 4]);
        uint8_t next = f[ip + 6];
        tcp = ip + 40;
        // Hop-by-hop, routing and destination options may come before TCP.
        while ((next == 0 || next == 43 || next == 60) && f.size() >= tcp + 8) {
            next = f[tcp];
            tcp += (f[tcp + 1] + 1u) * 8u;
        }
        if (next != kProtoTcp) return false;
    } else {
        return false;
    }
    if (f.size() < tcp + 20) return false;
    const size_t data_offset = (f[tcp + 12] >> 4) * 4u;
    if (data_offset < 20 || f.size() < tcp + data_offset || tcp + data_offset > 0xffff)
        return false;
    out.ip_offset = static_cast<uint16_t>(ip);
    out.tcp_offset = static_cast<uint16_t>(tcp);
    out.payload_offset = static_cast<uint16_t>(tcp + data_offset);
    out.src_port = be16(&f[tcp]);
    out.dst_port = be16(&f[tcp + 2]);
    out.tcp_flags = f[tcp + 13];
    // Ethernet padding behind a short IP packet is not payload.
    const size_t end = std::min(f.size(), std::max(ip_end, size_t(out.payload_offset)));
    out.payload_length = static_cast<uint32_t>(end - out.payload_offset);
    return true;
}

bool read_capture(const std::string &path, capture_file &out, std::string &error) {
    char errbuf[PCAP_ERRBUF_SIZE] = {};
    pcap_t *p =
        pcap_open_offline_with_tstamp_precision(path.c_str(), PCAP_TSTAMP_PRECISION_NANO, errbuf);
    if (!p) {
        error = errbuf;
        return false;
    }
    out.link_type = pcap_datalink(p);
    out.frames.clear();
    pcap_pkthdr *hdr = nullptr;
    const u_char *data = nullptr;
    int r;
    while ((r = pcap_next_ex(p, &hdr, &data)) == 1) {
        frame f;
        f.bytes.assign(data, data + hdr->caplen);
        f.wire_length = hdr->len;
        f.timestamp_ns = uint64_t(hdr->ts.tv_sec) * 1000000000u + uint64_t(hdr->ts.tv_usec);
        out.frames.push_back(std::move(f));
    }
    if (r == PCAP_ERROR) error = pcap_geterr(p);
    pcap_close(p);
    return r != PCAP_ERROR;
}

}  // namespace capture
