#include "capture.h"

#include <pcap/pcap.h>
#include <poll.h>
#include <stdio.h>
#include <sys/stat.h>

#include <fmt/format.h>

#include "packet_decoder.h"
#include "mapped_capture.h"

namespace smbflow {

Capture Capture::files(std::vector<std::string> paths, std::string filter) {
    Capture c;
    c.paths_ = std::move(paths);
    c.filter_ = std::move(filter);
    return c;
}

Capture Capture::live(std::string interface, std::string filter, int snaplen) {
    Capture c;
    c.live_ = true;
    c.interface_ = std::move(interface);
    c.filter_ = std::move(filter);
    c.snaplen_ = snaplen;
    return c;
}

Capture::Capture(Capture &&o) noexcept
    : paths_(std::move(o.paths_)),
      next_path_(o.next_path_),
      interface_(std::move(o.interface_)),
      filter_(std::move(o.filter_)),
      snaplen_(o.snaplen_),
      buffer_bytes_(o.buffer_bytes_),
      live_(o.live_),
      pcap_(o.pcap_),
      link_type_(o.link_type_),
      nano_(o.nano_),
      read_buffer_(std::move(o.read_buffer_)),
      mapped_(std::move(o.mapped_)),
      current_(std::move(o.current_)),
      error_(std::move(o.error_)),
      filter_error_(o.filter_error_) {
    o.pcap_ = nullptr;
}

Capture::~Capture() {
    close();
}

void Capture::close() {
    if (pcap_) pcap_close(pcap_);
    pcap_ = nullptr;
    mapped_.reset();
}

bool Capture::apply_filter() {
    link_type_ = pcap_datalink(pcap_);
    if (!corvane_host::link_type_supported(link_type_)) {
        const char *name = pcap_datalink_val_to_name(link_type_);
        const char *what = pcap_datalink_val_to_description(link_type_);
        error_ = name ? fmt::format("{}: unsupported link type {} ({})", current_, name,
                                    what ? what : "no description")
                      : fmt::format("{}: unsupported link type {}, which libpcap does not know",
                                    current_, link_type_);
        return false;
    }
    if (filter_.empty()) return true;
    bpf_program program;
    if (pcap_compile(pcap_, &program, filter_.c_str(), 1, PCAP_NETMASK_UNKNOWN) != 0) {
        error_ = fmt::format("bad filter '{}': {}", filter_, pcap_geterr(pcap_));
        filter_error_ = true;
        return false;
    }
    const int rc = pcap_setfilter(pcap_, &program);
    pcap_freecode(&program);
    if (rc != 0) {
        error_ = fmt::format("cannot apply filter '{}': {}", filter_, pcap_geterr(pcap_));
        filter_error_ = true;
        return false;
    }
    return true;
}

bool Capture::open_file(const std::string &path) {
    close();
    current_ = path;
    // Standard input and FIFOs are read by the same reader as files, forward only, so that
    // their records are those the same capture gives by path (pcapng files whose interfaces
    // have different link types included).
    struct stat st;
    const bool stream = path == "-" || (stat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode) &&
                                        !S_ISDIR(st.st_mode));
    if (stream || MappedCapture::can_read(path)) {
        mapped_ = std::make_unique<MappedCapture>();
        if (mapped_->open(path, filter_, stream)) return true;
        // A signal while a FIFO waits for its writer ends the run, not as a fault.
        if (interrupted_) return false;
        error_ = mapped_->error();
        filter_error_ = mapped_->filter_error();
        return false;
    }
    char errbuf[PCAP_ERRBUF_SIZE] = "";
    // libpcap reads a file record by record through stdio, whose default 4 KB buffer costs a
    // system call every few packets: a buffer of 1 MB takes that off the reading thread.
    FILE *file = path == "-" ? nullptr : fopen(path.c_str(), "rb");
    if (file) {
        if (!read_buffer_) read_buffer_ = std::make_unique<char[]>(kReadBufferSize);
        setvbuf(file, read_buffer_.get(), _IOFBF, kReadBufferSize);
        pcap_ = pcap_fopen_offline_with_tstamp_precision(file, PCAP_TSTAMP_PRECISION_NANO, errbuf);
        if (!pcap_) fclose(file);  // libpcap closes it only once it took it
    } else {
        // Standard input, or a file that cannot be opened: libpcap says why in its own words.
        pcap_ = pcap_open_offline_with_tstamp_precision(path.c_str(), PCAP_TSTAMP_PRECISION_NANO,
                                                        errbuf);
    }
    if (!pcap_) {
        error_ = fmt::format("cannot read capture {}: {}", path, errbuf);
        return false;
    }
    nano_ = true;
    return apply_filter();
}

bool Capture::open() {
    if (!live_) {
        if (paths_.empty()) {
            error_ = "no input";
            return false;
        }
        return open_file(paths_[next_path_++]);
    }
    current_ = interface_;
    transient_error_ = false;
    char errbuf[PCAP_ERRBUF_SIZE] = "";
    pcap_ = pcap_create(interface_.c_str(), errbuf);
    if (!pcap_) {
        error_ = fmt::format("cannot capture on {}: {}", interface_, errbuf);
        return false;
    }
    pcap_set_snaplen(pcap_, snaplen_);
    pcap_set_promisc(pcap_, 1);
    pcap_set_timeout(pcap_, 200);
    if (buffer_bytes_ > 0) pcap_set_buffer_size(pcap_, buffer_bytes_);
    nano_ = pcap_set_tstamp_precision(pcap_, PCAP_TSTAMP_PRECISION_NANO) == 0;
    const int rc = pcap_activate(pcap_);
    if (rc < 0) {
        std::string why = pcap_geterr(pcap_);
        transient_error_ = rc == PCAP_ERROR_NO_SUCH_DEVICE || rc == PCAP_ERROR_IFACE_NOT_UP;
        if (rc == PCAP_ERROR_NO_SUCH_DEVICE)
            why = "no such interface";
        else if (rc == PCAP_ERROR_IFACE_NOT_UP)
            why = "the interface is down";
        else if (rc == PCAP_ERROR_PERM_DENIED || why.find("not permitted") != std::string::npos)
            why = "permission denied (" + why +
                  "): a live capture needs root or the CAP_NET_RAW capability (and CAP_NET_ADMIN "
                  "for promiscuous mode), e.g. setcap cap_net_raw,cap_net_admin+ep on smbflow";
        error_ = fmt::format("cannot capture on {}: {}", interface_, why);
        close();
        return false;
    }
    // The read timeout does not fire on every platform while no packet arrives at all: the
    // handle is read without blocking and waited on with poll, so that an idle interface
    // still gives the caller a turn (to let flow records time out).
    if (pcap_setnonblock(pcap_, 1, errbuf) != 0) {
        error_ = fmt::format("cannot capture on {}: {}", interface_, errbuf);
        close();
        return false;
    }
    return apply_filter();
}

ReadStatus Capture::next(Frame &frame) {
    for (;;) {
        if (interrupted_) return ReadStatus::End;
        if (mapped_) {
            if (mapped_->next_in_window(frame)) return ReadStatus::Packet;
            const ReadStatus rs = mapped_->next(frame);
            // A signal that interrupted a blocking read of a stream ends the run.
            if (rs == ReadStatus::Error && interrupted_) return ReadStatus::End;
            if (rs == ReadStatus::Error) {
                error_ = mapped_->error();
                filter_error_ = mapped_->filter_error();
            }
            if (rs != ReadStatus::End) return rs;
            close();
            if (next_path_ == paths_.size()) return ReadStatus::End;
            if (!open_file(paths_[next_path_++]))
                return interrupted_ ? ReadStatus::End : ReadStatus::Error;
            continue;
        }
        if (!pcap_) return ReadStatus::End;
        pcap_pkthdr *header;
        const u_char *data;
        const int rc = pcap_next_ex(pcap_, &header, &data);
        if (rc == 1) {
            frame.ts_ns = uint64_t(header->ts.tv_sec) * 1'000'000'000ull +
                          uint64_t(header->ts.tv_usec) * (nano_ ? 1 : 1000);
            frame.caplen = header->caplen;
            frame.wire_len = header->len;
            frame.data = data;
            frame.link_type = link_type_;
            frame.keeper = nullptr;
            return ReadStatus::Packet;
        }
        if (rc == 0) {
            if (live_) {
                pollfd fd{pcap_get_selectable_fd(pcap_), POLLIN, 0};
                if (fd.fd >= 0 && poll(&fd, 1, kIdlePollMs) > 0) continue;
            }
            return ReadStatus::Idle;
        }
        if (rc == PCAP_ERROR_BREAK) {
            if (live_ || interrupted_) return ReadStatus::End;
            // End of this file: on to the next.
            if (next_path_ == paths_.size()) {
                close();
                return ReadStatus::End;
            }
            if (!open_file(paths_[next_path_++]))
                return interrupted_ ? ReadStatus::End : ReadStatus::Error;
            continue;
        }
        // A signal that interrupted a blocking read (standard input, a FIFO) ends the run as it
        // does for files and interfaces, not as a read error.
        if (interrupted_) return ReadStatus::End;
        error_ = fmt::format("{}: {}", current_, pcap_geterr(pcap_));
        return ReadStatus::Error;
    }
}

bool Capture::stream_has_sub_microsecond_stamps() {
    return mapped_ && !MappedCapture::can_read(current_) && mapped_->sub_microsecond_stamps();
}

void Capture::interrupt() {
    interrupted_ = 1;
    if (pcap_) pcap_breakloop(pcap_);
}

Capture::KernelCounts Capture::kernel_counts() const {
    if (!live_ || !pcap_) return {};
    pcap_stat st{};
    if (pcap_stats(pcap_, &st) != 0) return {};
    return {st.ps_recv, uint64_t(st.ps_drop) + st.ps_ifdrop};
}

}  // namespace smbflow
