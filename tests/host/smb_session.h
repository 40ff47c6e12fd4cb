// Whole SMB2 sessions on one TCP connection, for the host tests and the sample capture: negotiate,
// session setup, tree connect to `share`, create `file` (open an existing file, or make a new
// one), read or write, close, tree disconnect, log off, with the handshake and close of the
// connection around it. Messages from smb2_builder.h, packets from packet_builder.h.
#pragma once

#include <string>
#include <vector>

#include "packet_builder.h"

namespace testnet {

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

// The packets of several sessions in time order.
std::vector<Packet> smb2_sessions(const std::vector<SessionSpec> &sessions);

}  // namespace testnet
