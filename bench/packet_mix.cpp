#include "packet_mix.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "cv_log.h"
#include "mini_host.h"
#include "smb_activity.h"
#include "smb_parser.h"
#include "tcp_capture.h"

namespace bench {

namespace {

constexpr uint16_t kSmbPort = 445;

bool is_create_or_close(const packet &p) {
    const host_packet &d = p.descriptor;
    const uint8_t *payload = p.frame.data() + d.payload_offset;  // data is set later
    const size_t n = d.length - d.payload_offset;
    if (n < 4 + 64 || memcmp(payload + 4, "\xfeSMB", 4) != 0) return false;
    const uint16_t command = static_cast<uint16_t>(payload[4 + 12] | payload[4 + 13] << 8);
    return command == SMB2_CREATE || command == SMB2_CLOSE;
}

// The descriptor a host fills for one frame: addresses, ports, payload, the packet's own
// counters, a flow hash of the connection and the direction relative to its first packet.
bool describe(const capture::frame &f, int link_type, packet &out) {
    capture::tcp_view v;
    if (!capture::decode_tcp(f.bytes, link_type, v)) return false;
    if (v.src_port != kSmbPort && v.dst_port != kSmbPort) return false;
    if (f.bytes.size() > 0xffff) return false;
    out.frame = f.bytes;
    host_packet &d = out.descriptor;
    d.length = static_cast<uint16_t>(v.payload_offset + v.payload_length);
    d.payload_offset = v.payload_offset;
    d.ip_version = v.ip_version;
    d.protocol = 6;
    if (v.ip_version == 4) {
        memcpy(&d.src_addr.v4, v.src.data(), 4);
        memcpy(&d.dst_addr.v4, v.dst.data(), 4);
    } else {
        memcpy(d.src_addr.v6, v.src.data(), 16);
        memcpy(d.dst_addr.v6, v.dst.data(), 16);
    }
    d.src_port = v.src_port;
    d.dst_port = v.dst_port;
    d.tcp_flags = v.tcp_flags;
    d.timestamp_ns = f.timestamp_ns;
    const bool from_server = v.src_port == kSmbPort;
    d.flags = from_server ? HOST_FLAG_DIRECTION : 0;
    const uint16_t client_port = from_server ? v.dst_port : v.src_port;
    d.flow_hash = 0x9e3779b97f4a7c15ull * (client_port + 1u);
    d.dir_counters[from_server ? 1 : 0] = {1, f.wire_length};
    return true;
}

std::vector<packet> read_packets(const std::string &path) {
    capture::capture_file file;
    std::string error;
    if (!capture::read_capture(path, file, error)) {
        fprintf(stderr, "%s: %s\n", path.c_str(), error.c_str());
        exit(1);
    }
    std::vector<packet> out;
    for (const capture::frame &f : file.frames) {
        packet p;
        if (describe(f, file.link_type, p)) out.push_back(std::move(p));
    }
    return out;
}

void append(mix &m, const std::vector<packet> &packets, bool (*keep)(const packet &) = nullptr) {
    for (const packet &p : packets)
        if (!keep || keep(p)) m.packets.push_back(p);
}

}  // namespace

std::vector<mix> load_mixes(const std::string &dir) {
    g_CvLogCtx.level = CVLOG_WARN;  // the plug-in's notices stay out of the figures
    auto read = [&](const char *name) { return read_packets(dir + "/" + name); };
    const auto large_io = read("large_io.pcap");
    const auto compound = read("compound.pcap");
    const auto compound_segmented = read("compound_segmented.pcap");
    const auto encrypted = read("smb3_encrypted.pcap");
    const auto smb1 = read("smb1_ops.pcap");
    const auto smb2_ops = read("smb2_ops.pcap");
    const auto smb3_ops = read("smb3_ops.pcap");
    const auto ipv6_ops = read("ipv6_ops.pcap");
    const auto names = read("names.pcap");

    std::vector<mix> mixes(6);
    mixes[0].name = "read_write";
    append(mixes[0], large_io);
    mixes[1].name = "create_close";
    for (const auto *ops : {&smb2_ops, &smb3_ops, &ipv6_ops, &names})
        append(mixes[1], *ops, is_create_or_close);
    mixes[2].name = "compound";
    append(mixes[2], compound);
    append(mixes[2], compound_segmented);
    mixes[3].name = "encrypted";
    append(mixes[3], encrypted);
    mixes[4].name = "smb1";
    append(mixes[4], smb1);
    mixes[5].name = "all";
    for (const auto *all : {&large_io, &compound, &compound_segmented, &encrypted, &smb1, &smb2_ops,
                            &smb3_ops, &ipv6_ops, &names})
        append(mixes[5], *all);
    // The descriptors point into the frames only now that the frames have stopped moving.
    for (mix &m : mixes)
        for (packet &p : m.packets)
            p.descriptor.data = p.frame.data();
    return mixes;
}

void run_filter(smb_queue_ctx *q, const packet &p) {
    host_packet pkt = p.descriptor;
    host_slot slot = nullptr;
    process_smb_filter(q, &pkt, nullptr, &slot);
    process_smb_callback(nullptr, &slot);
}

int32_t run_parse(smb_queue_ctx *q, const packet &p) {
    host_packet pkt = p.descriptor;
    if (q->activity) {
        // As the filter hook does it: the counters beside the record.
        smb_record_block block;
        smb_record_init(&block.rec);
        block.activity = smb_activity{};
        block.rec.activity = &block.activity;
        const int32_t r = smb_parse_packet(&pkt, &block.rec, q, pkt.data + pkt.payload_offset);
        smb_record_release(&block.rec);
        return r;
    }
    smb_flow_data rec;
    smb_record_init(&rec);
    const int32_t r = smb_parse_packet(&pkt, &rec, q, pkt.data + pkt.payload_offset);
    free(rec.file_name);
    free(rec.tree_name);
    return r;
}

}  // namespace bench
