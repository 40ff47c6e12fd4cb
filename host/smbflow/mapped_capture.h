// Capture files read in place: pcap (both byte orders, microsecond and nanosecond stamps) and
// pcapng (several sections and interfaces, each packet with its own interface's link type and
// timestamp resolution, which libpcap cannot read when the link types differ). The file is
// mapped a window at a time and frames point into the mapping, so that packets reach the
// queues without being copied; a window stays mapped while a batch that references it is in
// flight (Frame::keeper), and no longer, which keeps resident memory flat on large files. A
// BPF filter is compiled once per link type and run on the mapped bytes.
#pragma once

#include <pcap/pcap.h>

#include <cstdint>
#include <cstring>
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

struct InputProblem {
    std::string message;
    bool filter = false;  // the filter does not compile for one of the file's link types
};

// What can be known of a capture file before the run reads it: that it can be read, that its
// first link type is one smbflow decodes and that the filter compiles for the link types of its
// interfaces (those of its first section). Standard input and FIFOs are not looked at.
std::optional<InputProblem> check_capture_file(const std::string &path, const std::string &filter);

class MappedCapture {
  public:
    // Whether the path is a regular file that starts as a pcap or pcapng file (standard input
    // and FIFOs are read as streams; other formats go through libpcap).
    static bool can_read(const std::string &path);

    // Opens the file. False, with error(), when it cannot be read, its only link type is not
    // one smbflow decodes, or the filter does not compile for one of its link types (then
    // filter_error() is set).
    // `stream`: the path ("-" for standard input) is read forward as it comes (a FIFO, a pipe),
    // not mapped.
    bool open(const std::string &path, const std::string &filter, bool stream = false);
    // A stream's buffers and reads made smaller than a pipe's (4 MiB buffers, reads of what the
    // writer has given), so that tests and the fuzzer meet records that straddle two buffers
    // and arrive in pieces. 0 keeps the default; before open().
    void set_stream_sizes(size_t buffer, size_t per_read) {
        stream_buffer_ = buffer;
        stream_read_max_ = per_read;
    }
    ~MappedCapture();

    // The next packet that passes the filter: Packet, End, or Error for a malformed or cut
    // record (the packets before it have been given).
    ReadStatus next(Frame &frame);

    // The common case of next(), inline for the reading loop: a pcap record wholly in the
    // current window of a mapped file without a filter. False when the record is anything
    // else (across windows, at the end, a corrupt length): next() then gives the same frames.
    bool next_in_window(Frame &frame) {
        if (!plain_pcap_) return false;
        const size_t window_end = window_at_ + window_len_;
        if (pos_ < window_at_ || pos_ + 16 > window_end) return false;
        const uint8_t *h = window_base_ + (pos_ - window_at_);
        // The record header's four words at once, so that the byte order is asked once.
        uint32_t w[4];
        memcpy(w, h, 16);
        if (swapped_)
            for (uint32_t &x : w)
                x = __builtin_bswap32(x);
        const uint32_t caplen = w[2];
        if (caplen > kMaxRecord || caplen > window_end - pos_ - 16) return false;
        frame.ts_ns = uint64_t(w[0]) * 1'000'000'000ull + uint64_t(w[1]) * frac_ns_;
        frame.caplen = caplen;
        frame.wire_len = w[3];
        frame.data = h + 16;
        frame.link_type = pcap_interface_.link_type;
        frame.keeper = &window_;
        pos_ += 16 + size_t{caplen};
        return true;
    }

    // Records larger than this are a corrupt length, not a packet.
    static constexpr uint32_t kMaxRecord = 64u << 20;

    const std::string &error() const { return error_; }
    bool filter_error() const { return filter_error_; }
    // Whether the timestamps are finer than microseconds: a nanosecond pcap file, or interfaces
    // of the first section with a finer if_tsresol (as file_has_sub_microsecond_stamps).
    bool sub_microsecond_stamps();

  private:
    struct Interface {
        int link_type;
        uint64_t units_per_second;
    };
    // A pointer to bytes [at, at + len) of the file, mapping a new window when the current
    // one does not hold them; null past the end of the file.
    const uint8_t *view(size_t at, size_t len);
    const uint8_t *stream_view(size_t at, size_t len);
    bool more();
    uint32_t u32(const uint8_t *p) const { return word(p); }
    uint32_t word(const uint8_t *p) const {
        uint32_t v;
        memcpy(&v, p, 4);
        return swapped_ ? __builtin_bswap32(v) : v;
    }
    uint16_t u16(const uint8_t *p) const;
    ReadStatus next_pcap(Frame &frame);
    ReadStatus next_pcapng(Frame &frame);
    bool read_interface(const uint8_t *body, size_t body_len);
    bool filter_for(int link_type);
    bool passes(int link_type, const uint8_t *data, uint32_t caplen, uint32_t wire);
    ReadStatus fail(const std::string &what);
    void unsupported(int link_type);

    std::string path_, filter_, error_;
    int fd_ = -1;
    size_t size_ = 0, pos_ = 0;
    std::shared_ptr<const void> window_;  // the current window, shared with frames' batches
    const uint8_t *window_base_ = nullptr;
    size_t window_at_ = 0, window_len_ = 0;
    bool stream_ = false;
    size_t filled_ = 0;                               // stream: bytes of the window read so far
    size_t stream_buffer_ = 0, stream_read_max_ = 0;  // see set_stream_sizes
    std::string stream_error_;                        // stream: why the last read failed
    bool pcapng_ = false, swapped_ = false, filter_error_ = false, seen_interface_ = false;
    Interface pcap_interface_{};         // pcap: the file's one link type and resolution
    uint64_t frac_ns_ = 1000;            // pcap: nanoseconds per unit of the stamp's fraction
    bool plain_pcap_ = false;            // a mapped pcap file without a filter
    std::vector<Interface> interfaces_;  // pcapng: those of the current section
    using Program = std::unique_ptr<bpf_program, void (*)(bpf_program *)>;
    std::map<int, Program> programs_;
};

// Capture::next with its common case inline: a record wholly in the mapped window, read
// without a call (the reading loop's own cost per packet is of the order of the decoding's).
inline ReadStatus read_frame(Capture &capture, Frame &frame) {
    MappedCapture *mapped = capture.mapped();
    if (mapped && !capture.interrupted() && mapped->next_in_window(frame))
        return ReadStatus::Packet;
    return capture.next(frame);
}

}  // namespace smbflow
