// Building and rewriting Ethernet/IP/TCP frames for synthetic captures: checksums, address
// and port rewriting of a decoded frame, and new frames around a TCP payload.
#pragma once

#include <stdint.h>

#include <array>
#include <span>
#include <vector>

#include "tcp_capture.h"

namespace capture {

// Recomputes the IPv4 header checksum (IPv4 frames) and the TCP checksum of a decoded frame,
// as long as the whole TCP segment was captured.
void fix_checksums(std::span<uint8_t> frame, const tcp_view &v);

// Overwrites the addresses and ports of a decoded frame (IPv4 addresses use the first 4 bytes).
void rewrite_endpoints(std::span<uint8_t> frame, const tcp_view &v,
                       const std::array<uint8_t, 16> &src, const std::array<uint8_t, 16> &dst,
                       uint16_t src_port, uint16_t dst_port);

struct tcp_endpoints {
    std::array<uint8_t, 4> src_ip, dst_ip;
    uint16_t src_port, dst_port;
};

// An Ethernet/IPv4/TCP frame carrying payload, with valid checksums.
std::vector<uint8_t> ipv4_tcp_frame(const tcp_endpoints &e, uint32_t seq, uint32_t ack,
                                    uint8_t tcp_flags, std::span<const uint8_t> payload);

}  // namespace capture
