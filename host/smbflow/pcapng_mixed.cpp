#include "pcapng_mixed.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <set>

#include <fmt/format.h>

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

uint32_t load32(const uint8_t *p, bool swapped) {
    uint32_t v;
    memcpy(&v, p, 4);
    return swapped ? __builtin_bswap32(v) : v;
}

std::string link_name(int link_type) {
    const char *name = pcap_datalink_val_to_name(link_type);
    return name ? name : fmt::format("link type {}", link_type);
}

// Calls `each(block, length, swapped)` for every interface description block of a pcapng
// file, walking block headers only.
template <typename Each>
void for_each_interface(const uint8_t *p, size_t size, Each &&each) {
    bool swapped = false;
    for (size_t pos = 0; pos + 12 <= size;) {
        uint32_t type = load32(p + pos, false);
        if (type == kSectionHeader) swapped = load32(p + pos + 8, false) != kByteOrderMagic;
        const uint32_t len = load32(p + pos + 4, swapped);
        if (len < 12 || len % 4 || len > size - pos) break;
        if (load32(p + pos, swapped) == kInterfaceDescription && len >= 20)
            each(p + pos, len, swapped);
        pos += len;
    }
}

std::set<int> link_types(const uint8_t *p, size_t size) {
    std::set<int> types;
    for_each_interface(p, size, [&](const uint8_t *block, uint32_t, bool swapped) {
        types.insert(static_cast<uint16_t>(load32(block + 8, swapped) & 0xffff));
    });
    return types;
}

// The file mapped read-only for `use`, when it is a regular file of at least 12 bytes.
template <typename Use>
bool with_mapped_file(const std::string &path, Use &&use) {
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

bool PcapngMixed::needed(const std::string &path) {
    return with_mapped_file(path, [](const uint8_t *p, size_t size) {
        return load32(p, false) == kSectionHeader && link_types(p, size).size() > 1;
    });
}

bool file_has_sub_microsecond_stamps(const std::string &path) {
    return with_mapped_file(path, [](const uint8_t *p, size_t size) {
        const uint32_t magic = load32(p, false);
        if (magic == 0xa1b23c4d || magic == 0x4d3cb2a1) return true;  // nanosecond pcap
        if (magic != kSectionHeader) return false;
        bool fine = false;
        for_each_interface(p, size, [&](const uint8_t *block, uint32_t len, bool swapped) {
            // Options follow LinkType, reserved and SnapLen; if_tsresol is option 9.
            for (uint32_t o = 16; o + 4 <= len - 4;) {
                uint16_t code, olen;
                memcpy(&code, block + o, 2);
                memcpy(&olen, block + o + 2, 2);
                if (swapped) code = __builtin_bswap16(code), olen = __builtin_bswap16(olen);
                if (code == kOptionEnd) break;
                if (code == kOptionTsResol && olen >= 1) {
                    const uint8_t r = block[o + 4];
                    fine |= (r & 0x80) ? (r & 0x7f) > 19 : r > 6;
                }
                o += 4 + ((olen + 3u) & ~3u);
            }
        });
        return fine;
    });
}

bool PcapngMixed::open(const std::string &path, const std::string &filter) {
    path_ = path;
    filter_ = filter;
    const int fd = ::open(path.c_str(), O_RDONLY);
    struct stat st;
    if (fd < 0 || fstat(fd, &st) != 0) {
        error_ = fmt::format("cannot read capture {}: {}", path, strerror(errno));
        if (fd >= 0) ::close(fd);
        return false;
    }
    size_ = static_cast<size_t>(st.st_size);
    void *m = size_ ? mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, fd, 0) : MAP_FAILED;
    ::close(fd);
    if (m == MAP_FAILED) {
        error_ = fmt::format("cannot read capture {}: {}", path, strerror(errno));
        return false;
    }
    madvise(m, size_, MADV_SEQUENTIAL);
    map_ = static_cast<const uint8_t *>(m);
    for (int link : link_types(map_, size_))
        if (!filter_for(link)) return false;
    return true;
}

PcapngMixed::~PcapngMixed() {
    if (map_) munmap(const_cast<uint8_t *>(map_), size_);
}

bool PcapngMixed::filter_for(int link_type) {
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
        error_ = fmt::format("bad filter '{}' for the {} interfaces of {}: {}", filter_,
                             link_name(link_type), path_, pcap_geterr(dead));
        filter_error_ = true;
    }
    pcap_close(dead);
    return ok;
}

uint32_t PcapngMixed::u32(size_t at) const {
    return load32(map_ + at, swapped_);
}

uint16_t PcapngMixed::u16(size_t at) const {
    uint16_t v;
    memcpy(&v, map_ + at, 2);
    return swapped_ ? __builtin_bswap16(v) : v;
}

ReadStatus PcapngMixed::fail(const std::string &what) {
    error_ = fmt::format("{}: {} at byte {}", path_, what, pos_);
    return ReadStatus::Error;
}

bool PcapngMixed::read_interface(size_t body, size_t body_len) {
    Interface itf{u16(body), 1'000'000};  // microseconds unless if_tsresol says otherwise
    for (size_t o = body + 8; o + 4 <= body + body_len;) {
        const uint16_t code = u16(o), len = u16(o + 2);
        if (code == kOptionEnd || o + 4 + len > body + body_len) break;
        if (code == kOptionTsResol && len >= 1) {
            const uint8_t r = map_[o + 4];
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

ReadStatus PcapngMixed::next(Frame &frame) {
    while (pos_ < size_) {
        if (size_ - pos_ < 12) return fail("truncated block");
        const uint32_t raw_type = load32(map_ + pos_, false);
        if (raw_type == kSectionHeader) {
            const uint32_t magic = load32(map_ + pos_ + 8, false);
            if (magic != kByteOrderMagic && magic != __builtin_bswap32(kByteOrderMagic))
                return fail("bad byte-order magic");
            swapped_ = magic != kByteOrderMagic;
            interfaces_.clear();  // interface ids are numbered per section
        }
        const uint32_t type = u32(pos_), len = u32(pos_ + 4);
        if (len < 12 || len % 4 || len > size_ - pos_) return fail("block length out of bounds");
        const size_t body = pos_ + 8, body_len = len - 12;
        pos_ += len;
        uint32_t iface = 0, caplen = 0, wire = 0;
        uint64_t stamp = 0;
        size_t data = 0;
        if (type == kInterfaceDescription) {
            if (body_len < 8 || !read_interface(body, body_len)) return fail("bad interface block");
            if (!filter_for(interfaces_.back().link_type)) return ReadStatus::Error;
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
        if (!filter_.empty()) {
            pcap_pkthdr h{};
            h.caplen = caplen;
            h.len = wire;
            if (!pcap_offline_filter(programs_.at(itf.link_type).get(), &h, map_ + data)) continue;
        }
        // Whole seconds and the fraction separately, so that fine resolutions do not overflow.
        const uint64_t u = itf.units_per_second;
        frame.ts_ns = stamp / u * 1'000'000'000ull +
                      static_cast<uint64_t>((unsigned __int128)(stamp % u) * 1'000'000'000u / u);
        frame.caplen = caplen;
        frame.wire_len = wire;
        frame.data = map_ + data;
        frame.link_type = itf.link_type;
        return ReadStatus::Packet;
    }
    return ReadStatus::End;
}

}  // namespace smbflow
