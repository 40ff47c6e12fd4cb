// Makes seed inputs for the payload harness from real captures: the TCP payloads of each SMB
// connection, both directions in capture order, in the harness's segment format. A long
// connection is cut into several seeds so that each stays small enough to fuzz quickly.
// Each seed starts with the harness's configuration byte.
//
//   fuzz_seeds OUT_DIR CAPTURE...
#include <stdio.h>
#include <stdlib.h>

#include <fstream>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "segment_format.h"
#include "tcp_capture.h"

namespace {

constexpr size_t kMaxSegmentsPerSeed = 48;
constexpr size_t kMaxBytesPerSeed = 48 * 1024;

using connection_key = std::tuple<std::array<uint8_t, 16>, uint16_t>;  // client address, port

struct seed_writer {
    std::string dir, stem;
    int count = 0;
    std::vector<uint8_t> bytes;
    size_t segments = 0;

    void add(uint8_t flags, const uint8_t *payload, uint32_t length) {
        if (segments == kMaxSegmentsPerSeed || bytes.size() + length + 3 > kMaxBytesPerSeed)
            flush();
        if (bytes.empty()) bytes.push_back(0);  // the harness's configuration byte: port 445
        length = std::min<uint32_t>(length, 0xffff);
        bytes.push_back(flags);
        bytes.push_back(static_cast<uint8_t>(length));
        bytes.push_back(static_cast<uint8_t>(length >> 8));
        bytes.insert(bytes.end(), payload, payload + length);
        ++segments;
    }
    void flush() {
        if (segments == 0) return;
        // Each seed once as it is and once with the activity fields on (configuration bit 1).
        for (const uint8_t config : {uint8_t(0), uint8_t(2)}) {
            bytes[0] = config;
            const std::string path = dir + "/" + stem + "-" + std::to_string(count++);
            std::ofstream out(path, std::ios::binary);
            out.write(reinterpret_cast<const char *>(bytes.data()), std::streamsize(bytes.size()));
            if (!out) {
                fprintf(stderr, "cannot write %s\n", path.c_str());
                exit(1);
            }
        }
        bytes.clear();
        segments = 0;
    }
};

std::string stem_of(const std::string &path) {
    std::string name = path.substr(path.find_last_of('/') + 1);
    return name.substr(0, name.find('.'));
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 3) {
        fprintf(stderr, "usage: %s OUT_DIR CAPTURE...\n", argv[0]);
        return 2;
    }
    int seeds = 0;
    for (int i = 2; i < argc; ++i) {
        capture::capture_file file;
        std::string error;
        if (!capture::read_capture(argv[i], file, error)) {
            fprintf(stderr, "%s: %s\n", argv[i], error.c_str());
            return 1;
        }
        std::map<connection_key, seed_writer> connections;
        for (const capture::frame &f : file.frames) {
            capture::tcp_view v;
            if (!capture::decode_tcp(f.bytes, file.link_type, v) || v.payload_length == 0) continue;
            const bool from_server = v.src_port == fuzz::segments::kSmbPort;
            if (!from_server && v.dst_port != fuzz::segments::kSmbPort) continue;
            const connection_key key =
                from_server ? connection_key{v.dst, v.dst_port} : connection_key{v.src, v.src_port};
            seed_writer &w = connections[key];
            if (w.dir.empty()) {
                w.dir = argv[1];
                w.stem = stem_of(argv[i]) + "-c" + std::to_string(connections.size());
            }
            uint8_t flags = from_server ? fuzz::segments::kFromServer : 0;
            if (v.ip_version == 6) flags |= fuzz::segments::kIpv6;
            w.add(flags, f.bytes.data() + v.payload_offset, v.payload_length);
        }
        for (auto &[key, w] : connections) {
            w.flush();
            seeds += w.count;
        }
    }
    printf("%d seeds\n", seeds);
    return 0;
}
