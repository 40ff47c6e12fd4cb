#include "smb2_messages.h"

#include <algorithm>

namespace testnet {

namespace {

void le16(Bytes &b, uint16_t v) {
    b.push_back(v & 0xff);
    b.push_back(v >> 8);
}
void le32(Bytes &b, uint32_t v) {
    le16(b, v & 0xffff);
    le16(b, v >> 16);
}
void le64(Bytes &b, uint64_t v) {
    le32(b, v & 0xffffffff);
    le32(b, v >> 32);
}
void zeros(Bytes &b, size_t n) {
    b.insert(b.end(), n, 0);
}
void file_id(Bytes &b, uint64_t persistent, uint64_t vol) {
    le64(b, persistent);
    le64(b, vol);
}

enum : uint16_t {
    kNegotiate = 0,
    kSessionSetup = 1,
    kLogoff = 2,
    kTreeConnect = 3,
    kTreeDisconnect = 4,
    kCreate = 5,
    kClose = 6,
    kRead = 8,
    kWrite = 9,
};

constexpr uint64_t kFileTime = 0x01d9a0b0c0d0e0f0ull;

}  // namespace

Bytes utf16le(const std::string &ascii) {
    Bytes out;
    for (unsigned char c : ascii)
        le16(out, c);
    return out;
}

Bytes smb2_message(const Smb2Header &h, const Bytes &body) {
    Bytes smb = {0xfe, 'S', 'M', 'B'};
    le16(smb, 64);                    // StructureSize
    le16(smb, 1);                     // CreditCharge
    le32(smb, h.status);              // Status
    le16(smb, h.command);             // Command
    le16(smb, 1);                     // CreditRequest/CreditResponse
    le32(smb, h.response ? 1u : 0u);  // Flags: SMB2_FLAGS_SERVER_TO_REDIR
    le32(smb, 0);                     // NextCommand
    le64(smb, h.message_id);          // MessageId
    le32(smb, 0xfeff);                // Reserved (ProcessId)
    le32(smb, h.tree_id);             // TreeId
    le64(smb, h.session_id);          // SessionId
    zeros(smb, 16);                   // Signature
    smb.insert(smb.end(), body.begin(), body.end());
    // NetBIOS session message: type 0, then the 24-bit length.
    const uint32_t header = static_cast<uint32_t>(smb.size()) & 0x00ffffff;
    Bytes out(4 + smb.size());
    for (int i = 0; i < 4; ++i)
        out[i] = static_cast<uint8_t>(header >> (24 - 8 * i));
    std::copy(smb.begin(), smb.end(), out.begin() + 4);
    return out;
}

Bytes negotiate_request() {
    Bytes b;
    le16(b, 36);  // StructureSize
    le16(b, 2);   // DialectCount
    le16(b, 1);   // SecurityMode: signing enabled
    le16(b, 0);
    le32(b, 0x7f);  // Capabilities
    for (int i = 0; i < 16; ++i)
        b.push_back(0x40 + i);  // ClientGuid
    le64(b, 0);                 // ClientStartTime
    le16(b, 0x0202);
    le16(b, 0x0210);
    return b;
}

Bytes negotiate_response() {
    Bytes b;
    le16(b, 65);
    le16(b, 1);       // SecurityMode
    le16(b, 0x0210);  // DialectRevision
    le16(b, 0);
    for (int i = 0; i < 16; ++i)
        b.push_back(0x80 + i);  // ServerGuid
    le32(b, 0x2f);              // Capabilities
    le32(b, 8 << 20);           // MaxTransactSize
    le32(b, 8 << 20);           // MaxReadSize
    le32(b, 8 << 20);           // MaxWriteSize
    le64(b, kFileTime);         // SystemTime
    le64(b, 0);                 // ServerStartTime
    le16(b, 128);               // SecurityBufferOffset
    le16(b, 0);                 // SecurityBufferLength
    le32(b, 0);
    b.push_back(0);
    return b;
}

Bytes session_setup_request() {
    const Bytes token = {0x60, 0x06, 0x06, 0x04, 0x2b, 0x06, 0x01, 0x05};
    Bytes b;
    le16(b, 25);
    b.push_back(0);  // Flags
    b.push_back(1);  // SecurityMode
    le32(b, 1);      // Capabilities
    le32(b, 0);      // Channel
    le16(b, 88);     // SecurityBufferOffset
    le16(b, static_cast<uint16_t>(token.size()));
    le64(b, 0);  // PreviousSessionId
    b.insert(b.end(), token.begin(), token.end());
    return b;
}

Bytes session_setup_response() {
    const Bytes token = {0xa1, 0x06, 0x30, 0x04, 0xa0, 0x02, 0x0a, 0x00};
    Bytes b;
    le16(b, 9);
    le16(b, 0);   // SessionFlags
    le16(b, 72);  // SecurityBufferOffset
    le16(b, static_cast<uint16_t>(token.size()));
    b.insert(b.end(), token.begin(), token.end());
    return b;
}

Bytes tree_connect_request(const std::string &path) {
    const Bytes name = utf16le(path);
    Bytes b;
    le16(b, 9);
    le16(b, 0);   // Flags
    le16(b, 72);  // PathOffset
    le16(b, static_cast<uint16_t>(name.size()));
    b.insert(b.end(), name.begin(), name.end());
    return b;
}

Bytes tree_connect_response() {
    Bytes b;
    le16(b, 16);
    b.push_back(1);  // ShareType: disk
    b.push_back(0);
    le32(b, 0);           // ShareFlags
    le32(b, 0);           // Capabilities
    le32(b, 0x001f01ff);  // MaximalAccess
    return b;
}

Bytes create_request(const std::string &name, uint32_t disposition, uint32_t options) {
    const Bytes n = utf16le(name);
    Bytes b;
    le16(b, 57);
    b.push_back(0);       // SecurityFlags
    b.push_back(0);       // RequestedOplockLevel
    le32(b, 2);           // ImpersonationLevel: impersonation
    le64(b, 0);           // SmbCreateFlags
    le64(b, 0);           // Reserved
    le32(b, 0x00120089);  // DesiredAccess: read
    le32(b, 0x80);        // FileAttributes: normal
    le32(b, 7);           // ShareAccess
    le32(b, disposition);
    le32(b, options);
    le16(b, 120);  // NameOffset: 64 + 56
    le16(b, static_cast<uint16_t>(n.size()));
    le32(b, 0);  // CreateContextsOffset
    le32(b, 0);  // CreateContextsLength
    b.insert(b.end(), n.begin(), n.end());
    if (n.empty()) b.push_back(0);
    return b;
}

Bytes create_response(uint32_t action, uint32_t attributes, uint64_t persistent_id,
                      uint64_t volatile_id) {
    Bytes b;
    le16(b, 89);
    b.push_back(0);  // OplockLevel
    b.push_back(0);  // Flags
    le32(b, action);
    for (int i = 0; i < 4; ++i)
        le64(b, kFileTime);  // the four times
    le64(b, 4096);           // AllocationSize
    le64(b, 1234);           // EndofFile
    le32(b, attributes);
    le32(b, 0);
    file_id(b, persistent_id, volatile_id);
    le32(b, 0);  // CreateContextsOffset
    le32(b, 0);  // CreateContextsLength
    b.push_back(0);
    return b;
}

Bytes read_request(uint64_t persistent_id, uint64_t volatile_id, uint32_t length) {
    Bytes b;
    le16(b, 49);
    b.push_back(0x50);  // Padding
    b.push_back(0);     // Flags
    le32(b, length);
    le64(b, 0);  // Offset
    file_id(b, persistent_id, volatile_id);
    le32(b, 1);  // MinimumCount
    le32(b, 0);  // Channel
    le32(b, 0);  // RemainingBytes
    le16(b, 0);
    le16(b, 0);
    b.push_back(0);
    return b;
}

Bytes read_response(uint32_t length) {
    Bytes b;
    le16(b, 17);
    b.push_back(80);  // DataOffset
    b.push_back(0);
    le32(b, length);
    le32(b, 0);
    le32(b, 0);
    for (uint32_t i = 0; i < length; ++i)
        b.push_back('a' + i % 26);
    return b;
}

Bytes write_request(uint64_t persistent_id, uint64_t volatile_id, uint32_t length) {
    Bytes b;
    le16(b, 49);
    le16(b, 112);  // DataOffset: 64 + 48
    le32(b, length);
    le64(b, 0);  // Offset
    file_id(b, persistent_id, volatile_id);
    le32(b, 0);  // Channel
    le32(b, 0);  // RemainingBytes
    le16(b, 0);
    le16(b, 0);
    le32(b, 0);  // Flags
    for (uint32_t i = 0; i < length; ++i)
        b.push_back('A' + i % 26);
    return b;
}

Bytes write_response(uint32_t length) {
    Bytes b;
    le16(b, 17);
    le16(b, 0);
    le32(b, length);
    le32(b, 0);
    le16(b, 0);
    le16(b, 0);
    return b;
}

Bytes close_request(uint64_t persistent_id, uint64_t volatile_id) {
    Bytes b;
    le16(b, 24);
    le16(b, 0);
    le32(b, 0);
    file_id(b, persistent_id, volatile_id);
    return b;
}

Bytes close_response() {
    Bytes b;
    le16(b, 60);
    le16(b, 0);
    le32(b, 0);
    for (int i = 0; i < 4; ++i)
        le64(b, 0);
    le64(b, 0);
    le64(b, 0);
    le32(b, 0);
    return b;
}

Bytes tree_disconnect_body() {
    Bytes b;
    le16(b, 4);
    le16(b, 0);
    return b;
}

Bytes logoff_body() {
    return tree_disconnect_body();
}

std::vector<Packet> smb2_session(const SessionSpec &s) {
    TcpConversation c(s.client, s.client_port, s.server, s.server_port, s.start_ns);
    const uint64_t session = 0x0000400000000011ull;
    const uint32_t tree = 5;
    const uint64_t fid = 0x00000000000a0001ull + s.client_port;
    const uint64_t vfid = 0xffff0000ull + s.client_port;
    uint64_t mid = 0;
    auto exchange = [&](uint16_t cmd, uint32_t tree_id, uint64_t sess, const Bytes &req,
                        const Bytes &resp, uint32_t resp_tree) {
        c.client_sends(smb2_message({cmd, mid, tree_id, sess, false, 0}, req));
        c.server_sends(smb2_message({cmd, mid, resp_tree, sess, true, 0}, resp));
        ++mid;
    };
    c.handshake();
    exchange(kNegotiate, 0, 0, negotiate_request(), negotiate_response(), 0);
    exchange(kSessionSetup, 0, 0, session_setup_request(), session_setup_response(), 0);
    // Session setup gives the session id; the tree id comes with the tree connect response.
    c.client_sends(
        smb2_message({kTreeConnect, mid, 0, session, false, 0}, tree_connect_request(s.share)));
    c.server_sends(
        smb2_message({kTreeConnect, mid, tree, session, true, 0}, tree_connect_response()));
    ++mid;
    if (s.create_new) {
        exchange(kCreate, tree, session, create_request(s.file, 2),
                 create_response(2, 0x20, fid, vfid), tree);
        exchange(kWrite, tree, session, write_request(fid, vfid, 300), write_response(300), tree);
    } else {
        exchange(kCreate, tree, session, create_request(s.file, 1),
                 create_response(1, 0x20, fid, vfid), tree);
        exchange(kRead, tree, session, read_request(fid, vfid, 200), read_response(200), tree);
    }
    exchange(kClose, tree, session, close_request(fid, vfid), close_response(), tree);
    exchange(kTreeDisconnect, tree, session, tree_disconnect_body(), tree_disconnect_body(), tree);
    exchange(kLogoff, 0, session, logoff_body(), logoff_body(), 0);
    c.close();
    return c.packets();
}

}  // namespace testnet
