#include "mapped_capture.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include <fmt/format.h>

#include "packet_decoder.h"

namespace smbflow {

namespace {

// Block types (pcapng, draft-ietf-opsawg-pcapng).
constexpr uint32_t kSectionHeader = 0x0a0d0d0a;
constexpr uint32_t kInterfaceDescription = 1;
constexpr uint32_t kObsoletePacket = 2;
constexpr uint32_t kSimplePacket = 3;
constexpr uint32_t kEnhancedPacket = 6;
constexpr uint32_t kByteOrderMagic = 0x1a2b3c4d;
constexpr uint16_t kOptionEnd = 0, kOptionTsResol = 9;

// pcap file magics as read on this (little-endian) host.
constexpr uint32_t kPcapMicro = 0xa1b2c3d4, kPcapNano = 0xa1b23c4d;

// Mapping windows: large enough that the mapping's cost is spread over thousands of packets,
// small enough that the windows that batches in flight still hold stay a few megabytes.
constexpr size_t kWindow = 4u << 20;
constexpr uint32_t kMaxRecord = MappedCapture::kMaxRecord;

// Files carry LINKTYPE_ values; libpcap and the decoder speak DLT_ values, which differ for
// raw IP (LINKTYPE_RAW 101 is DLT_RAW, 12 here).
int dlt_of(uint32_t linktype) {
    return linktype == 101 ? DLT_RAW : static_cast<int>(linktype);
}

bool is_capture_magic(uint32_t m) {
    return m == kSectionHeader || m == kPcapMicro || m == kPcapNano ||
           m == __builtin_bswap32(kPcapMicro) || m == __builtin_bswap32(kPcapNano);
}

size_t page_size() {
    static const size_t size = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    return size;
}

struct Window {
    Window(void *b, size_t l) : base(b), len(l) {}
    Window(const Window &) = delete;
    Window &operator=(const Window &) = delete;
    ~Window() { munmap(base, len); }
    void *base;
    size_t len;
};

uint32_t load32(const uint8_t *p, bool swapped) {
    uint32_t v;
    memcpy(&v, p, 4);
    return swapped ? __builtin_bswap32(v) : v;
}

std::string link_name(int link_type) {
    const char *name = pcap_datalink_val_to_name(link_type);
    return name ? name : fmt::format("link type {}", link_type);
}

// Calls `each(block, length, swapped)` for the interface description blocks of a pcapng
// file up to its first packet: those of the first section, which is all that a capture from
// one machine has (merged files describe further interfaces later; those are not looked at,
// so that this never reads through a whole large file).
template <typename Each>
void for_each_interface(const uint8_t *p, size_t size, Each &&each) {
    bool swapped = false;
    for (size_t pos = 0; pos + 12 <= size;) {
        uint32_t type = load32(p + pos, false);
        if (type == kSectionHeader) swapped = load32(p + pos + 8, false) != kByteOrderMagic;
        const uint32_t len = load32(p + pos + 4, swapped);
        if (len < 12 || len % 4 || len > size - pos) break;
        type = load32(p + pos, swapped);
        if (type == kEnhancedPacket || type == kSimplePacket || type == kObsoletePacket) break;
        if (type == kInterfaceDescription && len >= 20) each(p + pos, len, swapped);
        pos += len;
    }
}

// Whether an interface description block gives timestamps finer than microseconds. Options
// follow LinkType, reserved and SnapLen; if_tsresol is option 9.
bool interface_is_fine(const uint8_t *block, uint32_t len, bool swapped) {
    bool fine = false;
    for (uint32_t o = 16; o + 4 <= len - 4;) {
        uint16_t code, olen;
        memcpy(&code, block + o, 2);
        memcpy(&olen, block + o + 2, 2);
        if (swapped) code = __builtin_bswap16(code), olen = __builtin_bswap16(olen);
        if (code == kOptionEnd) break;
        if (code == kOptionTsResol && olen >= 1 && o + 5 <= len) {
            const uint8_t r = block[o + 4];
            fine |= (r & 0x80) ? (r & 0x7f) > 19 : r > 6;
        }
        o += 4 + ((olen + 3u) & ~3u);
    }
    return fine;
}

// The file mapped read-only for `use`, when it is a regular file of at least 12 bytes.
template <typename Use>
bool with_mapped_file(const std::string &path, Use &&use) {
    // Looked at before it is opened: opening a FIFO waits for its writer, and closing it again
    // would take the writer's data or end it with SIGPIPE.
    struct stat named;
    if (stat(path.c_str(), &named) != 0 || !S_ISREG(named.st_mode)) return false;
    const int fd = ::open(path.c_str(), O_RDONLY);
    if (fd < 0) return false;
    struct stat st;
    bool done = false;
    if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size >= 12) {
        void *m = mmap(nullptr, st.st_size, PROT_READ, MAP_PRIVATE, fd, 0);
        if (m != MAP_FAILED) {
            done = use(static_cast<const uint8_t *>(m), size_t(st.st_size));
            munmap(m, st.st_size);
        }
    }
    ::close(fd);
    return done;
}

}  // namespace

bool MappedCapture::can_read(const std::string &path) {
    if (path == "-") return false;
    return with_mapped_file(
        path, [](const uint8_t *p, size_t) { return is_capture_magic(load32(p, false)); });
}

std::optional<InputProblem> check_capture_file(const std::string &path, const std::string &filter) {
    struct stat st;
    if (path == "-" || (stat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode))) return std::nullopt;
    if (::access(path.c_str(), R_OK) != 0)
        return InputProblem{fmt::format("cannot read capture {}: {}", path, strerror(errno))};
    std::vector<int> links;
    with_mapped_file(path, [&](const uint8_t *p, size_t size) {
        const uint32_t magic = load32(p, false);
        if (magic == kSectionHeader) {
            for_each_interface(p, size, [&](const uint8_t *block, uint32_t, bool swapped) {
                uint16_t link;
                memcpy(&link, block + 8, 2);
                links.push_back(dlt_of(swapped ? __builtin_bswap16(link) : link));
            });
        } else if (is_capture_magic(magic) && size >= 24) {
            const bool swapped = magic != kPcapMicro && magic != kPcapNano;
            links.push_back(dlt_of(load32(p + 20, swapped) & 0xffff));
        }
        return true;
    });
    if (!links.empty() && !corvane_host::link_type_supported(links.front())) {
        MappedCapture c;  // its message, as the run would give it
        c.open(path, filter);
        return InputProblem{c.error(), c.filter_error()};
    }
    for (int link : links) {
        if (filter.empty()) break;
        pcap_t *dead = pcap_open_dead(link, 262144);
        bpf_program program;
        const bool ok = pcap_compile(dead, &program, filter.c_str(), 1, PCAP_NETMASK_UNKNOWN) == 0;
        std::string why = ok ? "" : pcap_geterr(dead);
        if (ok) pcap_freecode(&program);
        pcap_close(dead);
        if (!ok)
            return InputProblem{fmt::format("bad filter '{}' for the {} interfaces of {}: {}",
                                            filter, link_name(link), path, why),
                                true};
    }
    return std::nullopt;
}

bool file_has_sub_microsecond_stamps(const std::string &path) {
    return with_mapped_file(path, [](const uint8_t *p, size_t size) {
        const uint32_t magic = load32(p, false);
        if (magic == kPcapNano || magic == __builtin_bswap32(kPcapNano)) return true;
        if (magic != kSectionHeader) return false;
        bool fine = false;
        for_each_interface(p, size, [&](const uint8_t *block, uint32_t len, bool swapped) {
            fine |= interface_is_fine(block, len, swapped);
        });
        return fine;
    });
}

bool MappedCapture::open(const std::string &path, const std::string &filter, bool stream) {
    path_ = path;
    filter_ = filter;
    stream_ = stream;
    fd_ = path == "-" && stream ? dup(STDIN_FILENO) : ::open(path.c_str(), O_RDONLY);
    struct stat st;
    if (fd_ < 0 || fstat(fd_, &st) != 0) {
        error_ = fmt::format("cannot read capture {}: {}", path, strerror(errno));
        return false;
    }
    size_ = stream ? SIZE_MAX : static_cast<size_t>(st.st_size);
    const uint8_t *head = view(0, 4);
    if (!head) {
        error_ = fmt::format("cannot read capture {}: {}", path,
                             stream_error_.empty() && stream ? "no data" : strerror(errno));
        return false;
    }
    const uint32_t magic = load32(head, false);
    if (!is_capture_magic(magic)) {
        error_ = fmt::format("cannot read capture {}: neither pcap nor pcapng", path);
        return false;
    }
    pcapng_ = magic == kSectionHeader;
    if (pcapng_) return true;  // sections and interfaces are read as they come
    const uint8_t *h = view(0, 24);
    if (!h) {
        error_ = fmt::format("cannot read capture {}: truncated file header", path);
        return false;
    }
    swapped_ = magic == __builtin_bswap32(kPcapMicro) || magic == __builtin_bswap32(kPcapNano);
    const bool nano = magic == kPcapNano || magic == __builtin_bswap32(kPcapNano);
    // The low 16 bits of the link-type field are the link type; the bits above carry FCS
    // information (pcap file format, draft-ietf-opsawg-pcap).
    pcap_interface_ = {dlt_of(u32(h + 20) & 0xffff), nano ? 1'000'000'000ull : 1'000'000ull};
    frac_ns_ = nano ? 1 : 1000;
    plain_pcap_ = !stream_ && filter_.empty();
    pos_ = 24;
    const int link = pcap_interface_.link_type;
    if (!corvane_host::link_type_supported(link)) {
        unsupported(link);
        return false;
    }
    return filter_for(link);
}

void MappedCapture::unsupported(int link) {
    const char *name = pcap_datalink_val_to_name(link);
    const char *what = pcap_datalink_val_to_description(link);
    error_ = name ? fmt::format("{}: unsupported link type {} ({})", path_, name,
                                what ? what : "no description")
                  : fmt::format("{}: unsupported link type {}, which libpcap does not know", path_,
                                link);
}

MappedCapture::~MappedCapture() {
    if (fd_ >= 0) ::close(fd_);
}

const uint8_t *MappedCapture::view(size_t at, size_t len) {
    if (at > size_ || len > size_ - at) return nullptr;
    if (stream_) return stream_view(at, len);
    if (window_base_ && at >= window_at_ && at + len <= window_at_ + window_len_)
        return window_base_ + (at - window_at_);
    const size_t start = at & ~(page_size() - 1);
    const size_t map_len = std::min(size_ - start, std::max(kWindow, at + len - start));
    // Not populated at mmap: a populated window is resident whole at once, which raises peak
    // memory by a window for no less system time than the faults that map it page by page.
    void *m = mmap(nullptr, map_len, PROT_READ, MAP_PRIVATE, fd_, static_cast<off_t>(start));
    if (m == MAP_FAILED) return nullptr;
    madvise(m, map_len, MADV_SEQUENTIAL);
    madvise(m, map_len, MADV_WILLNEED);
    // The previous window lives on in the batches that still reference it.
    window_ = std::make_shared<Window>(m, map_len);
    window_base_ = static_cast<const uint8_t *>(m);
    window_at_ = start;
    window_len_ = map_len;
    return window_base_ + (at - start);
}

bool MappedCapture::filter_for(int link_type) {
    if (filter_.empty() || programs_.count(link_type)) return true;
    pcap_t *dead = pcap_open_dead(link_type, 262144);
    auto compiled = std::make_unique<bpf_program>();
    const bool ok =
        pcap_compile(dead, compiled.get(), filter_.c_str(), 1, PCAP_NETMASK_UNKNOWN) == 0;
    if (ok) {
        // From here on the program owns code that pcap_freecode releases.
        programs_.emplace(link_type, Program(compiled.release(), [](bpf_program *p) {
                              pcap_freecode(p);
                              delete p;
                          }));
    } else {
        error_ = pcapng_ ? fmt::format("bad filter '{}' for the {} interfaces of {}: {}", filter_,
                                       link_name(link_type), path_, pcap_geterr(dead))
                         : fmt::format("bad filter '{}': {}", filter_, pcap_geterr(dead));
        filter_error_ = true;
    }
    pcap_close(dead);
    return ok;
}

bool MappedCapture::passes(int link_type, const uint8_t *data, uint32_t caplen, uint32_t wire) {
    if (filter_.empty()) return true;
    pcap_pkthdr h{};
    h.caplen = caplen;
    h.len = wire;
    return pcap_offline_filter(programs_.at(link_type).get(), &h, data) != 0;
}

uint16_t MappedCapture::u16(const uint8_t *p) const {
    uint16_t v;
    memcpy(&v, p, 2);
    return swapped_ ? __builtin_bswap16(v) : v;
}

ReadStatus MappedCapture::fail(const std::string &what) {
    error_ = fmt::format("{}: {} at byte {}", path_, what, pos_);
    return ReadStatus::Error;
}

bool MappedCapture::read_interface(const uint8_t *body, size_t body_len) {
    Interface itf{dlt_of(u16(body)), 1'000'000};  // microseconds unless if_tsresol says otherwise
    for (size_t o = 8; o + 4 <= body_len;) {
        const uint16_t code = u16(body + o), len = u16(body + o + 2);
        if (code == kOptionEnd || o + 4 + len > body_len) break;
        if (code == kOptionTsResol && len >= 1) {
            const uint8_t r = body[o + 4];
            const unsigned exp = r & 0x7f;
            if ((r & 0x80) ? exp > 63 : exp > 19) return false;
            uint64_t units = 1;
            for (unsigned i = 0; i < exp; ++i)
                units *= (r & 0x80) ? 2 : 10;
            itf.units_per_second = units;
        }
        o += 4 + ((len + 3u) & ~3u);
    }
    interfaces_.push_back(itf);
    return true;
}

namespace {

// Whole seconds and the fraction separately, so that fine resolutions do not overflow.
uint64_t to_ns(uint64_t stamp, uint64_t units_per_second) {
    const uint64_t u = units_per_second;
    return stamp / u * 1'000'000'000ull +
           static_cast<uint64_t>((unsigned __int128)(stamp % u) * 1'000'000'000u / u);
}

}  // namespace

bool MappedCapture::sub_microsecond_stamps() {
    if (!pcapng_) return pcap_interface_.units_per_second > 1'000'000;
    // The interfaces ahead of the first packet, looked at without moving on; a stream reads
    // only as far as they go.
    bool swapped = swapped_, fine = false;
    for (size_t at = pos_;;) {
        const uint8_t *head = view(at, 12);
        if (!head) break;
        uint32_t type = load32(head, false);
        if (type == kSectionHeader) swapped = load32(head + 8, false) != kByteOrderMagic;
        const uint32_t len = load32(head + 4, swapped);
        type = load32(head, swapped);
        if (len < 12 || len % 4 || len > kMaxRecord || type == kEnhancedPacket ||
            type == kSimplePacket || type == kObsoletePacket)
            break;
        const uint8_t *block = view(at, len);
        if (!block) break;
        if (type == kInterfaceDescription && len >= 20)
            fine |= interface_is_fine(block, len, swapped);
        at += len;
    }
    return fine;
}

// A stream is read forward only, into buffers that take the place of the file's windows: a
// new buffer starts at `at` with the bytes of the old one from there on, and the old one lives
// on in the batches that reference it. A read returns what the writer has given so far, so
// packets go on as they come.
const uint8_t *MappedCapture::stream_view(size_t at, size_t len) {
    const size_t held_end = window_at_ + filled_;
    if (window_base_ && at >= window_at_ && at + len <= held_end)
        return window_base_ + (at - window_at_);
    if (!window_base_ || at < window_at_ || at + len > window_at_ + window_len_) {
        const size_t capacity = std::max(stream_buffer_ ? stream_buffer_ : kWindow, len);
        std::shared_ptr<uint8_t[]> buffer(new uint8_t[capacity]);
        const size_t keep = window_base_ && held_end > at ? held_end - at : 0;
        if (keep) memcpy(buffer.get(), window_base_ + (at - window_at_), keep);
        window_base_ = buffer.get();
        window_ = std::move(buffer);
        window_at_ = at;
        window_len_ = capacity;
        filled_ = keep;
    }
    while (window_at_ + filled_ < at + len) {
        size_t want = window_len_ - filled_;
        if (stream_read_max_) want = std::min(want, stream_read_max_);
        const ssize_t n = ::read(fd_, const_cast<uint8_t *>(window_base_) + filled_, want);
        if (n > 0) {
            filled_ += static_cast<size_t>(n);
        } else if (n == 0) {
            size_ = window_at_ + filled_;  // the end: what is held is all there is
            return nullptr;
        } else {
            // A signal (EINTR) ends the read as well; the caller knows whether it was one.
            stream_error_ = strerror(errno);
            return nullptr;
        }
    }
    return window_base_ + (at - window_at_);
}

// Whether there is a byte at `pos_`: for a stream, reads until there is one or the input ends.
bool MappedCapture::more() {
    return pos_ < size_ && (!stream_ || view(pos_, 1) != nullptr);
}

ReadStatus MappedCapture::next(Frame &frame) {
    if (next_in_window(frame)) return ReadStatus::Packet;
    ReadStatus rs = pcapng_ ? next_pcapng(frame) : next_pcap(frame);
    if (rs == ReadStatus::End && !stream_error_.empty()) rs = fail("read failed: " + stream_error_);
    if (rs == ReadStatus::Packet) frame.keeper = &window_;
    return rs;
}

ReadStatus MappedCapture::next_pcap(Frame &frame) {
    while (more()) {
        const uint8_t *h = view(pos_, 16);
        if (!h) return fail("truncated record header");
        const uint32_t secs = u32(h), frac = u32(h + 4), caplen = u32(h + 8), wire = u32(h + 12);
        if (caplen > kMaxRecord) return fail(fmt::format("record of {} bytes", caplen));
        const uint8_t *data = view(pos_ + 16, caplen);
        if (!data) return fail("truncated record");
        pos_ += 16 + caplen;
        const int link = pcap_interface_.link_type;
        if (!passes(link, data, caplen, wire)) continue;
        frame.ts_ns = uint64_t(secs) * 1'000'000'000ull + uint64_t(frac) * frac_ns_;
        frame.caplen = caplen;
        frame.wire_len = wire;
        frame.data = data;
        frame.link_type = link;
        return ReadStatus::Packet;
    }
    return ReadStatus::End;
}

ReadStatus MappedCapture::next_pcapng(Frame &frame) {
    while (more()) {
        const uint8_t *head = view(pos_, 12);
        if (!head) return fail("truncated block");
        const uint32_t raw_type = load32(head, false);
        if (raw_type == kSectionHeader) {
            const uint32_t magic = load32(head + 8, false);
            if (magic != kByteOrderMagic && magic != __builtin_bswap32(kByteOrderMagic))
                return fail("bad byte-order magic");
            swapped_ = magic != kByteOrderMagic;
            interfaces_.clear();  // interface ids are numbered per section
        }
        const uint32_t type = u32(head), len = u32(head + 4);
        if (len < 12 || len % 4 || len > kMaxRecord || len > size_ - pos_)
            return fail("block length out of bounds");
        const uint8_t *block = view(pos_, len);
        if (!block) return fail("truncated block");
        const uint8_t *body = block + 8;
        const size_t body_len = len - 12;
        pos_ += len;
        uint32_t iface = 0, caplen = 0, wire = 0;
        uint64_t stamp = 0;
        const uint8_t *data = nullptr;
        if (type == kInterfaceDescription) {
            if (body_len < 8 || !read_interface(body, body_len)) return fail("bad interface block");
            const int link = interfaces_.back().link_type;
            // A file that starts with a link type smbflow does not decode is refused, as
            // libpcap's reader would; a merged file may carry such an interface among others.
            if (!seen_interface_ && !corvane_host::link_type_supported(link)) {
                unsupported(link);
                return ReadStatus::Error;
            }
            seen_interface_ = true;
            if (!filter_for(link)) return ReadStatus::Error;
            continue;
        } else if (type == kEnhancedPacket || type == kObsoletePacket) {
            if (body_len < 20) return fail("packet block too short");
            iface = type == kEnhancedPacket ? u32(body) : u16(body);
            stamp = uint64_t(u32(body + 4)) << 32 | u32(body + 8);
            caplen = u32(body + 12);
            wire = u32(body + 16);
            data = body + 20;
        } else if (type == kSimplePacket) {
            if (body_len < 4) return fail("packet block too short");
            wire = u32(body);
            caplen = std::min<uint32_t>(wire, body_len - 4);
            data = body + 4;
        } else {
            continue;  // name resolution, statistics, custom blocks...
        }
        if (caplen > body + body_len - data) return fail("packet longer than its block");
        if (iface >= interfaces_.size()) return fail("packet of an undescribed interface");
        const Interface &itf = interfaces_[iface];
        if (!passes(itf.link_type, data, caplen, wire)) continue;
        frame.ts_ns = to_ns(stamp, itf.units_per_second);
        frame.caplen = caplen;
        frame.wire_len = wire;
        frame.data = data;
        frame.link_type = itf.link_type;
        return ReadStatus::Packet;
    }
    return ReadStatus::End;
}

}  // namespace smbflow
