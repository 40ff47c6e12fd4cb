#include "smb_synth.h"

#include <stdio.h>
#include <string.h>

#include <algorithm>

namespace synth {

namespace {

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

std::vector<uint8_t> utf16(const std::string &ascii) {
    std::vector<uint8_t> out;
    for (char c : ascii) {
        out.push_back(static_cast<uint8_t>(c));
        out.push_back(0);
    }
    return out;
}

// Client ports scattered over the ephemeral range as real clients pick them, rather than
// counting up in step with the addresses.
uint16_t ephemeral_port(uint32_t index) {
    return static_cast<uint16_t>(32768 + (index * 2654435761u >> 12) % 28232);
}

}  // namespace

std::vector<uint8_t> smb2_message(uint16_t command, bool response, uint64_t message_id,
                                  uint32_t tree_id, const std::vector<uint8_t> &body,
                                  uint32_t next_command, uint32_t session_length) {
    std::vector<uint8_t> m(4 + 64);
    const uint32_t length = session_length ? session_length : uint32_t(64 + body.size());
    m[1] = static_cast<uint8_t>(length >> 16);
    m[2] = static_cast<uint8_t>(length >> 8);
    m[3] = static_cast<uint8_t>(length);
    const uint8_t protocol[4] = {0xfe, 'S', 'M', 'B'};
    memcpy(&m[4], protocol, 4);
    put16(m, 4 + 4, 64);  // StructureSize
    put16(m, 4 + 6, 1);   // CreditCharge
    put16(m, 4 + 12, command);
    put16(m, 4 + 14, 1);  // CreditRequest
    put32(m, 4 + 16, response ? 1 : 0);
    put32(m, 4 + 20, next_command);
    put64(m, 4 + 24, message_id);
    put32(m, 4 + 36, tree_id);
    put64(m, 4 + 40, 0x0000400000000001ull);  // SessionId
    m.insert(m.end(), body.begin(), body.end());
    return m;
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
    body[2] = 1;                  // disk share
    put32(body, 12, 0x001f01ff);  // MaximalAccess
    return body;
}

std::vector<uint8_t> create_request(const std::string &file) {
    const auto name = utf16(file);
    std::vector<uint8_t> body(56);
    put16(body, 0, 57);
    put32(body, 4, 2);            // ImpersonationLevel
    put32(body, 24, 0x0012019f);  // DesiredAccess
    put32(body, 28, 0x80);        // FILE_ATTRIBUTE_NORMAL
    put32(body, 32, 7);           // share all
    put32(body, 36, 3);           // FILE_OPEN_IF
    put32(body, 40, 0x40);        // FILE_NON_DIRECTORY_FILE
    put16(body, 44, 64 + 56);     // NameOffset
    put16(body, 46, static_cast<uint16_t>(name.size()));
    body.insert(body.end(), name.begin(), name.end());
    return body;
}

std::vector<uint8_t> create_response(uint64_t file_id) {
    std::vector<uint8_t> body(89);
    put16(body, 0, 89);
    put32(body, 4, 2);      // FILE_CREATED
    put32(body, 56, 0x20);  // FILE_ATTRIBUTE_ARCHIVE
    put64(body, 64, file_id);
    put64(body, 72, ~file_id);
    return body;
}

conversation::conversation(frame_sink sink, uint32_t index) : sink_(std::move(sink)) {
    client_ = {{10, static_cast<uint8_t>(64 + (index >> 16 & 0x3f)),
                static_cast<uint8_t>(index >> 8), static_cast<uint8_t>(index)},
               {198, 18, 0, 1},
               ephemeral_port(index),
               kSmbPort};
    server_ = {client_.dst_ip, client_.src_ip, client_.dst_port, client_.src_port};
}

void conversation::handshake() {
    send(true, 0x02, {});
    send(false, 0x12, {});
    send(true, 0x10, {});
}

void conversation::send(bool from_client, uint8_t flags, std::span<const uint8_t> payload) {
    uint32_t &seq = from_client ? client_seq_ : server_seq_;
    const uint32_t ack = from_client ? server_seq_ : client_seq_;
    const auto frame =
        capture::ipv4_tcp_frame(from_client ? client_ : server_, seq, ack, flags, payload);
    seq += static_cast<uint32_t>(payload.size()) + ((flags & 0x02) ? 1 : 0);
    sink_(frame);
}

void open_files(const frame_sink &sink, uint64_t count, uint32_t connections, bool answered) {
    const uint32_t conns =
        static_cast<uint32_t>(std::max<uint64_t>(1, std::min<uint64_t>(connections, count)));
    const uint64_t per = (count + conns - 1) / conns;
    uint64_t made = 0;
    for (uint32_t c = 0; c < conns && made < count; ++c) {
        conversation conn(sink, c);
        conn.handshake();
        const uint32_t tree = 1 + c;
        conn.data(true,
                  smb2_message(kTreeConnect, false, 1, 0,
                               tree_connect_request("\\\\server\\share" + std::to_string(c))));
        conn.data(false, smb2_message(kTreeConnect, true, 1, tree, tree_connect_response()));
        for (uint64_t i = 0; i < per && made < count; ++i, ++made) {
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
}

void half_open(const frame_sink &sink, uint64_t connections) {
    for (uint64_t c = 0; c < connections; ++c) {
        conversation conn(sink, static_cast<uint32_t>(c));
        conn.send(true, 0x02, {});
        auto first = smb2_message(kCreate, false, 1, 1, create_request("half-open.txt"), 200, 8000);
        first.resize(1000, 0xab);
        conn.data(true, first);
    }
}

}  // namespace synth
