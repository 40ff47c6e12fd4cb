// A bounds-checked reader over a fuzzer's input: every take stops at the end of the data, so a
// harness can carve structured values out of arbitrary bytes without checking lengths itself.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <span>
#include <string>

namespace fuzz {

class input {
  public:
    input(const uint8_t *data, size_t size) : rest_(data, size) {}

    bool empty() const { return rest_.empty(); }
    size_t size() const { return rest_.size(); }

    uint8_t byte() {
        if (rest_.empty()) return 0;
        const uint8_t b = rest_[0];
        rest_ = rest_.subspan(1);
        return b;
    }

    uint16_t u16le() {
        const uint16_t lo = byte();
        return static_cast<uint16_t>(lo | (byte() << 8));
    }

    // Up to n bytes (fewer at the end of the input).
    std::span<const uint8_t> bytes(size_t n) {
        n = std::min(n, rest_.size());
        auto out = rest_.first(n);
        rest_ = rest_.subspan(n);
        return out;
    }

    std::span<const uint8_t> remaining() { return bytes(rest_.size()); }

  private:
    std::span<const uint8_t> rest_;
};

// The bytes as a C string, cut at the first zero byte.
inline std::string c_string(std::span<const uint8_t> bytes) {
    std::string s(bytes.begin(), bytes.end());
    s.resize(s.find('\0') == std::string::npos ? s.size() : s.find('\0'));
    return s;
}

// Bytes as a file without touching the file system: a memory file named through /proc, closed
// when the scope ends. path() is empty when the file could not be made.
class memory_file {
  public:
    memory_file(const void *data, size_t size) {
        fd_ = memfd_create("fuzz-input", 0);
        if (fd_ < 0) return;
        const auto *bytes = static_cast<const uint8_t *>(data);
        for (size_t done = 0; done < size;) {
            const ssize_t n = write(fd_, bytes + done, size - done);
            if (n <= 0) break;
            done += static_cast<size_t>(n);
        }
        path_ = "/proc/self/fd/" + std::to_string(fd_);
    }
    explicit memory_file(const std::string &content)
        : memory_file(content.data(), content.size()) {}
    ~memory_file() {
        if (fd_ >= 0) close(fd_);
    }
    memory_file(const memory_file &) = delete;
    memory_file &operator=(const memory_file &) = delete;

    const std::string &path() const { return path_; }

  private:
    int fd_ = -1;
    std::string path_;
};

}  // namespace fuzz
