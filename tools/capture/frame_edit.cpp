#include "frame_edit.h"

#include <string.h>

namespace capture {

namespace {

uint32_t sum16(const uint8_t *p, size_t n, uint32_t sum = 0) {
    for (; n > 1; p += 2, n -= 2)
        sum += uint32_t(p[0] << 8 | p[1]);
    if (n) sum += uint32_t(p[0] << 8);
    return sum;
}

uint16_t fold(uint32_t sum) {
    while (sum >> 16)
        sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}

void put16(uint8_t *p, uint16_t v) {
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v);
}

}  // namespace

void fix_checksums(std::span<uint8_t> f, const tcp_view &v) {
    uint8_t *ip = f.data() + v.ip_offset;
    uint8_t *tcp = f.data() + v.tcp_offset;
    size_t tcp_length = v.payload_offset - v.tcp_offset + v.payload_length;
    uint32_t pseudo = 0;
    if (v.ip_version == 4) {
        const size_t ihl = (ip[0] & 0x0f) * 4u;
        put16(ip + 10, 0);
        put16(ip + 10, fold(sum16(ip, ihl)));
        const size_t ip_length = size_t(ip[2] << 8 | ip[3]);
        if (ip_length < ihl || v.ip_offset + ip_length > f.size()) return;  // cut short
        tcp_length = ip_length - (v.tcp_offset - v.ip_offset);
        pseudo = sum16(ip + 12, 8) + 6 + uint32_t(tcp_length);
    } else {
        const size_t ip_length = 40 + size_t(ip[4] << 8 | ip[5]);
        if (v.ip_offset + ip_length > f.size()) return;
        tcp_length = ip_length - (v.tcp_offset - v.ip_offset);
        pseudo = sum16(ip + 8, 32) + 6 + uint32_t(tcp_length);
    }
    put16(tcp + 16, 0);
    put16(tcp + 16, fold(sum16(tcp, tcp_length, pseudo)));
}

void rewrite_endpoints(std::span<uint8_t> f, const tcp_view &v, const std::array<uint8_t, 16> &src,
                       const std::array<uint8_t, 16> &dst, uint16_t src_port, uint16_t dst_port) {
    uint8_t *ip = f.data() + v.ip_offset;
    if (v.ip_version == 4) {
        memcpy(ip + 12, src.data(), 4);
        memcpy(ip + 16, dst.data(), 4);
    } else {
        memcpy(ip + 8, src.data(), 16);
        memcpy(ip + 24, dst.data(), 16);
    }
    put16(f.data() + v.tcp_offset, src_port);
    put16(f.data() + v.tcp_offset + 2, dst_port);
    tcp_view changed = v;
    fix_checksums(f, changed);
}

}  // namespace capture
