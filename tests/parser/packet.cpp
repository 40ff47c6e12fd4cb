#include <algorithm>
#include <cstring>

#include "parser_harness.h"

namespace smb2test {

uint32_t ipv4(uint8_t a, uint8_t b, uint8_t c, uint8_t d) {
    const uint8_t bytes[4] = {a, b, c, d};
    uint32_t v;
    std::memcpy(&v, bytes, 4);
    return v;
}

Endpoints Endpoints::v4(uint32_t client, uint16_t client_port, uint32_t server,
                        uint16_t server_port) {
    Endpoints e;
    e.ip_version = 4;
    e.client.v4 = client;
    e.server.v4 = server;
    e.client_port = client_port;
    e.server_port = server_port;
    return e;
}

Endpoints Endpoints::v6(const uint8_t (&client)[16], uint16_t client_port,
                        const uint8_t (&server)[16], uint16_t server_port) {
    Endpoints e;
    e.ip_version = 6;
    std::memcpy(e.client.v6, client, 16);
    std::memcpy(e.server.v6, server, 16);
    e.client_port = client_port;
    e.server_port = server_port;
    return e;
}

Packet::Packet(const Endpoints &ends, Dir dir, const Bytes &payload)
    : bytes_(kHeadersSize + payload.size(), 0) {
    std::copy(payload.begin(), payload.end(), bytes_.begin() + kHeadersSize);
    pkt_.data = bytes_.data();
    pkt_.length = uint16_t(bytes_.size());
    pkt_.payload_offset = kHeadersSize;
    pkt_.ip_version = ends.ip_version;
    pkt_.protocol = 6;
    const bool to_server = dir == Dir::to_server;
    pkt_.src_addr = to_server ? ends.client : ends.server;
    pkt_.dst_addr = to_server ? ends.server : ends.client;
    pkt_.src_port = to_server ? ends.client_port : ends.server_port;
    pkt_.dst_port = to_server ? ends.server_port : ends.client_port;
    pkt_.flags = to_server ? 0 : HOST_FLAG_DIRECTION;
    pkt_.flow_hash = 0x0123456789abcdefull;
    counters() = {1, bytes_.size()};
}

Packet::Packet(Packet &&other) noexcept : bytes_(std::move(other.bytes_)), pkt_(other.pkt_) {
    pkt_.data = bytes_.data();
}

Packet &Packet::operator=(Packet &&other) noexcept {
    bytes_ = std::move(other.bytes_);
    pkt_ = other.pkt_;
    pkt_.data = bytes_.data();
    return *this;
}

}  // namespace smb2test
