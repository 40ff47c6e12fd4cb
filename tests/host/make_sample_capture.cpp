// Writes the small SMB2 sample capture that ships in tests/data and that the README's main job
// reads: an IPv4 client reading a file and an IPv6 client writing a new one on a file server
// (port 445), plus a DNS exchange and an ARP frame, on Ethernet. With a session count it
// writes that many sessions of different clients instead, as load for measurements.
#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "packet_builder.h"

using namespace testnet;

namespace {

const uint64_t t0 = 1709632800ull * 1'000'000'000ull;  // 2024-03-05 10:00:00 UTC

void write_load(const char *path, int sessions) {
    std::vector<Packet> all;
    for (int i = 0; i < sessions; ++i) {
        SessionSpec s;
        s.client = ipv4(10, static_cast<uint8_t>(20 + i / 60000),
                        static_cast<uint8_t>(i / 250 % 240), static_cast<uint8_t>(1 + i % 250));
        s.server = ipv4(10, 0, 0, static_cast<uint8_t>(1 + i % 4));
        s.client_port = static_cast<uint16_t>(1024 + i % 60000);
        s.start_ns = t0 + uint64_t(i) * 1'000'000;
        s.create_new = i % 2;
        s.file = "load\\file" + std::to_string(i) + ".bin";
        auto p = smb2_session(s);
        all.insert(all.end(), p.begin(), p.end());
    }
    std::stable_sort(all.begin(), all.end(),
                     [](const Packet &a, const Packet &b) { return a.ts_ns < b.ts_ns; });
    write_pcap(path, kEthernet, frames_of(kEthernet, all), false);
}

}  // namespace

int main(int argc, char **argv) {
    if (argc != 2 && argc != 3) {
        fprintf(stderr, "usage: %s OUT.pcap [SESSIONS]\n", argv[0]);
        return 2;
    }
    if (argc == 3) {
        write_load(argv[1], atoi(argv[2]));
        return 0;
    }

    SessionSpec reader;
    reader.client = ipv4(192, 168, 56, 10);
    reader.server = ipv4(192, 168, 56, 20);
    reader.client_port = 49732;
    reader.start_ns = t0 + 100'000'000;
    reader.share = "\\\\fileserver\\public";
    reader.file = "docs\\report.txt";

    SessionSpec writer;
    writer.client = ipv6("fd00:56::10");
    writer.server = ipv6("fd00:56::20");
    writer.client_port = 50110;
    writer.start_ns = t0 + 2'000'000'000;
    writer.share = "\\\\fileserver\\projects";
    writer.file = "reports\\q1.csv";
    writer.create_new = true;

    std::vector<FrameRecord> frames;
    const Bytes arp = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 2, 0, 0, 0, 0,   1,   0x08, 0x06,
                       0,    1,    8,    0,    6,    4,    0, 1, 2, 0, 0,   0,   0,    1,
                       192,  168,  56,   10,   0,    0,    0, 0, 0, 0, 192, 168, 56,   20};
    frames.push_back({t0, arp, 0});
    const Bytes query = {0x12, 0x34, 1,   0,   0,   1,   0,   0,   0,   0, 0, 0, 10, 'f',
                         'i',  'l',  'e', 's', 'e', 'r', 'v', 'e', 'r', 0, 0, 1, 0,  1};
    Bytes answer = query;
    answer[2] = 0x81;
    answer[3] = 0x80;
    answer[7] = 1;
    const Bytes rr = {0xc0, 0x0c, 0, 1, 0, 1, 0, 0, 0, 60, 0, 4, 192, 168, 56, 20};
    answer.insert(answer.end(), rr.begin(), rr.end());
    frames.push_back({t0 + 20'000'000,
                      frame(kEthernet, udp_datagram(ipv4(192, 168, 56, 10), ipv4(192, 168, 56, 1),
                                                    53001, 53, query)),
                      0});
    frames.push_back({t0 + 21'000'000,
                      frame(kEthernet, udp_datagram(ipv4(192, 168, 56, 1), ipv4(192, 168, 56, 10),
                                                    53, 53001, answer)),
                      0});
    for (const auto &segment : {reader, writer}) {
        auto f = frames_of(kEthernet, smb2_session(segment));
        frames.insert(frames.end(), f.begin(), f.end());
    }
    std::stable_sort(frames.begin(), frames.end(),
                     [](const FrameRecord &a, const FrameRecord &b) { return a.ts_ns < b.ts_ns; });
    write_pcap(argv[1], kEthernet, frames, false);
    return 0;
}
