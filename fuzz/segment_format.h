// The input format of the payload harness: a sequence of TCP segments of SMB connections, each
//
//   flags (1 byte) | length (2 bytes, little-endian) | payload (length bytes)
//
// A last segment shorter than its length takes what is left of the input.
#pragma once

#include <stdint.h>

namespace fuzz::segments {

constexpr uint8_t kFromServer = 0x01;  // server to client; otherwise client to server
constexpr uint8_t kClientMask = 0x06;  // which of four client connections (address and port)
constexpr uint8_t kClientShift = 1;
constexpr uint8_t kIpv6 = 0x08;       // the connection runs over IPv6
constexpr uint8_t kOtherPort = 0x10;  // the server listens on a port other than the SMB port

constexpr uint16_t kSmbPort = 445;
constexpr uint16_t kOtherServerPort = 4445;

}  // namespace fuzz::segments
