// Makes large or hostile captures for the throughput, memory and robustness checks. They are
// never committed: write them under build/ or /tmp.
//
//   smb_capgen replicate -o OUT -n MIN_PACKETS CAPTURE...
//       the captures again and again until at least MIN_PACKETS packets, each copy with its own
//       client and server addresses and client ports (so flows and file keys differ), times
//       running on
//   smb_capgen opens -o OUT -n FILES [-c CONNECTIONS] [-g GAP_US]
//       per connection a handshake and a TREE_CONNECT, then successful CREATEs (request and
//       response) of distinct files that are never closed: FILES in all
//   smb_capgen unanswered -o OUT -n REQUESTS [-c CONNECTIONS] [-g GAP_US]
//       CREATE requests that never get a response
//   smb_capgen halfopen -o OUT -n CONNECTIONS [-g GAP_US]
//       connections that send a SYN and the first segment of a compound request that never
//       goes on
//   smb_capgen treeslot -o OUT -n FILES
//       two connections whose tree ids fall into one slot of the plug-in's tree table at its
//       default size, opening FILES files each on their trees, their messages interleaved
//   The synthetic captures space their packets GAP_US microseconds apart (default 1).
#include <pcap/pcap.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "crc.h"
#include "frame_edit.h"
#include "smb_synth.h"
#include "tcp_capture.h"

namespace {

constexpr uint16_t kSmbPort = synth::kSmbPort;

// Microsecond pcap of Ethernet frames, as libpcap writes them.
class writer : public testnet::PcapWriter {
  public:
    explicit writer(const std::string &path) : PcapWriter(path, testnet::kEthernet, false) {}
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

struct synth_options {
    std::string out;
    uint64_t count = 0;
    uint32_t connections = 1000;
    uint64_t gap_us = 1;
};

// Frames written gap_us microseconds apart.
// Every conversation holds a copy of the sink; the copies share one clock, so that the
// capture's time runs on across conversations instead of starting over in each.
synth::frame_sink timed_sink(writer &w, uint64_t gap_us) {
    auto clock = std::make_shared<uint64_t>(1700000000ull * 1000000000u);
    return [&w, gap_us, clock](std::span<const uint8_t> frame) {
        w.write(frame, *clock);
        *clock += gap_us * 1000;
    };
}

int opens(const synth_options &o, bool answered) {
    writer w(o.out);
    synth::open_files(timed_sink(w, o.gap_us), o.count, o.connections, answered);
    printf("%llu packets\n", static_cast<unsigned long long>(w.packets()));
    return 0;
}

int halfopen(const synth_options &o) {
    writer w(o.out);
    synth::half_open(timed_sink(w, o.gap_us), o.count);
    printf("%llu packets\n", static_cast<unsigned long long>(w.packets()));
    return 0;
}

// The tree table's slot of (tree id, client address word, client port): CRC-32C of the key
// packed without padding, masked to the default 2048 slots.
uint32_t tree_slot(uint32_t tree_id, const synth::conversation &conn) {
    uint8_t key[10];
    for (int i = 0; i < 4; ++i) {
        key[i] = static_cast<uint8_t>(tree_id >> 8 * i);
        key[4 + i] = conn.client().bytes[i];  // the address word keeps the wire's byte order
    }
    key[8] = static_cast<uint8_t>(conn.client_port());
    key[9] = static_cast<uint8_t>(conn.client_port() >> 8);
    return corvaneexp_crc32c(key, sizeof key, 0) & 2047u;
}

// Which connection's tree takes the shared slot last depends, with several queues, on which
// queue runs first: the case where a checker must not expect one order.
int treeslot(const synth_options &o) {
    writer w(o.out);
    const auto sink = timed_sink(w, o.gap_us);
    synth::conversation a(sink, 0), b(sink, 1);
    const uint32_t tree_a = 1;
    uint32_t tree_b = 2;
    while (tree_slot(tree_b, b) != tree_slot(tree_a, a))
        ++tree_b;
    a.handshake();
    b.handshake();
    const std::pair<synth::conversation *, uint32_t> conns[] = {{&a, tree_a}, {&b, tree_b}};
    for (const auto &[conn, tree] : conns)
        conn->data(true, synth::smb2_message(synth::kTreeConnect, false, 1, 0,
                                             synth::tree_connect_request("\\\\server\\share" +
                                                                         std::to_string(tree))));
    for (const auto &[conn, tree] : conns)
        conn->data(false, synth::smb2_message(synth::kTreeConnect, true, 1, tree,
                                              synth::tree_connect_response()));
    for (uint64_t i = 0; i < o.count; ++i)
        for (const auto &[conn, tree] : conns) {
            const uint64_t mid = 2 + i, fid = 0x2000000000ull + tree * 1000u + i;
            const std::string name = "t" + std::to_string(tree) + "\\f" + std::to_string(i);
            conn->data(true, synth::smb2_message(synth::kCreate, false, mid, tree,
                                                 synth::create_request(name)));
            conn->data(false, synth::smb2_message(synth::kCreate, true, mid, tree,
                                                  synth::create_response(fid)));
        }
    printf("%llu packets, trees %u and %u share tree-table slot %u\n",
           static_cast<unsigned long long>(w.packets()), tree_a, tree_b, tree_slot(tree_a, a));
    return 0;
}

[[noreturn]] void usage() {
    fprintf(stderr,
            "usage: smb_capgen replicate -o OUT -n MIN_PACKETS CAPTURE...\n"
            "       smb_capgen opens|unanswered -o OUT -n COUNT [-c CONNECTIONS] [-g GAP_US]\n"
            "       smb_capgen halfopen -o OUT -n CONNECTIONS [-g GAP_US]\n"
            "       smb_capgen treeslot -o OUT -n FILES\n");
    exit(2);
}

}  // namespace

int run(int argc, char **argv) {
    if (argc < 2) usage();
    const std::string mode = argv[1];
    synth_options o;
    int opt;
    optind = 2;
    while ((opt = getopt(argc, argv, "o:n:c:g:")) != -1) {
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
            case 'g':
                o.gap_us = strtoull(optarg, nullptr, 10);
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
    if (mode == "treeslot") return treeslot(o);
    usage();
}

int main(int argc, char **argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception &e) {  // an output that cannot be written
        fprintf(stderr, "smb_capgen: %s\n", e.what());
        return 1;
    }
}
