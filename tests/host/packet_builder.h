// Test traffic: IP datagrams with TCP or UDP, TCP conversations with sequence numbers, whole
// SMB2 sessions (messages from smb2_builder.h), link-layer framing for every link type smbflow
// reads, and pcap/pcapng files.
#pragma once

#include <array>
#include <cstdint>
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

Bytes tcp_datagram(const TcpSpec &segment);
Bytes udp_datagram(const Addr &src, const Addr &dst, uint16_t sport, uint16_t dport,
                   const Bytes &payload);

// One timestamped IP datagram.
struct Packet {
    uint64_t ts_ns = 0;
    Bytes ip;
};

// A TCP connection between a client and a server that keeps sequence numbers.
class TcpConversation {
  public:
    TcpConversation(Addr client, uint16_t cport, Addr server, uint16_t sport, uint64_t start_ns);
    void handshake();
    void client_sends(const Bytes &payload);
    void server_sends(const Bytes &payload);
    void close();
    // Advances the clock between packets.
    void wait_ns(uint64_t ns) { now_ += ns; }
    std::vector<Packet> &packets() { return packets_; }

  private:
    void emit(bool from_client, uint8_t flags, const Bytes &payload);
    Addr client_, server_;
    uint16_t cport_, sport_;
    uint32_t cseq_ = 1000, sseq_ = 5000;
    uint64_t now_;
    std::vector<Packet> packets_;
};

// A whole SMB2 session on one TCP connection: negotiate, session setup, tree connect to `share`,
// create `file` (open an existing file, or make a new one), read or write, close, tree
// disconnect, log off, with the handshake and close of the connection around it.
struct SessionSpec {
    Addr client, server;
    uint16_t client_port = 49732;
    uint16_t server_port = 445;
    std::string share = "\\\\fileserver\\public";
    std::string file = "docs\\report.txt";
    bool create_new = false;  // FILE_CREATE and a WRITE instead of FILE_OPEN and a READ
    uint64_t start_ns = 0;
};

std::vector<Packet> smb2_session(const SessionSpec &session);

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

void write_pcap(const std::string &path, int link, const std::vector<FrameRecord> &frames,
                bool nanoseconds = true);
void write_pcapng(const std::string &path, int link, const std::vector<FrameRecord> &frames);

// Frames for a list of datagrams.
std::vector<FrameRecord> frames_of(int link, const std::vector<Packet> &packets, int vlans = 0,
                                   size_t trailer = 0);

}  // namespace testnet
