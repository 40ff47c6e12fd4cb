// The one builder of SMB messages, shared by the tests and the capture generators: SMB2 headers
// and the bodies of every command (MS-SMB2 2.2), compound chains, NetBIOS session framing, SMB1
// and transform headers, and segmentation. Bodies have the sizes and field offsets of MS-SMB2
// so that generated traffic reads like a capture; every field the plug-in looks at can be set.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace smb2test {

using Bytes = std::vector<uint8_t>;

// SMB2 header Flags.
inline constexpr uint32_t kResponse = 0x1;  // SMB2_FLAGS_SERVER_TO_REDIR
inline constexpr uint32_t kAsync = 0x2;     // SMB2_FLAGS_ASYNC_COMMAND
inline constexpr uint32_t kRelated = 0x4;   // SMB2_FLAGS_RELATED_OPERATIONS

// SMB2 command codes.
enum Command : uint16_t {
    NEGOTIATE = 0,
    SESSION_SETUP = 1,
    LOGOFF = 2,
    TREE_CONNECT = 3,
    TREE_DISCONNECT = 4,
    CREATE = 5,
    CLOSE = 6,
    FLUSH = 7,
    READ = 8,
    WRITE = 9,
    LOCK = 10,
    IOCTL = 11,
    CANCEL = 12,
    ECHO = 13,
    QUERY_DIRECTORY = 14,
    CHANGE_NOTIFY = 15,
    QUERY_INFO = 16,
    SET_INFO = 17,
    OPLOCK_BREAK = 18,
};

// Some NTSTATUS values.
inline constexpr uint32_t kStatusSuccess = 0x00000000;
inline constexpr uint32_t kStatusPending = 0x00000103;
inline constexpr uint32_t kStatusAccessDenied = 0xC0000022;
inline constexpr uint32_t kStatusObjectNameNotFound = 0xC0000034;

// CREATE values.
enum Disposition : uint32_t {
    FILE_SUPERSEDE = 0,
    FILE_OPEN = 1,
    FILE_CREATE = 2,
    FILE_OPEN_IF = 3,
    FILE_OVERWRITE = 4,
    FILE_OVERWRITE_IF = 5,
};
enum CreateAction : uint32_t {
    FILE_SUPERSEDED = 0,
    FILE_OPENED = 1,
    FILE_CREATED = 2,
    FILE_OVERWRITTEN = 3,
};
inline constexpr uint32_t kFileDeleteOnClose = 0x00001000;  // CreateOptions
inline constexpr uint32_t kFileNonDirectory = 0x00000040;   // CreateOptions
inline constexpr uint32_t kAttributeDirectory = 0x10;
inline constexpr uint32_t kAttributeArchive = 0x20;

// The 64-byte SMB2 header (MS-SMB2 2.2.1). An async header carries `async_id` where a sync one
// has Reserved and TreeId.
struct Header {
    uint16_t command = 0;
    uint32_t status = 0;
    uint32_t flags = 0;
    // Set by the chain builder unless given here.
    std::optional<uint32_t> next_command;
    uint64_t message_id = 0;
    uint32_t tree_id = 0;
    uint64_t async_id = 0;
    uint64_t session_id = 0x0000400000000001;
    uint16_t credit_charge = 1;
    uint16_t credits = 1;
};

struct Message {
    Header header;
    Bytes body;
};

// Messages with the usual header fields. A response gets kResponse; `flags` adds to it.
Message request(uint16_t command, uint64_t message_id, uint32_t tree_id, Bytes body,
                uint32_t flags = 0);
Message response(uint16_t command, uint64_t message_id, uint32_t tree_id, Bytes body,
                 uint32_t status = kStatusSuccess, uint32_t flags = 0);
// An async response: no tree id on the wire, an AsyncId instead.
Message async_response(uint16_t command, uint64_t message_id, uint64_t async_id, Bytes body,
                       uint32_t status = kStatusSuccess);

// UTF-16LE bytes of a text (BMP and surrogate pairs as given in the u16 string).
Bytes utf16(std::u16string_view text);
// UTF-16LE of plain ASCII.
Bytes utf16(std::string_view ascii);

// Bodies.
// The smallest well-formed body of `command`, request or response; FileId (persistent part
// `file_id`, volatile part its complement) at its MS-SMB2 offset for commands on an open file
// and for OPLOCK_BREAK.
Bytes request_body(uint16_t command, uint64_t file_id = 0);
Bytes response_body(uint16_t command, uint64_t file_id = 0);
// Byte offset of FileId in the request body of `command` (0 when it has none).
size_t request_file_id_offset(uint16_t command);

Bytes tree_connect_request_body(const Bytes &path);
Bytes tree_connect_response_body();
Bytes create_request_body(const Bytes &name, uint32_t disposition, uint32_t options = 0);
Bytes create_response_body(uint32_t action, uint32_t attributes, uint64_t file_id);
Bytes set_info_request_body(uint64_t file_id, uint8_t info_type, uint8_t info_class,
                            const Bytes &buffer);
// FileDispositionInformation with DeletePending set or cleared.
Bytes set_disposition_body(uint64_t file_id, bool delete_pending);
Bytes write_request_body(uint64_t file_id, const Bytes &data);
Bytes read_response_body(const Bytes &data);

// The header and body of one message, unpadded.
Bytes encode(const Message &message);
// A compound chain: every message but the last is padded to 8 bytes and its NextCommand set
// to its padded length, unless its header gives NextCommand itself.
Bytes compound(const std::vector<Message> &messages);

// NetBIOS session message: type 0 and the 24-bit length, then the data.
Bytes session(const Bytes &data);
// Session header with an arbitrary 32-bit big-endian word (type byte included).
Bytes session_with_word(const Bytes &data, uint32_t word);

// SMB1 message (MS-CIFS 2.2.3.1) with the given command, framed.
Bytes smb1_message(uint8_t command);
// SMB2 transform header (MS-SMB2 2.2.41) and `ciphertext_length` opaque bytes, framed.
Bytes transform_message(size_t ciphertext_length);

// Cuts `data` into segments of the given sizes; whatever is left forms the last segment.
std::vector<Bytes> split(const Bytes &data, const std::vector<size_t> &sizes);
// Cuts `data` into `count` segments of nearly equal size.
std::vector<Bytes> split_even(const Bytes &data, size_t count);

}  // namespace smb2test
