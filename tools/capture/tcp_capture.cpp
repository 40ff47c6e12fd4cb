#include "tcp_capture.h"

#include <pcap/pcap.h>
#include <string.h>

#include "packet_decoder.h"

namespace capture {

bool decode_tcp(std::span<const uint8_t> f, int link_type, tcp_view &out) {
    out = tcp_view{};
    corvane_host::DecodedPacket d;
    if (corvane_host::decode_frame(link_type, f.data(), f.size(), d) !=
        corvane_host::DecodeStatus::Ok)
        return false;
    const host_packet &p = d.pkt;
    constexpr uint8_t kTcp = 6;
    if (p.protocol != kTcp || d.capped || d.transport_offset == 0) return false;
    if (p.ip_version == 4 && (p.ipv4_aux16 & 0x1fff)) return false;  // not the first fragment
    // A whole TCP header, options included, within the datagram.
    const size_t tcp = d.transport_offset;
    if (tcp + 20 > p.length) return false;
    const size_t data_offset = (p.data[tcp + 12] >> 4) * 4u;
    if (data_offset < 20 || tcp + data_offset > p.length) return false;

    const auto ip = static_cast<size_t>(p.data - f.data());
    out.ip_version = p.ip_version;
    if (p.ip_version == 4) {
        memcpy(out.src.data(), &p.src_addr.v4, 4);
        memcpy(out.dst.data(), &p.dst_addr.v4, 4);
    } else {
        memcpy(out.src.data(), p.src_addr.v6, 16);
        memcpy(out.dst.data(), p.dst_addr.v6, 16);
    }
    out.ip_offset = static_cast<uint16_t>(ip);
    out.tcp_offset = static_cast<uint16_t>(ip + tcp);
    out.payload_offset = static_cast<uint16_t>(ip + p.payload_offset);
    out.src_port = p.src_port;
    out.dst_port = p.dst_port;
    out.tcp_flags = p.tcp_flags;
    // The descriptor ends with the datagram: Ethernet padding behind it is not payload.
    out.payload_length = static_cast<uint32_t>(p.length - p.payload_offset);
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
