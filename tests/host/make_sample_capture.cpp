// Writes the small SMB2 sample capture that ships in tests/data and that the README's main job
// reads: an IPv4 client reading a file and an IPv6 client writing a new one on a file server
// (port 445), plus a DNS exchange and an ARP frame, on Ethernet.
#include <algorithm>
#include <cstdio>

#include "smb_session.h"

using namespace testnet;

const uint64_t t0 = 1709632800ull * 1'000'000'000ull;  // 2024-03-05 10:00:00 UTC

int main(int argc, char **argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s OUT.pcap\n", argv[0]);
        return 2;
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
