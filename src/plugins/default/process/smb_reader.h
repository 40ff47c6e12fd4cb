// Bounds-checked reading of wire bytes. Every SMB field is read through a ByteReader over the
// bytes that the caller really holds, so a length or offset claimed by the wire can never make
// the parser read outside the payload or the reassembly buffer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <bit>
#include <cstring>
#include <span>
#include <type_traits>

namespace smb {

class ByteReader {
  public:
    constexpr ByteReader() = default;
    constexpr explicit ByteReader(std::span<const uint8_t> bytes) : bytes_(bytes) {}
    ByteReader(const uint8_t *data, size_t size) : bytes_(data, data ? size : 0) {}

    constexpr size_t size() const { return bytes_.size(); }
    constexpr const uint8_t *data() const { return bytes_.data(); }

    // True when `count` bytes starting at `offset` lie inside the reader.
    constexpr bool has(size_t offset, size_t count) const {
        return offset <= bytes_.size() && count <= bytes_.size() - offset;
    }

    // Fixed-width reads. The parsers check body lengths before they read, as the protocol
    // rules demand; a read that would still leave the bytes yields 0 instead of touching memory
    // that is not ours.
    constexpr uint8_t u8(size_t offset) const { return has(offset, 1) ? bytes_[offset] : 0; }
    constexpr uint16_t le16(size_t offset) const { return little<uint16_t>(offset); }
    constexpr uint32_t le32(size_t offset) const { return little<uint32_t>(offset); }
    constexpr uint64_t le64(size_t offset) const { return little<uint64_t>(offset); }
    constexpr uint32_t be32(size_t offset) const {
        if (!has(offset, 4)) return 0;
        if (std::is_constant_evaluated() || std::endian::native != std::endian::little) {
            uint32_t v = 0;
            for (size_t i = 0; i < 4; ++i)
                v = (v << 8) | bytes_[offset + i];
            return v;
        }
        // One load and a byte swap: g++ does not merge the byte loop above into one.
        uint32_t v;
        std::memcpy(&v, bytes_.data() + offset, sizeof v);
        return __builtin_bswap32(v);
    }

    // `count` bytes at `offset`, or an empty span when they are not all there.
    constexpr std::span<const uint8_t> bytes(size_t offset, size_t count) const {
        return has(offset, count) ? bytes_.subspan(offset, count) : std::span<const uint8_t>{};
    }

    // The bytes from `offset` to the end (empty past the end).
    constexpr ByteReader from(size_t offset) const {
        return offset <= bytes_.size() ? ByteReader(bytes_.subspan(offset)) : ByteReader();
    }

    // The first `count` bytes (all of them when fewer are held).
    constexpr ByteReader first(size_t count) const {
        return ByteReader(bytes_.first(count < bytes_.size() ? count : bytes_.size()));
    }

  private:
    template <typename T>
    constexpr T little(size_t offset) const {
        if (!has(offset, sizeof(T))) return 0;
        if (std::is_constant_evaluated() || std::endian::native != std::endian::little) {
            T v = 0;
            for (size_t i = sizeof(T); i-- > 0;)
                v = static_cast<T>((v << 8) | bytes_[offset + i]);
            return v;
        }
        // One unaligned load: g++ does not merge the byte loop above into one.
        T v;
        std::memcpy(&v, bytes_.data() + offset, sizeof v);
        return v;
    }

    std::span<const uint8_t> bytes_;
};

// Little-endian serialisation of identifiers, for hashing them in wire order.
template <typename T>
constexpr void put_le(uint8_t *out, T value) {
    for (size_t i = 0; i < sizeof(T); ++i)
        out[i] = static_cast<uint8_t>(value >> (8 * i));
}

}  // namespace smb
