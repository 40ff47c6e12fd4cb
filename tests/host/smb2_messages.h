// SMB2 messages as MS-SMB2 lays them out, each framed with the 4-byte NetBIOS session header
// (direct TCP transport), and whole SMB2 sessions built from them.
#pragma once

#include <string>

#include "packet_builder.h"

namespace testnet {

struct Smb2Header {
    uint16_t command = 0;
    uint64_t message_id = 0;
    uint32_t tree_id = 0;
    uint64_t session_id = 0;
    bool response = false;
    uint32_t status = 0;
};

Bytes utf16le(const std::string &ascii);

// One framed message: session header, 64-byte SMB2 header, body.
Bytes smb2_message(const Smb2Header &h, const Bytes &body);

Bytes negotiate_request();
Bytes negotiate_response();
Bytes session_setup_request();
Bytes session_setup_response();
Bytes tree_connect_request(const std::string &path);
Bytes tree_connect_response();
// disposition: FILE_OPEN 1, FILE_CREATE 2, ...; options: CreateOptions.
Bytes create_request(const std::string &name, uint32_t disposition, uint32_t options = 0);
Bytes create_response(uint32_t action, uint32_t attributes, uint64_t persistent_id,
                      uint64_t volatile_id);
Bytes read_request(uint64_t persistent_id, uint64_t volatile_id, uint32_t length);
Bytes read_response(uint32_t length);
Bytes write_request(uint64_t persistent_id, uint64_t volatile_id, uint32_t length);
Bytes write_response(uint32_t length);
Bytes close_request(uint64_t persistent_id, uint64_t volatile_id);
Bytes close_response();
Bytes tree_disconnect_body();
Bytes logoff_body();

// A whole session on one TCP connection: negotiate, session setup, tree connect to `share`,
// create `file` (open an existing file, or make a new one), read or write, close, tree
// disconnect, log off, with the handshake and close of the connection around it.
struct SessionSpec {
    Addr client, server;
    uint16_t client_port = 49732;
    uint16_t server_port = 445;
    std::string share = "\\\\fileserver\\public";
    std::string file = "docs\\report.txt";
    bool create_new = false;  // FILE_CREATE and a WRITE instead of FILE_OPEN and a READ
    uint64_t start_ns = 0;
};

std::vector<Packet> smb2_session(const SessionSpec &session);

}  // namespace testnet
