// The shared, immutable identity block of a session.
#include "smb_identity.h"

#include <stdlib.h>
#include <string.h>

#include <new>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "utils_alloc.h"

namespace smb::ntlmssp {

namespace {

// Bytes of a 128-byte buffer up to its last non-zero byte, rounded up to whole units. Names are
// mostly short, so most of the buffer is zero: sixteen bytes at a time from the end while they
// are all zero.
uint8_t kept_length(const uint8_t (&name)[SMB_NAME_SIZE]) {
    size_t n = SMB_NAME_SIZE;
#if defined(__SSE2__)
    static_assert(SMB_NAME_SIZE % 16 == 0);
    const __m128i zero = _mm_setzero_si128();
    for (; n > 0; n -= 16) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(name + n - 16));
        const unsigned nonzero = ~_mm_movemask_epi8(_mm_cmpeq_epi8(v, zero)) & 0xffffu;
        if (nonzero) {
            n = n - 16 + (32 - __builtin_clz(nonzero));
            break;
        }
    }
#else
    for (uint64_t word; n >= 8; n -= 8) {
        memcpy(&word, name + n - 8, 8);
        if (word != 0) break;
    }
    while (n > 0 && name[n - 1] == 0)
        --n;
#endif
    return static_cast<uint8_t>((n + 1) & ~size_t{1});
}

// Bytes before the first zero unit among the `kept` bytes.
uint8_t text_length(const uint8_t *name, uint8_t kept) {
    uint8_t at = 0;
    while (at < kept && (name[at] != 0 || name[at + 1] != 0))
        at += 2;
    return at;
}

const uint8_t *name_of(const Identity &names, Name name) {
    switch (name) {
        case Name::user:
            return names.user;
        case Name::domain:
            return names.domain;
        default:
            return names.workstation;
    }
}

}  // namespace

SharedIdentity *SharedIdentity::make(const Identity &names) {
    const uint8_t lengths[3] = {kept_length(names.user), kept_length(names.domain),
                                kept_length(names.workstation)};
    const size_t total = size_t{lengths[0]} + lengths[1] + lengths[2];
    void *memory = cv::alloc::allocate_uninitialised(sizeof(SharedIdentity) + total);
    auto *block = new (memory) SharedIdentity();
    auto *out = reinterpret_cast<uint8_t *>(block + 1);
    for (int i = 0; i < 3; ++i) {
        const uint8_t *name = name_of(names, static_cast<Name>(i));
        block->kept_[i] = lengths[i];
        block->text_[i] = text_length(name, lengths[i]);
        memcpy(out, name, lengths[i]);
        out += lengths[i];
    }
    return block;
}

void SharedIdentity::unref(SharedIdentity *identity) {
    if (!identity) return;
    // The holder's writes happen before the free by whichever thread drops the last reference.
    if (identity->refs_.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    identity->~SharedIdentity();
    free(identity);
}

void SharedIdentity::expand(Name name, uint8_t (&out)[SMB_NAME_SIZE]) const {
    const uint8_t length = kept_[index(name)];
    memcpy(out, bytes() + offset(name), length);
    memset(out + length, 0, SMB_NAME_SIZE - length);
}

}  // namespace smb::ntlmssp
