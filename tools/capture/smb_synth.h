// Synthetic SMB2 traffic for generated captures and in-process floods: TREE_CONNECT and CREATE
// messages from the shared builder (smb2_builder.h) on TCP conversations (packet_builder.h)
// handed out as Ethernet/IPv4 frames with valid checksums.
#pragma once

#include <stdint.h>

#include <functional>
#include <span>
#include <string>
#include <vector>

#include "packet_builder.h"

namespace synth {

constexpr uint16_t kSmbPort = 445;
enum : uint16_t { kTreeConnect = 3, kCreate = 5 };

// A session message: 4-byte session header (length 64 + body, or session_length when given,
// which may announce more bytes than follow), the SMB2 header, the body.
std::vector<uint8_t> smb2_message(uint16_t command, bool response, uint64_t message_id,
                                  uint32_t tree_id, const std::vector<uint8_t> &body,
                                  uint32_t next_command = 0, uint32_t session_length = 0);

std::vector<uint8_t> tree_connect_request(const std::string &path);
std::vector<uint8_t> tree_connect_response();
// FILE_OPEN_IF of a non-directory file.
std::vector<uint8_t> create_request(const std::string &file);
// FILE_CREATED of a normal file with the given persistent file id.
std::vector<uint8_t> create_response(uint64_t file_id);

using frame_sink = std::function<void(std::span<const uint8_t> frame)>;

// One TCP connection between client 10.64+.x.y (port from the index) and 198.18.0.1:445.
class conversation {
  public:
    conversation(frame_sink sink, uint32_t index);
    void handshake();
    void send(bool from_client, uint8_t tcp_flags, std::span<const uint8_t> payload);
    void data(bool from_client, std::span<const uint8_t> payload) {
        send(from_client, testnet::PSH | testnet::ACK, payload);
    }
    const testnet::Addr &client() const { return client_; }
    uint16_t client_port() const { return client_port_; }

  private:
    void flush();  // frames the conversation's new packets for the sink
    frame_sink sink_;
    testnet::Addr client_;
    uint16_t client_port_;
    testnet::TcpConversation tcp_;
};

// Per connection a handshake and a TREE_CONNECT, then `count` CREATEs in all over the
// connections (a file name and file id of their own each), answered or not.
void open_files(const frame_sink &sink, uint64_t count, uint32_t connections, bool answered);

// Per connection a SYN and the first 1000 bytes of an 8000-byte compound request that never
// goes on.
void half_open(const frame_sink &sink, uint64_t connections);

}  // namespace synth
