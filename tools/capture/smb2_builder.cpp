#include "smb2_builder.h"

#include <algorithm>

namespace smb2test {

namespace {

template <typename T>
void put(Bytes &out, size_t offset, T value) {
    if (out.size() < offset + sizeof(T)) out.resize(offset + sizeof(T));
    for (size_t i = 0; i < sizeof(T); ++i)
        out[offset + i] = uint8_t(value >> (8 * i));
}

void append(Bytes &out, const Bytes &more) {
    out.insert(out.end(), more.begin(), more.end());
}

// A variable-length buffer behind a fixed body; an empty one still takes the one byte that
// the odd StructureSize counts (MS-SMB2 2.2.9, 2.2.13).
void append_buffer(Bytes &body, const Bytes &buffer) {
    if (buffer.empty())
        body.push_back(0);
    else
        append(body, buffer);
}

// A zeroed body of `size` bytes starting with its StructureSize.
Bytes fixed_body(uint16_t structure_size, size_t size) {
    Bytes b(size, 0);
    put<uint16_t>(b, 0, structure_size);
    return b;
}

void put_file_id(Bytes &body, size_t offset, uint64_t file_id) {
    put<uint64_t>(body, offset, file_id);
    put<uint64_t>(body, offset + 8, ~file_id);  // volatile part, never used by the plug-in
}

struct Layout {
    uint16_t structure_size;
    size_t size;
    size_t file_id_offset;  // 0: no FileId
};

// Request bodies with no variable part beyond the one byte that StructureSize counts.
constexpr Layout kRequests[] = {
    {36, 36 + 4, 0},  // NEGOTIATE: two dialects
    {25, 24, 0},      // SESSION_SETUP, empty security buffer
    {4, 4, 0},        // LOGOFF
    {9, 9, 0},        // TREE_CONNECT, empty path
    {4, 4, 0},        // TREE_DISCONNECT
    {57, 57, 0},      // CREATE, no name
    {24, 24, 8},      // CLOSE
    {24, 24, 8},      // FLUSH
    {49, 49, 16},     // READ
    {49, 49, 16},     // WRITE, one data byte
    {48, 48, 8},      // LOCK, one lock element
    {57, 56, 8},      // IOCTL, no input
    {4, 4, 0},        // CANCEL
    {4, 4, 0},        // ECHO
    {33, 34, 8},      // QUERY_DIRECTORY, pattern "*"
    {32, 32, 8},      // CHANGE_NOTIFY
    {41, 40, 24},     // QUERY_INFO, no input
    {33, 33, 16},     // SET_INFO, one buffer byte
    {24, 24, 8},      // OPLOCK_BREAK acknowledgment
};

constexpr Layout kResponses[] = {
    {65, 64, 0},   // NEGOTIATE
    {9, 8, 0},     // SESSION_SETUP
    {4, 4, 0},     // LOGOFF
    {16, 16, 0},   // TREE_CONNECT
    {4, 4, 0},     // TREE_DISCONNECT
    {89, 89, 64},  // CREATE
    {60, 60, 0},   // CLOSE
    {4, 4, 0},     // FLUSH
    {17, 16, 0},   // READ, no data
    {17, 16, 0},   // WRITE
    {4, 4, 0},     // LOCK
    {49, 48, 0},   // IOCTL
    {4, 4, 0},     // CANCEL (never answered; an error body)
    {4, 4, 0},     // ECHO
    {9, 8, 0},     // QUERY_DIRECTORY
    {9, 8, 0},     // CHANGE_NOTIFY
    {9, 8, 0},     // QUERY_INFO
    {2, 2, 0},     // SET_INFO
    {24, 24, 8},   // OPLOCK_BREAK notification or response
};

Bytes body_from(const Layout &l, uint64_t file_id) {
    Bytes b = fixed_body(l.structure_size, l.size);
    if (l.file_id_offset) put_file_id(b, l.file_id_offset, file_id);
    return b;
}

constexpr size_t kHeaderSize = 64;

}  // namespace

Message request(uint16_t command, uint64_t message_id, uint32_t tree_id, Bytes body,
                uint32_t flags) {
    Message m;
    m.header.command = command;
    m.header.message_id = message_id;
    m.header.tree_id = tree_id;
    m.header.flags = flags;
    m.body = std::move(body);
    return m;
}

Message response(uint16_t command, uint64_t message_id, uint32_t tree_id, Bytes body,
                 uint32_t status, uint32_t flags) {
    Message m = request(command, message_id, tree_id, std::move(body), kResponse | flags);
    m.header.status = status;
    return m;
}

Message async_response(uint16_t command, uint64_t message_id, uint64_t async_id, Bytes body,
                       uint32_t status) {
    Message m = response(command, message_id, 0, std::move(body), status, kAsync);
    m.header.async_id = async_id;
    return m;
}

Bytes utf16(std::u16string_view text) {
    Bytes out;
    for (char16_t c : text) {
        out.push_back(uint8_t(c));
        out.push_back(uint8_t(c >> 8));
    }
    return out;
}

Bytes utf16(std::string_view ascii) {
    Bytes out;
    for (char c : ascii) {
        out.push_back(uint8_t(c));
        out.push_back(0);
    }
    return out;
}

Bytes request_body(uint16_t command, uint64_t file_id) {
    if (command >= std::size(kRequests)) return fixed_body(4, 4);
    Bytes b = body_from(kRequests[command], file_id);
    if (command == NEGOTIATE) {
        put<uint16_t>(b, 2, 2);        // DialectCount
        put<uint16_t>(b, 36, 0x0202);  // SMB 2.0.2
        put<uint16_t>(b, 38, 0x0311);  // SMB 3.1.1
    } else if (command == QUERY_DIRECTORY) {
        put<uint16_t>(b, 24, kHeaderSize + 32);  // FileNameOffset
        put<uint16_t>(b, 26, 2);                 // FileNameLength
        b.resize(32);
        append(b, utf16(std::string_view("*")));
    } else if (command == READ) {
        put<uint32_t>(b, 4, 4096);  // Length
    } else if (command == WRITE) {
        put<uint16_t>(b, 2, kHeaderSize + 48);  // DataOffset
        put<uint32_t>(b, 4, 1);                 // Length
    } else if (command == LOCK) {
        put<uint16_t>(b, 2, 1);  // LockCount
    } else if (command == SET_INFO) {
        put<uint32_t>(b, 4, 1);                 // BufferLength
        put<uint16_t>(b, 8, kHeaderSize + 32);  // BufferOffset
    }
    return b;
}

Bytes response_body(uint16_t command, uint64_t file_id) {
    if (command >= std::size(kResponses)) return fixed_body(9, 8);
    return body_from(kResponses[command], file_id);
}

size_t request_file_id_offset(uint16_t command) {
    return command < std::size(kRequests) ? kRequests[command].file_id_offset : 0;
}

Bytes tree_connect_request_body(const Bytes &path) {
    Bytes b = fixed_body(9, 8);
    put<uint16_t>(b, 4, kHeaderSize + 8);  // PathOffset
    put<uint16_t>(b, 6, uint16_t(path.size()));
    append_buffer(b, path);
    return b;
}

Bytes tree_connect_response_body() {
    Bytes b = fixed_body(16, 16);
    b[2] = 0x01;                       // ShareType: disk
    put<uint32_t>(b, 12, 0x001f01ff);  // MaximalAccess
    return b;
}

Bytes create_request_body(const Bytes &name, uint32_t disposition, uint32_t options) {
    Bytes b = fixed_body(57, 56);
    put<uint32_t>(b, 4, 2);            // ImpersonationLevel: impersonation
    put<uint32_t>(b, 24, 0x00120089);  // DesiredAccess: generic read
    put<uint32_t>(b, 32, 0x7);         // ShareAccess: read, write, delete
    put<uint32_t>(b, 36, disposition);
    put<uint32_t>(b, 40, options);
    put<uint16_t>(b, 44, kHeaderSize + 56);  // NameOffset
    put<uint16_t>(b, 46, uint16_t(name.size()));
    append_buffer(b, name);
    return b;
}

Bytes create_response_body(uint32_t action, uint32_t attributes, uint64_t file_id) {
    Bytes b = fixed_body(89, 89);
    put<uint32_t>(b, 4, action);
    put<uint32_t>(b, 56, attributes);
    put_file_id(b, 64, file_id);
    return b;
}

Bytes set_info_request_body(uint64_t file_id, uint8_t info_type, uint8_t info_class,
                            const Bytes &buffer) {
    Bytes b = fixed_body(33, 32);
    b[2] = info_type;
    b[3] = info_class;
    put<uint32_t>(b, 4, uint32_t(buffer.size()));
    put<uint16_t>(b, 8, kHeaderSize + 32);
    put_file_id(b, 16, file_id);
    append(b, buffer);
    return b;
}

Bytes set_disposition_body(uint64_t file_id, bool delete_pending) {
    return set_info_request_body(file_id, 1, 13, Bytes{uint8_t(delete_pending ? 1 : 0)});
}

Bytes write_request_body(uint64_t file_id, const Bytes &data) {
    Bytes b = request_body(WRITE, file_id);
    b.resize(48);
    put<uint32_t>(b, 4, uint32_t(data.size()));
    append(b, data);
    return b;
}

Bytes read_response_body(const Bytes &data) {
    Bytes b = fixed_body(17, 16);
    b[2] = uint8_t(kHeaderSize + 16);  // DataOffset
    put<uint32_t>(b, 4, uint32_t(data.size()));
    append(b, data);
    return b;
}

Bytes encode(const Message &m) {
    Bytes out(kHeaderSize, 0);
    const Header &h = m.header;
    out[0] = 0xFE;
    out[1] = 'S';
    out[2] = 'M';
    out[3] = 'B';
    put<uint16_t>(out, 4, kHeaderSize);
    put<uint16_t>(out, 6, h.credit_charge);
    put<uint32_t>(out, 8, h.status);
    put<uint16_t>(out, 12, h.command);
    put<uint16_t>(out, 14, h.credits);
    put<uint32_t>(out, 16, h.flags);
    put<uint32_t>(out, 20, h.next_command.value_or(0));
    put<uint64_t>(out, 24, h.message_id);
    if (h.flags & kAsync) {
        put<uint64_t>(out, 32, h.async_id);
    } else {
        put<uint32_t>(out, 32, 0xFEFF);  // Reserved (the process id of older clients)
        put<uint32_t>(out, 36, h.tree_id);
    }
    put<uint64_t>(out, 40, h.session_id);
    append(out, m.body);
    return out;
}

Bytes compound(const std::vector<Message> &messages) {
    Bytes out;
    for (size_t i = 0; i < messages.size(); ++i) {
        Message m = messages[i];
        const bool last = i + 1 == messages.size();
        Bytes encoded = encode(m);
        if (!last) encoded.resize((encoded.size() + 7) & ~size_t{7}, 0);
        if (!m.header.next_command) put<uint32_t>(encoded, 20, last ? 0 : uint32_t(encoded.size()));
        append(out, encoded);
    }
    return out;
}

Bytes session(const Bytes &data) {
    return session_with_word(data, uint32_t(data.size()));
}

Bytes session_with_word(const Bytes &data, uint32_t word) {
    Bytes out{uint8_t(word >> 24), uint8_t(word >> 16), uint8_t(word >> 8), uint8_t(word)};
    append(out, data);
    return out;
}

Bytes smb1_message(uint8_t command) {
    Bytes b(32, 0);
    b[0] = 0xFF;
    b[1] = 'S';
    b[2] = 'M';
    b[3] = 'B';
    b[4] = command;
    b[9] = 0x18;                   // Flags: canonical paths, case insensitive
    put<uint16_t>(b, 10, 0xc853);  // Flags2
    put<uint16_t>(b, 26, 0xfeff);  // PID
    b.insert(b.end(), {0, 0, 0});  // WordCount 0, ByteCount 0
    return session(b);
}

Bytes transform_message(size_t ciphertext_length) {
    Bytes b(52, 0);
    b[0] = 0xFD;
    b[1] = 'S';
    b[2] = 'M';
    b[3] = 'B';
    put<uint32_t>(b, 36, uint32_t(ciphertext_length));  // OriginalMessageSize
    put<uint16_t>(b, 42, 1);                            // Flags: encrypted
    put<uint64_t>(b, 44, 0x0000400000000001);           // SessionId
    for (size_t i = 0; i < ciphertext_length; ++i)
        b.push_back(uint8_t(i * 37 + 11));
    return session(b);
}

std::vector<Bytes> split(const Bytes &data, const std::vector<size_t> &sizes) {
    std::vector<Bytes> out;
    size_t pos = 0;
    for (size_t size : sizes) {
        const size_t take = std::min(size, data.size() - pos);
        out.emplace_back(data.begin() + pos, data.begin() + pos + take);
        pos += take;
    }
    if (pos < data.size()) out.emplace_back(data.begin() + pos, data.end());
    return out;
}

std::vector<Bytes> split_even(const Bytes &data, size_t count) {
    std::vector<size_t> sizes;
    for (size_t i = 0; i + 1 < count; ++i)
        sizes.push_back(data.size() / count);
    return split(data, sizes);
}

}  // namespace smb2test
