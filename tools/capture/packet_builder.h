// Synthetic network traffic, shared by the tests and the capture tools: IP datagrams with TCP or
// UDP, TCP conversations with running sequence numbers, link-layer framing for every link type
// smbflow reads, and pcap/pcapng files.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <span>
#include <string>
#include <vector>

namespace testnet {

using Bytes = std::vector<uint8_t>;

struct Addr {
    bool v6 = false;
    std::array<uint8_t, 16> bytes{};
};

Addr ipv4(uint8_t a, uint8_t b, uint8_t c, uint8_t d);
Addr ipv6(const std::string &text);

enum TcpFlag : uint8_t { FIN = 0x01, SYN = 0x02, RST = 0x04, PSH = 0x08, ACK = 0x10 };

struct TcpSpec {
    Addr src, dst;
    uint16_t sport = 0, dport = 0;
    uint32_t seq = 0, ack = 0;
    uint8_t flags = ACK;
    Bytes payload;
    Bytes tcp_options;  // appended to the 20-byte header (padded to 4 bytes)
    Bytes ipv6_ext;     // a hop-by-hop options header put in front of TCP (IPv6 only)
};

// The TCP checksum is left zero: nothing that reads these checks it (frame_edit.h's
// fix_checksums fills it in where a capture should be valid throughout).
Bytes tcp_datagram(const TcpSpec &segment);
Bytes udp_datagram(const Addr &src, const Addr &dst, uint16_t sport, uint16_t dport,
                   const Bytes &payload);

// One timestamped IP datagram.
struct Packet {
    uint64_t ts_ns = 0;
    Bytes ip;
};

// A TCP connection between a client and a server that keeps sequence numbers; its packets are
// collected in packets(), `gap_ns` apart.
class TcpConversation {
  public:
    TcpConversation(Addr client, uint16_t cport, Addr server, uint16_t sport, uint64_t start_ns,
                    uint64_t gap_ns = 250'000);
    void send(bool from_client, uint8_t flags, std::span<const uint8_t> payload);
    void handshake();
    void client_sends(const Bytes &payload) { send(true, PSH | ACK, payload); }
    void server_sends(const Bytes &payload) { send(false, PSH | ACK, payload); }
    void close();
    std::vector<Packet> &packets() { return packets_; }

  private:
    Addr client_, server_;
    uint16_t cport_, sport_;
    uint32_t cseq_ = 1000, sseq_ = 5000;
    uint64_t now_, gap_;
    std::vector<Packet> packets_;
};

// Link types by their pcap numbers.
enum Link : int {
    kNull = 0,
    kEthernet = 1,
    kRaw = 101,  // as stored in files (LINKTYPE_RAW)
    kLoop = 108,
    kSll = 113,
    kIpv4 = 228,
    kIpv6 = 229,
    kSll2 = 276,
};

// Puts a datagram into a frame of the link type. `vlans` VLAN tags for Ethernet;
// `trailer` bytes of padding after the datagram.
Bytes frame(int link, const Bytes &ip, int vlans = 0, size_t trailer = 0);

struct FrameRecord {
    uint64_t ts_ns = 0;
    Bytes data;
    uint32_t wire_len = 0;  // 0: the frame's size
};

// Frames for a list of datagrams.
std::vector<FrameRecord> frames_of(int link, const std::vector<Packet> &packets, int vlans = 0,
                                   size_t trailer = 0);

// A pcap file written a frame at a time; throws std::runtime_error when it cannot be created.
class PcapWriter {
  public:
    PcapWriter(const std::string &path, int link, bool nanoseconds = true);
    ~PcapWriter();
    PcapWriter(const PcapWriter &) = delete;
    PcapWriter &operator=(const PcapWriter &) = delete;
    void write(std::span<const uint8_t> frame, uint64_t ts_ns, uint32_t wire_len = 0);
    uint64_t packets() const { return packets_; }

  private:
    FILE *file_;
    bool nanoseconds_;
    uint64_t packets_ = 0;
};

void write_pcap(const std::string &path, int link, const std::vector<FrameRecord> &frames,
                bool nanoseconds = true);
// One section, one interface with nanosecond stamps (if_tsresol 9).
void write_pcapng(const std::string &path, int link, const std::vector<FrameRecord> &frames);

}  // namespace testnet
