// Makes large or hostile captures for the throughput, memory and robustness checks. They are
// never committed: write them under build/ or /tmp.
//
//   smb_capgen replicate -o OUT -n MIN_PACKETS CAPTURE...
//       the captures again and again until at least MIN_PACKETS packets, each copy with its own
//       client and server addresses and client ports (so flows and file keys differ), times
//       running on
//   smb_capgen opens -o OUT -n FILES [-c CONNECTIONS]
//       per connection a handshake and a TREE_CONNECT, then successful CREATEs (request and
//       response) of distinct files that are never closed: FILES in all
//   smb_capgen unanswered -o OUT -n REQUESTS [-c CONNECTIONS]
//       CREATE requests that never get a response
//   smb_capgen halfopen -o OUT -n CONNECTIONS
//       connections that send a SYN and the first segment of a compound request that never
//       goes on
#include <pcap/pcap.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "frame_edit.h"
#include "tcp_capture.h"

namespace {

constexpr uint16_t kSmbPort = 445;

class writer {
  public:
    explicit writer(const std::string &path) {
        dead_ = pcap_open_dead(DLT_EN10MB, 262144);
        dump_ = pcap_dump_open(dead_, path.c_str());
        if (!dump_) {
            fprintf(stderr, "%s: %s\n", path.c_str(), pcap_geterr(dead_));
            exit(1);
        }
    }
    ~writer() {
        pcap_dump_close(dump_);
        pcap_close(dead_);
    }
    void write(std::span<const uint8_t> frame, uint64_t ts_ns, uint32_t wire_length = 0) {
        pcap_pkthdr h{};
        h.ts.tv_sec = static_cast<time_t>(ts_ns / 1000000000u);
        h.ts.tv_usec = static_cast<suseconds_t>(ts_ns % 1000000000u / 1000u);
        h.caplen = static_cast<uint32_t>(frame.size());
        h.len = wire_length ? wire_length : h.caplen;
        pcap_dump(reinterpret_cast<u_char *>(dump_), &h, frame.data());
        ++packets_;
    }
    uint64_t packets() const { return packets_; }

  private:
    pcap_t *dead_;
    pcap_dumper_t *dump_;
    uint64_t packets_ = 0;
};

// ---- replicate

// Copy k of an address: the client keeps its last byte and gets 10.k1.k0.x (IPv6: bytes 12
// and 13 become k), the server 172.16+k2.k1.k0 style, so every copy is its own set of hosts.
std::array<uint8_t, 16> shifted(const std::array<uint8_t, 16> &a, uint8_t ip_version, uint32_t copy,
                                bool client) {
    std::array<uint8_t, 16> out = a;
    if (ip_version == 4) {
        if (client) {
            out[0] = 10;
            out[1] = static_cast<uint8_t>(copy >> 8);
            out[2] = static_cast<uint8_t>(copy);
        } else {
            out[0] = 172;
            out[1] = static_cast<uint8_t>(16 + ((copy >> 16) & 0x0f));
            out[2] = static_cast<uint8_t>(copy >> 8);
            out[3] = static_cast<uint8_t>(copy);
        }
    } else {
        out[client ? 12 : 10] = static_cast<uint8_t>(copy >> 8);
        out[client ? 13 : 11] = static_cast<uint8_t>(copy);
    }
    return out;
}

uint16_t shifted_port(uint16_t port, uint32_t copy) {
    return static_cast<uint16_t>(1024 + (port + copy * 131u) % 64000u);
}

int replicate(const std::string &out, uint64_t min_packets, const std::vector<std::string> &in) {
    std::vector<capture::capture_file> files(in.size());
    uint64_t per_copy = 0;
    for (size_t i = 0; i < in.size(); ++i) {
        std::string error;
        if (!capture::read_capture(in[i], files[i], error)) {
            fprintf(stderr, "%s: %s\n", in[i].c_str(), error.c_str());
            return 1;
        }
        if (files[i].link_type != DLT_EN10MB) {
            fprintf(stderr, "%s: only Ethernet captures can be replicated\n", in[i].c_str());
            return 1;
        }
        per_copy += files[i].frames.size();
    }
    if (per_copy == 0) {
        fprintf(stderr, "no packets in the input\n");
        return 1;
    }
    writer w(out);
    uint64_t clock = 1700000000ull * 1000000000u;
    std::vector<uint8_t> frame;
    for (uint32_t copy = 0; w.packets() < min_packets; ++copy) {
        for (const capture::capture_file &file : files) {
            const uint64_t start = file.frames.empty() ? 0 : file.frames[0].timestamp_ns;
            uint64_t last = clock;
            for (const capture::frame &f : file.frames) {
                frame = f.bytes;
                capture::tcp_view v;
                if (capture::decode_tcp(frame, file.link_type, v)) {
                    const bool src_is_client = v.dst_port == kSmbPort || v.src_port != kSmbPort;
                    const auto src = shifted(v.src, v.ip_version, copy, src_is_client);
                    const auto dst = shifted(v.dst, v.ip_version, copy, !src_is_client);
                    const uint16_t sport =
                        src_is_client ? shifted_port(v.src_port, copy) : v.src_port;
                    const uint16_t dport =
                        src_is_client ? v.dst_port : shifted_port(v.dst_port, copy);
                    capture::rewrite_endpoints(frame, v, src, dst, sport, dport);
                }
                last = clock + (f.timestamp_ns - start);
                w.write(frame, last, f.wire_length);
            }
            clock = last + 1000000;  // 1 ms between captures
        }
    }
    printf("%llu packets\n", static_cast<unsigned long long>(w.packets()));
    return 0;
}

// ---- synthetic SMB2 traffic

void put16(std::vector<uint8_t> &b, size_t at, uint16_t v) {
    b[at] = static_cast<uint8_t>(v);
    b[at + 1] = static_cast<uint8_t>(v >> 8);
}
void put32(std::vector<uint8_t> &b, size_t at, uint32_t v) {
    put16(b, at, static_cast<uint16_t>(v));
    put16(b, at + 2, static_cast<uint16_t>(v >> 16));
}
void put64(std::vector<uint8_t> &b, size_t at, uint64_t v) {
    put32(b, at, static_cast<uint32_t>(v));
    put32(b, at + 4, static_cast<uint32_t>(v >> 32));
}

enum : uint16_t { kTreeConnect = 3, kCreate = 5 };

// A session message holding one SMB2 header (MS-SMB2 2.2.1.2) and the body.
std::vector<uint8_t> smb2_message(uint16_t command, bool response, uint64_t message_id,
                                  uint32_t tree_id, const std::vector<uint8_t> &body,
                                  uint32_t next_command = 0, uint32_t session_length = 0) {
    std::vector<uint8_t> m(4 + 64);
    const uint32_t length = session_length ? session_length : uint32_t(64 + body.size());
    m[1] = static_cast<uint8_t>(length >> 16);
    m[2] = static_cast<uint8_t>(length >> 8);
    m[3] = static_cast<uint8_t>(length);
    const uint8_t protocol[4] = {0xfe, 'S', 'M', 'B'};
    memcpy(&m[4], protocol, 4);
    put16(m, 4 + 4, 64);
    put16(m, 4 + 6, 1);
    put16(m, 4 + 12, command);
    put16(m, 4 + 14, 1);
    put32(m, 4 + 16, response ? 1 : 0);
    put32(m, 4 + 20, next_command);
    put64(m, 4 + 24, message_id);
    put32(m, 4 + 36, tree_id);
    put64(m, 4 + 40, 0x0000400000000001ull);
    m.insert(m.end(), body.begin(), body.end());
    return m;
}

std::vector<uint8_t> utf16(const std::string &ascii) {
    std::vector<uint8_t> out;
    for (char c : ascii) {
        out.push_back(static_cast<uint8_t>(c));
        out.push_back(0);
    }
    return out;
}

std::vector<uint8_t> tree_connect_request(const std::string &path) {
    const auto name = utf16(path);
    std::vector<uint8_t> body(8);
    put16(body, 0, 9);
    put16(body, 4, 64 + 8);
    put16(body, 6, static_cast<uint16_t>(name.size()));
    body.insert(body.end(), name.begin(), name.end());
    return body;
}

std::vector<uint8_t> tree_connect_response() {
    std::vector<uint8_t> body(16);
    put16(body, 0, 16);
    body[2] = 1;  // disk share
    put32(body, 12, 0x001f01ff);
    return body;
}

std::vector<uint8_t> create_request(const std::string &file) {
    const auto name = utf16(file);
    std::vector<uint8_t> body(56);
    put16(body, 0, 57);
    put32(body, 4, 2);            // impersonation
    put32(body, 24, 0x0012019f);  // desired access
    put32(body, 28, 0x80);        // normal file
    put32(body, 32, 7);           // share all
    put32(body, 36, 3);           // FILE_OPEN_IF
    put32(body, 40, 0x40);        // non-directory
    put16(body, 44, 64 + 56);
    put16(body, 46, static_cast<uint16_t>(name.size()));
    body.insert(body.end(), name.begin(), name.end());
    return body;
}

std::vector<uint8_t> create_response(uint64_t file_id) {
    std::vector<uint8_t> body(89);
    put16(body, 0, 89);
    put32(body, 4, 2);  // FILE_CREATED
    put32(body, 56, 0x20);
    put64(body, 64, file_id);
    put64(body, 72, ~file_id);
    return body;
}

// One TCP connection's both directions, with sequence numbers that follow the data.
class connection {
  public:
    connection(writer &w, uint64_t &clock, uint32_t index) : w_(w), clock_(clock) {
        client_ = {{10, static_cast<uint8_t>(64 + (index >> 16 & 0x3f)),
                    static_cast<uint8_t>(index >> 8), static_cast<uint8_t>(index)},
                   {198, 18, 0, 1},
                   static_cast<uint16_t>(1024 + index % 60000),
                   kSmbPort};
        server_ = {client_.dst_ip, client_.src_ip, client_.dst_port, client_.src_port};
    }
    void handshake() {
        send(true, 0x02, {});
        send(false, 0x12, {});
        send(true, 0x10, {});
    }
    void send(bool from_client, uint8_t flags, const std::vector<uint8_t> &payload) {
        uint32_t &seq = from_client ? client_seq_ : server_seq_;
        const uint32_t ack = from_client ? server_seq_ : client_seq_;
        const auto frame =
            capture::ipv4_tcp_frame(from_client ? client_ : server_, seq, ack, flags, payload);
        seq += static_cast<uint32_t>(payload.size()) + ((flags & 0x02) ? 1 : 0);
        w_.write(frame, clock_);
        clock_ += 1000;
    }
    void data(bool from_client, const std::vector<uint8_t> &payload) {
        send(from_client, 0x18, payload);
    }

  private:
    writer &w_;
    uint64_t &clock_;
    capture::tcp_endpoints client_, server_;
    uint32_t client_seq_ = 1000, server_seq_ = 5000;
};

struct synth_options {
    std::string out;
    uint64_t count = 0;
    uint32_t connections = 1000;
};

int opens(const synth_options &o, bool answered) {
    writer w(o.out);
    uint64_t clock = 1700000000ull * 1000000000u;
    const uint32_t conns = std::max<uint32_t>(1, std::min<uint64_t>(o.connections, o.count));
    const uint64_t per = (o.count + conns - 1) / conns;
    uint64_t made = 0;
    for (uint32_t c = 0; c < conns && made < o.count; ++c) {
        connection conn(w, clock, c);
        conn.handshake();
        const uint32_t tree = 1 + c;
        conn.data(true,
                  smb2_message(kTreeConnect, false, 1, 0,
                               tree_connect_request("\\\\server\\share" + std::to_string(c))));
        conn.data(false, smb2_message(kTreeConnect, true, 1, tree, tree_connect_response()));
        for (uint64_t i = 0; i < per && made < o.count; ++i, ++made) {
            const uint64_t mid = 2 + i;
            char name[64];
            snprintf(name, sizeof name, "dir\\file%09llu.dat",
                     static_cast<unsigned long long>(made));
            conn.data(true, smb2_message(kCreate, false, mid, tree, create_request(name)));
            if (answered)
                conn.data(false, smb2_message(kCreate, true, mid, tree,
                                              create_response(0x1000000000ull + made)));
        }
    }
    printf("%llu packets\n", static_cast<unsigned long long>(w.packets()));
    return 0;
}

int halfopen(const synth_options &o) {
    writer w(o.out);
    uint64_t clock = 1700000000ull * 1000000000u;
    for (uint64_t c = 0; c < o.count; ++c) {
        connection conn(w, clock, static_cast<uint32_t>(c));
        conn.send(true, 0x02, {});
        // The first 1000 bytes of a related compound request of 8000: buffered, never ended.
        auto first = smb2_message(kCreate, false, 1, 1, create_request("half-open.txt"), 200, 8000);
        first.resize(1000, 0xab);
        conn.data(true, first);
    }
    printf("%llu packets\n", static_cast<unsigned long long>(w.packets()));
    return 0;
}

[[noreturn]] void usage() {
    fprintf(stderr,
            "usage: smb_capgen replicate -o OUT -n MIN_PACKETS CAPTURE...\n"
            "       smb_capgen opens|unanswered -o OUT -n COUNT [-c CONNECTIONS]\n"
            "       smb_capgen halfopen -o OUT -n CONNECTIONS\n");
    exit(2);
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 2) usage();
    const std::string mode = argv[1];
    synth_options o;
    int opt;
    optind = 2;
    while ((opt = getopt(argc, argv, "o:n:c:")) != -1) {
        switch (opt) {
            case 'o':
                o.out = optarg;
                break;
            case 'n':
                o.count = strtoull(optarg, nullptr, 10);
                break;
            case 'c':
                o.connections = static_cast<uint32_t>(strtoul(optarg, nullptr, 10));
                break;
            default:
                usage();
        }
    }
    if (o.out.empty() || o.count == 0) usage();
    if (mode == "replicate") {
        std::vector<std::string> in(argv + optind, argv + argc);
        if (in.empty()) usage();
        return replicate(o.out, o.count, in);
    }
    if (mode == "opens") return opens(o, true);
    if (mode == "unanswered") return opens(o, false);
    if (mode == "halfopen") return halfopen(o);
    usage();
}
