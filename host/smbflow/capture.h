// Packet input: capture files (pcap and pcapng) read one after the other, mapped in place when
// they are regular files and through libpcap otherwise (standard input, FIFOs), or a live
// interface through libpcap, with an optional BPF filter. Timestamps come in nanoseconds.
#pragma once

#include <csignal>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

typedef struct pcap pcap_t;

namespace smbflow {

class MappedCapture;

struct Frame {
    uint64_t ts_ns = 0;
    uint32_t caplen = 0;
    uint32_t wire_len = 0;
    const uint8_t *data = nullptr;
    int link_type = 0;
    // Set when `data` lies in a mapped file: the bytes stay valid while a copy of *keeper is
    // held. Null when they are valid only until the next read (libpcap's buffer).
    const std::shared_ptr<const void> *keeper = nullptr;
};

enum class ReadStatus {
    Packet,
    Idle,   // live capture: nothing arrived before the read timeout
    End,    // every file read, or the capture was interrupted
    Error,  // see error()
};

class Capture {
  public:
    // Reads the files in order ("-" is standard input).
    static Capture files(std::vector<std::string> paths, std::string filter);
    // Captures on an interface until interrupted.
    static Capture live(std::string interface, std::string filter, int snaplen);

    Capture(Capture &&other) noexcept;
    ~Capture();

    // Opens the first input; false (with error()) if it cannot be opened.
    bool open();
    ReadStatus next(Frame &frame);
    // Live capture: the kernel's capture buffer in bytes (0: libpcap's default, 2 MiB).
    // Before open().
    void set_buffer_size(int bytes) { buffer_bytes_ = bytes; }
    // Stops a read in progress and makes the next read report the end (signal-safe).
    void interrupt();

    const std::string &error() const { return error_; }
    // A signal came (interrupt()): the run ends without a fault.
    bool interrupted() const { return interrupted_ != 0; }
    // The input being read, for messages.
    const std::string &current() const { return current_; }
    // How many files have been opened so far (the current one included).
    size_t files_opened() const { return next_path_; }
    bool is_live() const { return live_; }
    // The file being read in place, if it is (see read_frame in mapped_capture.h).
    MappedCapture *mapped() const { return mapped_.get(); }
    // Live capture: the interface gives nanosecond timestamps.
    bool nanosecond_stamps() const { return nano_; }
    // The input being read is a stream (standard input, a FIFO) whose first packets carry
    // timestamps finer than microseconds.
    bool stream_has_sub_microsecond_stamps();
    // A bad filter is the user's mistake, not the input's.
    bool error_is_filter() const { return filter_error_; }
    // Live capture: the interface is absent or down, which may pass (it is being set up).
    bool error_is_transient() const { return transient_error_; }
    // Frames that libpcap's statistics report as received and dropped (live capture).
    struct KernelCounts {
        uint64_t received = 0, dropped = 0;
    };
    KernelCounts kernel_counts() const;

  private:
    Capture() = default;
    bool open_file(const std::string &path);
    bool apply_filter();
    void close();

    std::vector<std::string> paths_;
    size_t next_path_ = 0;
    std::string interface_;
    std::string filter_;
    int snaplen_ = 262144;
    int buffer_bytes_ = 0;
    bool live_ = false;
    pcap_t *pcap_ = nullptr;
    int link_type_ = 0;
    bool nano_ = true;
    static constexpr size_t kReadBufferSize = 1 << 20;
    static constexpr int kIdlePollMs = 200;  // longest wait for a packet on an idle interface
    std::unique_ptr<char[]> read_buffer_;
    std::unique_ptr<MappedCapture> mapped_;  // the open file, when it is read in place
    std::string current_;
    std::string error_;
    bool filter_error_ = false;
    bool transient_error_ = false;
    volatile sig_atomic_t interrupted_ = 0;  // set by the signal handler
};

}  // namespace smbflow
