#include "packet_builder.h"

#include <arpa/inet.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace testnet {

namespace {

void put16(Bytes &b, uint16_t v) {
    b.push_back(v >> 8);
    b.push_back(v & 0xff);
}
void put32(Bytes &b, uint32_t v) {
    put16(b, v >> 16);
    put16(b, v & 0xffff);
}
void le16(Bytes &b, uint16_t v) {
    b.push_back(v & 0xff);
    b.push_back(v >> 8);
}
void le32(Bytes &b, uint32_t v) {
    le16(b, v & 0xffff);
    le16(b, v >> 16);
}

uint16_t checksum(const Bytes &b, size_t off, size_t len, uint32_t sum = 0) {
    for (size_t i = 0; i + 1 < len; i += 2)
        sum += (b[off + i] << 8) | b[off + i + 1];
    if (len & 1) sum += b[off + len - 1] << 8;
    while (sum >> 16)
        sum = (sum & 0xffff) + (sum >> 16);
    return static_cast<uint16_t>(~sum);
}

Bytes ip_wrap(const Addr &src, const Addr &dst, uint8_t protocol, const Bytes &l4,
              const Bytes &ext = {}) {
    Bytes out;
    if (!src.v6) {
        out.push_back(0x45);
        out.push_back(0);
        put16(out, static_cast<uint16_t>(20 + l4.size()));
        put16(out, 0x1234);
        put16(out, 0x4000);  // don't fragment
        out.push_back(64);
        out.push_back(protocol);
        put16(out, 0);
        out.insert(out.end(), src.bytes.begin(), src.bytes.begin() + 4);
        out.insert(out.end(), dst.bytes.begin(), dst.bytes.begin() + 4);
        const uint16_t c = checksum(out, 0, 20);
        out[10] = c >> 8;
        out[11] = c & 0xff;
    } else {
        put32(out, 0x60000000);
        put16(out, static_cast<uint16_t>(ext.size() + l4.size()));
        out.push_back(ext.empty() ? protocol : 0);
        out.push_back(64);
        out.insert(out.end(), src.bytes.begin(), src.bytes.end());
        out.insert(out.end(), dst.bytes.begin(), dst.bytes.end());
        if (!ext.empty()) {
            Bytes e = ext;
            e[0] = protocol;  // next header
            out.insert(out.end(), e.begin(), e.end());
        }
    }
    out.insert(out.end(), l4.begin(), l4.end());
    return out;
}

}  // namespace

Addr ipv4(uint8_t a, uint8_t b, uint8_t c, uint8_t d) {
    Addr x;
    x.bytes[0] = a;
    x.bytes[1] = b;
    x.bytes[2] = c;
    x.bytes[3] = d;
    return x;
}

Addr ipv6(const std::string &text) {
    Addr x;
    x.v6 = true;
    if (inet_pton(AF_INET6, text.c_str(), x.bytes.data()) != 1) throw std::runtime_error(text);
    return x;
}

Bytes tcp_datagram(const TcpSpec &s) {
    Bytes opts = s.tcp_options;
    while (opts.size() % 4)
        opts.push_back(1);  // NOP
    Bytes l4;
    put16(l4, s.sport);
    put16(l4, s.dport);
    put32(l4, s.seq);
    put32(l4, s.ack);
    l4.push_back(static_cast<uint8_t>((20 + opts.size()) / 4) << 4);
    l4.push_back(s.flags);
    put16(l4, 65535);
    put16(l4, 0);  // checksum
    put16(l4, 0);
    l4.insert(l4.end(), opts.begin(), opts.end());
    l4.insert(l4.end(), s.payload.begin(), s.payload.end());
    return ip_wrap(s.src, s.dst, 6, l4, s.ipv6_ext);
}

Bytes udp_datagram(const Addr &src, const Addr &dst, uint16_t sport, uint16_t dport,
                   const Bytes &payload) {
    Bytes l4;
    put16(l4, sport);
    put16(l4, dport);
    put16(l4, static_cast<uint16_t>(8 + payload.size()));
    put16(l4, 0);
    l4.insert(l4.end(), payload.begin(), payload.end());
    return ip_wrap(src, dst, 17, l4);
}

TcpConversation::TcpConversation(Addr client, uint16_t cport, Addr server, uint16_t sport,
                                 uint64_t start_ns, uint64_t gap_ns)
    : client_(client),
      server_(server),
      cport_(cport),
      sport_(sport),
      now_(start_ns),
      gap_(gap_ns) {}

void TcpConversation::send(bool from_client, uint8_t flags, std::span<const uint8_t> payload) {
    TcpSpec s;
    s.src = from_client ? client_ : server_;
    s.dst = from_client ? server_ : client_;
    s.sport = from_client ? cport_ : sport_;
    s.dport = from_client ? sport_ : cport_;
    s.seq = from_client ? cseq_ : sseq_;
    s.ack = from_client ? sseq_ : cseq_;
    s.flags = flags;
    s.payload.assign(payload.begin(), payload.end());
    uint32_t &seq = from_client ? cseq_ : sseq_;
    seq += static_cast<uint32_t>(payload.size()) + ((flags & (SYN | FIN)) ? 1 : 0);
    packets_.push_back({now_, tcp_datagram(s)});
    now_ += gap_;
}

void TcpConversation::handshake() {
    send(true, SYN, {});
    send(false, SYN | ACK, {});
    send(true, ACK, {});
}

void TcpConversation::close() {
    send(true, FIN | ACK, {});
    send(false, FIN | ACK, {});
    send(true, ACK, {});
}

Bytes frame(int link, const Bytes &ip, int vlans, size_t trailer) {
    const bool v6 = (ip[0] >> 4) == 6;
    Bytes f;
    switch (link) {
        case kEthernet: {
            const uint8_t macs[12] = {2, 0, 0, 0, 0, 2, 2, 0, 0, 0, 0, 1};
            f.insert(f.end(), macs, macs + 12);
            for (int i = 0; i < vlans; ++i) {
                put16(f, i == 0 && vlans > 1 ? 0x88a8 : 0x8100);
                put16(f, static_cast<uint16_t>(100 + i));
            }
            put16(f, v6 ? 0x86dd : 0x0800);
            break;
        }
        case kSll:
            put16(f, 0);  // packet type: to us
            put16(f, 1);  // ARPHRD_ETHER
            put16(f, 6);  // address length
            for (int i = 0; i < 8; ++i)
                f.push_back(i < 6 ? 0x10 + i : 0);
            put16(f, v6 ? 0x86dd : 0x0800);
            break;
        case kSll2:
            put16(f, v6 ? 0x86dd : 0x0800);
            put16(f, 0);     // reserved
            put32(f, 1);     // interface index
            put16(f, 1);     // ARPHRD_ETHER
            f.push_back(0);  // packet type
            f.push_back(6);  // address length
            for (int i = 0; i < 8; ++i)
                f.push_back(i < 6 ? 0x10 + i : 0);
            break;
        case kNull:
            le32(f, v6 ? 30 : 2);  // written little-endian, as on x86
            break;
        case kLoop:
            put32(f, v6 ? 30 : 2);
            break;
        case kRaw:
        case kIpv4:
        case kIpv6:
            break;
        default:
            throw std::runtime_error("link type");
    }
    f.insert(f.end(), ip.begin(), ip.end());
    f.insert(f.end(), trailer, 0xee);
    return f;
}

std::vector<FrameRecord> frames_of(int link, const std::vector<Packet> &packets, int vlans,
                                   size_t trailer) {
    std::vector<FrameRecord> out;
    for (const Packet &p : packets)
        out.push_back({p.ts_ns, frame(link, p.ip, vlans, trailer), 0});
    return out;
}

namespace {

FILE *create(const std::string &path) {
    FILE *f = fopen(path.c_str(), "wb");
    if (!f) throw std::runtime_error("cannot write " + path + ": " + strerror(errno));
    return f;
}

void put(FILE *f, const Bytes &b) {
    fwrite(b.data(), 1, b.size(), f);
}

}  // namespace

PcapWriter::PcapWriter(const std::string &path, int link, bool nanoseconds)
    : file_(create(path)), nanoseconds_(nanoseconds) {
    Bytes h;
    le32(h, nanoseconds ? 0xa1b23c4d : 0xa1b2c3d4);
    le16(h, 2);
    le16(h, 4);
    le32(h, 0);
    le32(h, 0);
    le32(h, 262144);
    le32(h, static_cast<uint32_t>(link));
    put(file_, h);
}

PcapWriter::~PcapWriter() {
    fclose(file_);
}

void PcapWriter::write(std::span<const uint8_t> frame, uint64_t ts_ns, uint32_t wire_len) {
    Bytes rec;
    le32(rec, static_cast<uint32_t>(ts_ns / 1'000'000'000ull));
    const uint64_t frac = ts_ns % 1'000'000'000ull;
    le32(rec, static_cast<uint32_t>(nanoseconds_ ? frac : frac / 1000));
    le32(rec, static_cast<uint32_t>(frame.size()));
    le32(rec, wire_len ? wire_len : static_cast<uint32_t>(frame.size()));
    rec.insert(rec.end(), frame.begin(), frame.end());
    put(file_, rec);
    ++packets_;
}

void write_pcap(const std::string &path, int link, const std::vector<FrameRecord> &frames,
                bool nanoseconds) {
    PcapWriter w(path, link, nanoseconds);
    for (const FrameRecord &r : frames)
        w.write(r.data, r.ts_ns, r.wire_len);
}

void write_pcapng(const std::string &path, int link, const std::vector<FrameRecord> &frames) {
    FILE *file = create(path);
    Bytes b;
    // Section header: byte-order magic, version 1.0, section length unknown.
    for (uint32_t v : {0x0a0d0d0au, 28u, 0x1a2b3c4du, 1u, 0xffffffffu, 0xffffffffu, 28u})
        le32(b, v);
    // Interface description: link type, snap length, if_tsresol 9, end of options.
    for (uint32_t v : {1u, 32u, static_cast<uint32_t>(link), 262144u, 0x00010009u, 9u, 0u, 32u})
        le32(b, v);
    for (const FrameRecord &r : frames) {
        const size_t padded = (r.data.size() + 3) & ~size_t{3};
        const uint32_t total = static_cast<uint32_t>(32 + padded);
        for (uint32_t v : {6u, total, 0u, static_cast<uint32_t>(r.ts_ns >> 32),
                           static_cast<uint32_t>(r.ts_ns), static_cast<uint32_t>(r.data.size()),
                           r.wire_len ? r.wire_len : static_cast<uint32_t>(r.data.size())})
            le32(b, v);
        b.insert(b.end(), r.data.begin(), r.data.end());
        b.insert(b.end(), padded - r.data.size(), 0);
        le32(b, total);
    }
    put(file, b);
    fclose(file);
}

}  // namespace testnet
