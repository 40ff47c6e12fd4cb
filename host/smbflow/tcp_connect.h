// A TCP connection to a collector made with a bound on the time it takes (a collector whose
// address drops SYNs would otherwise hold a connect for the kernel's two minutes), and how much
// of what was written on it the peer has acknowledged.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

namespace smbflow {

// A connected, blocking socket, or -1 with `why` set. Gives up after `timeout_s` seconds over
// all addresses of the host, or soon after *abandon becomes true.
int connect_tcp(const std::string &host, const std::string &port, double timeout_s,
                const std::atomic<bool> *abandon, std::string &why);

// Bytes written on the socket that the peer has acknowledged (TCP_INFO); nullopt-like
// UINT64_MAX when the kernel does not say.
uint64_t tcp_bytes_acked(int fd);

// Whether the peer has closed or reset the connection (a read end that reports end or error).
bool tcp_peer_gone(int fd);

}  // namespace smbflow
