// Fuzzes the payload entry with TCP segments of up to four SMB connections in both directions,
// as a host would hand them over: each segment goes through the filter hook, which parses it
// into a fresh record; the record is moved into or merged with its flow's record (found by the
// extended flow hash), and at the end every flow is post-processed, exported field by field,
// copied and freed. So reassembly of segmented messages, compound chains, request/response
// matching through the message tables and the shared tree, file and data tables are all
// reached, with small tables that collide.
//
// Input: one configuration byte (bit 0: no port filtering, bit 1: activity fields on), then
// segments in the format of segment_format.h.
#include <stdint.h>
#include <string.h>

#include <map>
#include <vector>

#include "cv_log.h"
#include "mini_host.h"
#include "fuzz_input.h"
#include "segment_format.h"
#include "smb.h"

namespace {

namespace seg = fuzz::segments;

// Small tables, so that different keys land on one slot and overwrite each other.
constexpr const char *kSizes =
    "treetable-size=1024,filetable-size=1024,messagetable-size=1024,messagetable2-size=1024,"
    "datatable-size=1024";
constexpr size_t kMaxFlows = 256;
constexpr size_t kIpv4Headers = 14 + 20 + 20;  // Ethernet, IPv4, TCP
constexpr size_t kIpv6Headers = 14 + 40 + 20;

struct flow {
    host_flow_record record{};
    host_slot slot = nullptr;
};

// Addresses and ports of one of the four client connections.
struct endpoints {
    host_addr client{}, server{};
    uint16_t client_port, server_port;
};

endpoints endpoints_of(uint8_t flags) {
    endpoints e{};
    const uint8_t client = (flags & seg::kClientMask) >> seg::kClientShift;
    if (flags & seg::kIpv6) {
        const uint8_t prefix[4] = {0x20, 0x01, 0x0d, 0xb8};
        memcpy(e.client.v6, prefix, 4);
        memcpy(e.server.v6, prefix, 4);
        e.client.v6[15] = static_cast<uint8_t>(2 + client);
        e.server.v6[15] = 1;
    } else {
        const uint8_t client_v4[4] = {198, 18, 0, static_cast<uint8_t>(2 + client)};
        const uint8_t server_v4[4] = {198, 18, 0, 1};
        memcpy(&e.client.v4, client_v4, 4);
        memcpy(&e.server.v4, server_v4, 4);
    }
    e.client_port = static_cast<uint16_t>(50000 + client);
    e.server_port = (flags & seg::kOtherPort) ? seg::kOtherServerPort : seg::kSmbPort;
    return e;
}

class session {
  public:
    explicit session(uint8_t config)
        : plugin_((std::string(kSizes) + (config & 1 ? ",port=0" : "") +
                   (config & 2 ? ",activity=1,activitytable-size=1024,conntable-size=1024" : ""))
                      .c_str()),
          queue_(plugin_.queue) {}

    ~session() {
        for (auto &[hash, f] : flows_) {
            process_smb_postprocess(plugin_.ctx, &f.record, &f.slot);
            mini_host::export_flow(&f.record, &f.slot);
            host_slot copy = nullptr;
            process_smb_release(nullptr, nullptr, &f.slot, nullptr, &copy, 1);
            process_smb_callback(nullptr, &copy);
            process_smb_callback(nullptr, &f.slot);
        }
    }

    void segment(uint8_t flags, std::span<const uint8_t> payload) {
        const endpoints e = endpoints_of(flags);
        const bool from_server = flags & seg::kFromServer;
        const bool v6 = flags & seg::kIpv6;
        const size_t headers = v6 ? kIpv6Headers : kIpv4Headers;
        const size_t length = std::min(payload.size(), size_t(0xffff) - headers);

        // Exactly the frame's bytes, so that any read past its end is caught.
        std::vector<uint8_t> frame(headers + length);
        memcpy(frame.data() + headers, payload.data(), length);

        host_packet pkt{};
        pkt.data = frame.data();
        pkt.length = static_cast<uint16_t>(frame.size());
        pkt.payload_offset = static_cast<uint16_t>(headers);
        pkt.ip_version = v6 ? 6 : 4;
        pkt.protocol = 6;
        pkt.src_addr = from_server ? e.server : e.client;
        pkt.dst_addr = from_server ? e.client : e.server;
        pkt.src_port = from_server ? e.server_port : e.client_port;
        pkt.dst_port = from_server ? e.client_port : e.server_port;
        // The direction bit is relative to the first packet the host saw on the connection.
        const uint8_t conn = flags & (seg::kClientMask | seg::kIpv6 | seg::kOtherPort);
        auto first = first_direction_.try_emplace(conn, from_server).first;
        const int d = from_server != first->second ? 1 : 0;
        pkt.flags = static_cast<uint16_t>(d ? HOST_FLAG_DIRECTION : 0);
        pkt.flow_hash = 0x9e3779b97f4a7c15ull * (conn + 1u);
        pkt.dir_counters[d] = {1, frame.size()};

        host_slot pkt_slot = nullptr;
        process_smb_filter(queue_, &pkt, nullptr, &pkt_slot);

        if (flow *f = find_flow(pkt)) {
            for (int i = 0; i < 2; ++i) {
                f->record.dir_counters[i].packets += pkt.dir_counters[i].packets;
                f->record.dir_counters[i].bytes += pkt.dir_counters[i].bytes;
            }
            if (!mini_host::update_removed(&f->record))
                process_smb_update(queue_, &pkt, &f->record, &pkt_slot, &f->slot);
        }
        process_smb_callback(nullptr, &pkt_slot);
    }

  private:
    flow *find_flow(const host_packet &pkt) {
        auto it = flows_.find(pkt.flow_hash);
        if (it != flows_.end()) return &it->second;
        if (flows_.size() == kMaxFlows) return nullptr;
        flow &f = flows_[pkt.flow_hash];
        f.record.src_addr = pkt.src_addr;
        f.record.dst_addr = pkt.dst_addr;
        f.record.src_port = pkt.src_port;
        f.record.dst_port = pkt.dst_port;
        f.record.ip_version = pkt.ip_version;
        f.record.protocol = pkt.protocol;
        f.record.flags = pkt.flags & HOST_FLAG_DIRECTION;
        return &f;
    }

    mini_host::plugin plugin_;  // shut down after the flows are exported
    smb_queue_ctx *queue_;
    std::map<uint64_t, flow> flows_;
    std::map<uint8_t, bool> first_direction_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    g_CvLogCtx.level = 0xffffffffu;
    fuzz::input in(data, size);
    session s(in.byte());
    while (!in.empty()) {
        const uint8_t flags = in.byte();
        const uint16_t length = in.u16le();
        s.segment(flags, in.bytes(length));
    }
    return 0;
}
