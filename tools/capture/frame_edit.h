// Rewriting Ethernet/IP/TCP frames for synthetic captures: checksums, and address and port
// rewriting of a decoded frame.
#pragma once

#include <stdint.h>

#include <array>
#include <span>

#include "tcp_capture.h"

namespace capture {

// Recomputes the IPv4 header checksum (IPv4 frames) and the TCP checksum of a decoded frame,
// as long as the whole TCP segment was captured.
void fix_checksums(std::span<uint8_t> frame, const tcp_view &v);

// Overwrites the addresses and ports of a decoded frame (IPv4 addresses use the first 4 bytes).
void rewrite_endpoints(std::span<uint8_t> frame, const tcp_view &v,
                       const std::array<uint8_t, 16> &src, const std::array<uint8_t, 16> &dst,
                       uint16_t src_port, uint16_t dst_port);

}  // namespace capture
