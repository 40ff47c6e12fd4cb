// A session's names as the session table and the exported records share them (activity=1).
//
// The names of a session are set once by its AUTHENTICATE request and then read by every record
// of the session that is exported, on whichever thread exports it. Rather than a copy of the
// three 128-byte buffers per record, the table and the records hold references to one
// immutable block, freed with its last reference; the block keeps each name without the zero
// bytes that pad it, so that a session costs its names' length rather than 384 bytes.
#pragma once

#include <stdint.h>

#include <atomic>

#include "smb.h"
#include "smb_ntlmssp.h"

namespace smb::ntlmssp {

enum class Name : uint8_t { user = 0, domain = 1, workstation = 2 };

class SharedIdentity {
  public:
    // A block holding `names`, with one reference (the caller's).
    static SharedIdentity *make(const Identity &names);

    // Another reference, for another holder. Only a holder may add one.
    void ref() { refs_.fetch_add(1, std::memory_order_relaxed); }

    // Drops a reference; the last frees the block. Null is ignored.
    static void unref(SharedIdentity *identity);

    // The name as the record's field gives it: 128 bytes of UTF-16LE, zero-filled.
    void expand(Name name, uint8_t (&out)[SMB_NAME_SIZE]) const;

    // Whether the name's first unit is not zero (the field has a value).
    bool has_text(Name name) const { return text_[index(name)] != 0; }

    // The name's units before its first zero unit: what the host's text writer converts of
    // the 128-byte buffer.
    const uint8_t *text(Name name) const { return bytes() + offset(name); }
    uint32_t text_size(Name name) const { return text_[index(name)]; }

  private:
    SharedIdentity() = default;
    static int index(Name name) { return static_cast<int>(name); }
    const uint8_t *bytes() const { return reinterpret_cast<const uint8_t *>(this + 1); }
    uint32_t offset(Name name) const {
        return name == Name::user     ? 0
               : name == Name::domain ? kept_[0]
                                      : uint32_t{kept_[0]} + kept_[1];
    }

    std::atomic<uint32_t> refs_{1};
    // Bytes kept of each name: up to its last non-zero byte, rounded up to whole units.
    uint8_t kept_[3] = {};
    // Bytes of each name before its first zero unit (at most those kept).
    uint8_t text_[3] = {};
};

}  // namespace smb::ntlmssp
