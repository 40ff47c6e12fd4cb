#include "smb_session.h"

#include <algorithm>

#include "smb2_builder.h"

namespace testnet {

std::vector<Packet> smb2_session(const SessionSpec &s) {
    namespace b = smb2test;
    TcpConversation c(s.client, s.client_port, s.server, s.server_port, s.start_ns);
    const uint64_t session_id = 0x0000400000000011ull;
    const uint32_t tree = 5;
    const uint64_t fid = 0x00000000000a0001ull + s.client_port;
    uint64_t mid = 0;
    auto exchange = [&](uint16_t cmd, uint32_t request_tree, uint32_t response_tree, uint64_t sid,
                        Bytes request_body, Bytes response_body) {
        b::Message q = b::request(cmd, mid, request_tree, std::move(request_body));
        b::Message r = b::response(cmd, mid, response_tree, std::move(response_body));
        q.header.session_id = r.header.session_id = sid;
        c.client_sends(b::session(b::encode(q)));
        c.server_sends(b::session(b::encode(r)));
        ++mid;
    };
    c.handshake();
    exchange(b::NEGOTIATE, 0, 0, 0, b::request_body(b::NEGOTIATE), b::response_body(b::NEGOTIATE));
    exchange(b::SESSION_SETUP, 0, 0, 0, b::request_body(b::SESSION_SETUP),
             b::response_body(b::SESSION_SETUP));
    // Session setup gives the session id; the tree id comes with the tree connect response.
    exchange(b::TREE_CONNECT, 0, tree, session_id,
             b::tree_connect_request_body(b::utf16(std::string_view(s.share))),
             b::tree_connect_response_body());
    exchange(b::CREATE, tree, tree, session_id,
             b::create_request_body(b::utf16(std::string_view(s.file)),
                                    s.create_new ? b::FILE_CREATE : b::FILE_OPEN),
             b::create_response_body(s.create_new ? b::FILE_CREATED : b::FILE_OPENED,
                                     b::kAttributeArchive, fid));
    if (s.create_new)
        exchange(b::WRITE, tree, tree, session_id, b::write_request_body(fid, Bytes(300, 'A')),
                 b::response_body(b::WRITE));
    else
        exchange(b::READ, tree, tree, session_id, b::request_body(b::READ, fid),
                 b::read_response_body(Bytes(200, 'a')));
    for (uint16_t cmd : {b::CLOSE, b::TREE_DISCONNECT})
        exchange(cmd, tree, tree, session_id, b::request_body(cmd, fid), b::response_body(cmd));
    exchange(b::LOGOFF, 0, 0, session_id, b::request_body(b::LOGOFF), b::response_body(b::LOGOFF));
    c.close();
    return c.packets();
}

std::vector<Packet> smb2_sessions(const std::vector<SessionSpec> &sessions) {
    std::vector<Packet> all;
    for (const SessionSpec &s : sessions) {
        auto p = smb2_session(s);
        all.insert(all.end(), p.begin(), p.end());
    }
    std::stable_sort(all.begin(), all.end(),
                     [](const Packet &a, const Packet &b) { return a.ts_ns < b.ts_ns; });
    return all;
}

}  // namespace testnet
