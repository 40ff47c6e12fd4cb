// Builders for records, flows and name buffers shared by the frame tests.
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "smb.h"
#include "utils_alloc.h"

namespace frame_test {

// A slot that frees whatever record it still holds when the test ends.
struct owned_slot {
    host_slot slot = nullptr;
    owned_slot() = default;
    explicit owned_slot(smb_flow_data *rec) : slot(rec) {}
    owned_slot(const owned_slot &) = delete;
    owned_slot &operator=(const owned_slot &) = delete;
    ~owned_slot() { smb_record_free(&slot); }
    smb_flow_data *rec() const { return static_cast<smb_flow_data *>(slot); }
};

inline smb_flow_data *smb2_record(uint32_t cmd0 = SMB_CMD_INVALID,
                                  uint32_t cmd1 = SMB_CMD_INVALID) {
    smb_flow_data *rec = smb_record_new();
    rec->version = SMB_VERSION_2;
    rec->commands[0] = cmd0;
    rec->commands[1] = cmd1;
    return rec;
}

// 128 bytes of UTF-16LE for an ASCII name, zero-filled behind it, in a heap buffer that a
// record may own.
inline char *name_buffer(const std::string &ascii) {
    auto *buf = static_cast<char *>(corvaneexp_malloc(SMB_NAME_SIZE, 0));
    for (size_t i = 0; i < ascii.size() && 2 * i + 1 < SMB_NAME_SIZE; ++i)
        buf[2 * i] = ascii[i];
    return buf;
}

inline std::vector<uint8_t> name_bytes(const std::string &ascii) {
    char *buf = name_buffer(ascii);
    std::vector<uint8_t> out(buf, buf + SMB_NAME_SIZE);
    free(buf);
    return out;
}

inline host_flow_record flow_between(uint16_t src_port, uint16_t dst_port, uint64_t packets0,
                                     uint64_t packets1, uint16_t flags = 0) {
    host_flow_record flow{};
    flow.src_port = src_port;
    flow.dst_port = dst_port;
    flow.dir_counters[0].packets = packets0;
    flow.dir_counters[1].packets = packets1;
    flow.flags = flags;
    flow.ip_version = 4;
    return flow;
}

inline uint32_t u32_of(const std::vector<uint8_t> &bytes) {
    uint32_t v = 0;
    std::memcpy(&v, bytes.data(), sizeof v);
    return v;
}

}  // namespace frame_test
