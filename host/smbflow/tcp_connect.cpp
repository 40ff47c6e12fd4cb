#include "tcp_connect.h"

#include <fcntl.h>
#include <linux/tcp.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>

#include <fmt/format.h>

namespace smbflow {

namespace {

// Waits are cut in slices so that a request to give up is seen within one.
constexpr int kSliceMs = 100;

}  // namespace

int connect_tcp(const std::string &host, const std::string &port, double timeout_s,
                const std::atomic<bool> *abandon, std::string &why) {
    using clock = std::chrono::steady_clock;
    const auto deadline = clock::now() + std::chrono::duration_cast<clock::duration>(
                                             std::chrono::duration<double>(timeout_s));
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *ai = nullptr;
    if (const int rc = getaddrinfo(host.c_str(), port.c_str(), &hints, &ai); rc != 0) {
        why = fmt::format("cannot resolve {}: {}", host, gai_strerror(rc));
        return -1;
    }
    why = "no address";
    int fd = -1;
    for (addrinfo *a = ai; a && fd < 0; a = a->ai_next) {
        fd = socket(a->ai_family, a->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, a->ai_protocol);
        if (fd < 0) {
            why = strerror(errno);
            continue;
        }
        int err = connect(fd, a->ai_addr, a->ai_addrlen) == 0 ? 0 : errno;
        if (err == EINPROGRESS) {
            err = ETIMEDOUT;
            while (!(abandon && abandon->load()) && clock::now() < deadline) {
                pollfd p{fd, POLLOUT, 0};
                const auto left =
                    std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock::now())
                        .count();
                const int n = poll(&p, 1, static_cast<int>(std::min<long>(left, kSliceMs)) + 1);
                if (n > 0) {
                    socklen_t len = sizeof err;
                    getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
                    break;
                }
                if (n < 0 && errno != EINTR) {
                    err = errno;
                    break;
                }
            }
        }
        if (err == 0) {
            fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
            // A collector that stops reading fails a write after the same bound, rather than
            // holding the sender for ever.
            timeval tv{static_cast<time_t>(timeout_s),
                       static_cast<suseconds_t>((timeout_s - double(time_t(timeout_s))) * 1e6)};
            setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
            break;
        }
        why = err == ETIMEDOUT && !(abandon && abandon->load())
                  ? fmt::format("no connection within {:g} s", timeout_s)
                  : strerror(err);
        close(fd);
        fd = -1;
    }
    freeaddrinfo(ai);
    if (fd >= 0) why.clear();
    return fd;
}

uint64_t tcp_bytes_acked(int fd) {
    tcp_info info{};
    socklen_t len = sizeof info;
    if (getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &len) != 0 ||
        len < offsetof(tcp_info, tcpi_bytes_acked) + sizeof info.tcpi_bytes_acked)
        return UINT64_MAX;
    return info.tcpi_bytes_acked;
}

bool tcp_peer_gone(int fd) {
    pollfd p{fd, POLLIN | POLLRDHUP, 0};
    if (poll(&p, 1, 0) <= 0) return false;
    if (p.revents & (POLLRDHUP | POLLHUP | POLLERR)) return true;
    char byte;  // a collector sends nothing: readable means the end
    return recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) <= 0;
}

}  // namespace smbflow
