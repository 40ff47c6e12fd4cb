// pcapng files whose interfaces have different link types (several interfaces captured at
// once, or merged captures). libpcap reads a pcapng file only when every interface has the
// link type of the first one; this reader takes each packet with its own interface's link
// type and timestamp resolution, and applies a BPF filter compiled once per link type.
#pragma once

#include <pcap/pcap.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "capture.h"

namespace smbflow {

// Whether a capture file's timestamps are finer than microseconds: a nanosecond pcap file, or
// a pcapng file with an interface whose if_tsresol is finer than 10^-6 s.
bool file_has_sub_microsecond_stamps(const std::string &path);

class PcapngMixed {
  public:
    // Whether the file is a pcapng file with more than one link type among its interfaces.
    static bool needed(const std::string &path);

    // Maps the file. False, with error(), when it cannot be read or the filter does not
    // compile for one of its link types (then filter_error() is set).
    bool open(const std::string &path, const std::string &filter);
    ~PcapngMixed();

    // The next packet that passes the filter: Packet, End, or Error for a malformed block
    // (the packets before it have been given).
    ReadStatus next(Frame &frame);

    const std::string &error() const { return error_; }
    bool filter_error() const { return filter_error_; }

  private:
    struct Interface {
        int link_type;
        uint64_t units_per_second;
    };
    uint32_t u32(size_t at) const;
    uint16_t u16(size_t at) const;
    bool read_interface(size_t body, size_t body_len);
    bool filter_for(int link_type);
    ReadStatus fail(const std::string &what);

    std::string path_, filter_, error_;
    const uint8_t *map_ = nullptr;
    size_t size_ = 0, pos_ = 0;
    bool swapped_ = false, filter_error_ = false;
    std::vector<Interface> interfaces_;
    using Program = std::unique_ptr<bpf_program, void (*)(bpf_program *)>;
    std::map<int, Program> programs_;
};

}  // namespace smbflow
