// Reading capture files for the project's tools (fuzz seeds, benchmarks, the throughput
// capture builder): every frame of a pcap or pcapng file with the offsets of its IP and TCP
// headers, so that a tool can take the TCP payload or rewrite addresses and ports in place.
#pragma once

#include <stdint.h>

#include <array>
#include <span>
#include <string>
#include <vector>

namespace capture {

struct frame {
    std::vector<uint8_t> bytes;  // as captured (may be shorter than on the wire)
    uint32_t wire_length = 0;
    uint64_t timestamp_ns = 0;
};

// Where the headers of one IPv4 or IPv6 TCP frame sit, and what they say.
struct tcp_view {
    uint8_t ip_version = 0;  // 4 or 6
    uint16_t ip_offset = 0;
    uint16_t tcp_offset = 0;
    uint16_t payload_offset = 0;
    uint32_t payload_length = 0;    // captured payload bytes, within the IP length
    std::array<uint8_t, 16> src{};  // IPv4 addresses in the first 4 bytes
    std::array<uint8_t, 16> dst{};
    uint16_t src_port = 0;
    uint16_t dst_port = 0;
    uint8_t tcp_flags = 0;
};

// The TCP headers of a frame of the given link type (Ethernet with VLAN tags, Linux cooked,
// raw IP). False for anything that is not a whole IPv4 or IPv6 TCP header.
bool decode_tcp(std::span<const uint8_t> frame, int link_type, tcp_view &out);

struct capture_file {
    int link_type = 0;
    std::vector<frame> frames;
};

// Reads a whole pcap or pcapng file; on failure returns false with a message in error.
bool read_capture(const std::string &path, capture_file &out, std::string &error);

}  // namespace capture
