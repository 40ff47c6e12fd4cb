// A queue context with real tables, and helpers that run the parser on built traffic and read
// back what it left in the tables.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "crc.h"
#include "smb2_builder.h"
#include "smb_data_table.h"
#include "smb_file_table.h"
#include "smb_message_table.h"
#include "smb_message_table2.h"
#include "smb_parser.h"
#include "smb_tree_table.h"
#include "support/names.h"
#include "host_interface.h"

namespace smb2test {

inline constexpr uint32_t kCmdLow = 0x000000ff;
inline uint32_t bit(uint16_t command) {
    return 1u << (8 + command);
}

// A record as the queue filter hook hands it to the parser, freed with its names.
struct Record {
    smb_flow_data rec;
    Record() { smb_record_init(&rec); }
    ~Record() { smb_record_release(&rec); }
    Record(const Record &) = delete;
    Record &operator=(const Record &) = delete;
    smb_flow_data *operator->() { return &rec; }
};

// IPv4 address with the bytes in wire order.
constexpr uint32_t ipv4(uint8_t a, uint8_t b, uint8_t c, uint8_t d) {
    const uint8_t bytes[4] = {a, b, c, d};
    return std::bit_cast<uint32_t>(bytes);
}

// The two ends of a TCP connection.
struct Endpoints {
    uint8_t ip_version = 4;
    host_addr client{.v4 = ipv4(10, 1, 2, 3)};
    host_addr server{.v4 = ipv4(10, 9, 9, 9)};
    uint16_t client_port = 50000;
    uint16_t server_port = 445;
};

enum class Dir { to_server, to_client };

inline constexpr uint64_t kSeed = 0x0123456789abcdefull;  // every packet's flow hash as built

// A captured TCP packet: link, IP and TCP headers as filler, then the payload. The host
// descriptor points into the packet's own bytes; the direction bit is 0 towards the server.
class Packet {
  public:
    static constexpr uint16_t kHeadersSize = 54;

    // Returned by value only where the copy is elided: the descriptor points into bytes_.
    Packet(const Endpoints &ends, Dir dir, const Bytes &payload)
        : bytes_(kHeadersSize + payload.size(), 0) {
        std::copy(payload.begin(), payload.end(), bytes_.begin() + kHeadersSize);
        const bool to_server = dir == Dir::to_server;
        pkt_.data = bytes_.data();
        pkt_.length = uint16_t(bytes_.size());
        pkt_.payload_offset = kHeadersSize;
        pkt_.ip_version = ends.ip_version;
        pkt_.protocol = 6;
        pkt_.src_addr = to_server ? ends.client : ends.server;
        pkt_.dst_addr = to_server ? ends.server : ends.client;
        pkt_.src_port = to_server ? ends.client_port : ends.server_port;
        pkt_.dst_port = to_server ? ends.server_port : ends.client_port;
        pkt_.flags = to_server ? 0 : HOST_FLAG_DIRECTION;
        pkt_.flow_hash = kSeed;
        counters() = {1, bytes_.size()};
    }
    Packet(const Packet &) = delete;
    Packet &operator=(const Packet &) = delete;

    host_packet &pkt() { return pkt_; }
    const uint8_t *payload() const { return bytes_.data() + kHeadersSize; }
    size_t payload_size() const { return bytes_.size() - kHeadersSize; }
    // The counters of the packet's own direction.
    host_counters &counters() { return pkt_.dir_counters[pkt_.flags & HOST_FLAG_DIRECTION]; }

  private:
    Bytes bytes_;
    host_packet pkt_{};
};

using testnames::Name;
using testnames::name_of;

class ParserHarness {
  public:
    explicit ParserHarness(uint16_t port = 445) {
        q_.port = port;
        q_.treetable = treetable_create(1024);
        q_.filetable = filetable_create(1024);
        q_.datatable = datatable_create(1024);
        q_.messagetable = messagetable_create(1024);
        q_.messagetable2 = messagetable2_create(1024);
    }
    ~ParserHarness() {
        messagetable2_free(q_.messagetable2);
        messagetable_free(q_.messagetable);
        datatable_free(q_.datatable);
        filetable_free(q_.filetable);
        treetable_free(q_.treetable);
    }

    smb_queue_ctx &q() { return q_; }
    Endpoints &ends() { return ends_; }
    uint32_t client() const { return smb_client_addr32(&ends_.client, ends_.ip_version); }
    uint16_t client_port() const { return ends_.client_port; }

    Packet to_server(const Bytes &payload) { return Packet(ends_, Dir::to_server, payload); }
    Packet to_client(const Bytes &payload) { return Packet(ends_, Dir::to_client, payload); }

    // Parses one packet. Its record and flow hash stay until the next parse.
    int32_t parse(Packet &p) {
        rec_ = std::make_unique<Record>();
        const int32_t r = smb_parse_packet(&p.pkt(), &rec_->rec, &q_, p.payload());
        hash_ = p.pkt().flow_hash;
        return r;
    }
    int32_t parse_to_server(const Bytes &payload) {
        Packet p = to_server(payload);
        return parse(p);
    }
    int32_t parse_to_client(const Bytes &payload) {
        Packet p = to_client(payload);
        return parse(p);
    }
    // Frames one message or chain and sends it in the direction its first header names.
    int32_t send(const Bytes &smb2) {
        const bool response = smb2.size() > 16 && (smb2[16] & kResponse);
        Packet p = response ? to_client(session(smb2)) : to_server(session(smb2));
        return parse(p);
    }
    int32_t send(const Message &m) { return send(encode(m)); }
    Record &rec() { return *rec_; }
    uint64_t hash() const { return hash_; }

    // Table views.
    const uint8_t *message_name(uint64_t id, uint8_t *op = nullptr, uint32_t *tree = nullptr,
                                uint32_t *commands = nullptr, uint64_t *linked = nullptr) {
        return messagetable_get_name(q_.messagetable, client(), client_port(), id, op, tree,
                                     commands, linked);
    }
    uint64_t message2_file(uint64_t id, uint32_t *tree = nullptr, uint8_t *del = nullptr) {
        return messagetable2_get_file_id(q_.messagetable2, client(), client_port(), id, tree, del);
    }
    const uint8_t *tree_name(uint32_t tree, uint32_t *pending = nullptr) {
        return treetable_get_tree(q_.treetable, client(), client_port(), tree, pending);
    }
    struct FileView {
        bool found = false;
        Name name;
        uint8_t type = 0, op = 0, name_empty = 0;
        uint32_t pending[2] = {0, 0};
    };
    FileView file(uint64_t file_id) {
        FileView v;
        const uint8_t *n = filetable_get_file(q_.filetable, client(), client_port(), file_id,
                                              &v.type, &v.op, v.pending, &v.name_empty);
        v.found = n != nullptr;
        v.name = name_of(n);
        return v;
    }
    int delete_flag(uint64_t file_id, uint8_t selector) {
        return filetable_get_delete_flag(q_.filetable, client(), client_port(), file_id, selector);
    }

  private:
    Endpoints ends_;
    smb_queue_ctx q_{};
    std::unique_ptr<Record> rec_ = std::make_unique<Record>();
    uint64_t hash_ = 0;
};

// Expected hash folds, computed from the bytes that should be folded.
inline uint64_t fold_le(uint64_t seed, std::initializer_list<std::pair<uint64_t, int>> fields) {
    uint8_t bytes[16];
    int n = 0;
    for (auto [value, width] : fields)
        for (int i = 0; i < width; ++i)
            bytes[n++] = uint8_t(value >> (8 * i));
    return corvaneexp_crc64(bytes, n, seed);
}
inline uint64_t fold_tree(uint64_t seed, uint32_t tree) {
    return fold_le(seed, {{tree, 4}});
}
inline uint64_t fold_tree_file(uint64_t seed, uint32_t tree, uint64_t file) {
    return fold_le(seed, {{tree, 4}, {file, 8}});
}
inline uint64_t fold_message(uint64_t seed, uint64_t id) {
    return fold_le(seed, {{id, 8}});
}

}  // namespace smb2test
