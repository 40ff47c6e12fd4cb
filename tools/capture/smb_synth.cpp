#include "smb_synth.h"

#include <stdio.h>

#include <algorithm>

#include "frame_edit.h"
#include "smb2_builder.h"

namespace synth {

namespace {

// Client ports scattered over the ephemeral range as real clients pick them, rather than
// counting up in step with the addresses.
uint16_t ephemeral_port(uint32_t index) {
    return static_cast<uint16_t>(32768 + (index * 2654435761u >> 12) % 28232);
}

}  // namespace

std::vector<uint8_t> smb2_message(uint16_t command, bool response, uint64_t message_id,
                                  uint32_t tree_id, const std::vector<uint8_t> &body,
                                  uint32_t next_command, uint32_t session_length) {
    smb2test::Message m = response ? smb2test::response(command, message_id, tree_id, body)
                                   : smb2test::request(command, message_id, tree_id, body);
    m.header.next_command = next_command;
    const smb2test::Bytes data = smb2test::encode(m);
    return smb2test::session_with_word(data,
                                       session_length ? session_length : uint32_t(data.size()));
}

std::vector<uint8_t> tree_connect_request(const std::string &path) {
    return smb2test::tree_connect_request_body(smb2test::utf16(std::string_view(path)));
}

std::vector<uint8_t> tree_connect_response() {
    return smb2test::tree_connect_response_body();
}

std::vector<uint8_t> create_request(const std::string &file) {
    return smb2test::create_request_body(smb2test::utf16(std::string_view(file)),
                                         smb2test::FILE_OPEN_IF, smb2test::kFileNonDirectory);
}

std::vector<uint8_t> create_response(uint64_t file_id) {
    return smb2test::create_response_body(smb2test::FILE_CREATED, smb2test::kAttributeArchive,
                                          file_id);
}

conversation::conversation(frame_sink sink, uint32_t index)
    : sink_(std::move(sink)),
      client_(testnet::ipv4(10, static_cast<uint8_t>(64 + (index >> 16 & 0x3f)),
                            static_cast<uint8_t>(index >> 8), static_cast<uint8_t>(index))),
      client_port_(ephemeral_port(index)),
      tcp_(client_, client_port_, testnet::ipv4(198, 18, 0, 1), kSmbPort, 0) {}

void conversation::handshake() {
    tcp_.handshake();
    flush();
}

void conversation::send(bool from_client, uint8_t flags, std::span<const uint8_t> payload) {
    tcp_.send(from_client, flags, payload);
    flush();
}

void conversation::flush() {
    for (const testnet::Packet &p : tcp_.packets()) {
        testnet::Bytes f = testnet::frame(testnet::kEthernet, p.ip);
        capture::tcp_view v;
        if (capture::decode_tcp(f, testnet::kEthernet, v)) capture::fix_checksums(f, v);
        sink_(f);
    }
    tcp_.packets().clear();
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
        conn.send(true, testnet::SYN, {});
        auto first = smb2_message(kCreate, false, 1, 1, create_request("half-open.txt"), 200, 8000);
        first.resize(1000, 0xab);
        conn.data(true, first);
    }
}

}  // namespace synth
