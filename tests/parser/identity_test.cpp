// The names a session shares with its exported records: kept without their zero padding yet
// given back byte for byte, and the text size the opt-in string fields hand to the host.
#include <gtest/gtest.h>

#include <string.h>

#include <array>
#include <vector>

#include "smb_fields.h"
#include "smb_identity.h"

namespace {

using smb::ntlmssp::Identity;
using smb::ntlmssp::Name;
using smb::ntlmssp::SharedIdentity;
using Buffer = std::array<uint8_t, SMB_NAME_SIZE>;

// A 128-byte buffer holding `bytes` at its start, zero after them.
Buffer buffer_of(std::vector<uint8_t> bytes) {
    Buffer b{};
    std::copy(bytes.begin(), bytes.end(), b.begin());
    return b;
}

struct NameCase {
    const char *what;
    Buffer name;
    bool has_text;
    uint32_t text_size;  // bytes before the first zero unit
};

std::vector<NameCase> name_cases() {
    Buffer full;
    full.fill(0xff);
    Buffer odd_end = buffer_of({'a', 0, 'b', 0});
    odd_end[SMB_NAME_SIZE - 1] = 0x41;  // after a zero unit, in the last byte
    return {
        {"empty", Buffer{}, false, 0},
        {"ascii", buffer_of({'a', 0, 'l', 0, 'i', 0}), true, 6},
        {"one byte kept", buffer_of({'x'}), true, 2},
        {"high byte only", buffer_of({0, 0x01}), true, 2},
        {"zero unit first, bytes behind it", buffer_of({0, 0, 'z', 0}), false, 0},
        {"every byte set", full, true, 128},
        {"last byte set behind a zero unit", odd_end, true, 4},
    };
}

TEST(SharedIdentity, GivesBackEveryNameByteForByte) {
    const std::vector<NameCase> cases = name_cases();
    // Each case in each of the three places, beside the other cases, so that a name's offset
    // past the names before it is exercised with every length.
    for (size_t i = 0; i < cases.size(); ++i) {
        const NameCase &a = cases[i], &b = cases[(i + 1) % cases.size()],
                       &c = cases[(i + 2) % cases.size()];
        SCOPED_TRACE(a.what);
        Identity names;
        memcpy(names.user, a.name.data(), SMB_NAME_SIZE);
        memcpy(names.domain, b.name.data(), SMB_NAME_SIZE);
        memcpy(names.workstation, c.name.data(), SMB_NAME_SIZE);
        SharedIdentity *id = SharedIdentity::make(names);
        const std::pair<Name, const NameCase *> places[] = {
            {Name::user, &a}, {Name::domain, &b}, {Name::workstation, &c}};
        for (const auto &[name, expected] : places) {
            Buffer out;
            out.fill(0x5a);
            id->expand(name, *reinterpret_cast<uint8_t(*)[SMB_NAME_SIZE]>(out.data()));
            EXPECT_EQ(out, expected->name) << "name " << int(name);
            EXPECT_EQ(id->has_text(name), expected->has_text) << "name " << int(name);
            ASSERT_EQ(id->text_size(name), expected->text_size) << "name " << int(name);
            EXPECT_EQ(memcmp(id->text(name), expected->name.data(), expected->text_size), 0)
                << "name " << int(name);
        }
        SharedIdentity::unref(id);
    }
}

// The last non-zero byte may sit anywhere in the buffer, on either side of each sixteen-byte
// step from the end: every name comes back byte for byte.
TEST(SharedIdentity, KeepsEveryNameUpToItsLastByteWhereverItIs) {
    for (uint32_t last = 0; last < SMB_NAME_SIZE; ++last) {
        for (const uint8_t value : {uint8_t{0x01}, uint8_t{0x80}}) {
            Identity names{};
            names.user[0] = 'u';
            names.user[last] = value;
            names.domain[last] = value;
            SharedIdentity *id = SharedIdentity::make(names);
            uint8_t out[SMB_NAME_SIZE];
            id->expand(Name::user, out);
            EXPECT_EQ(memcmp(out, names.user, SMB_NAME_SIZE), 0) << "user, last byte " << last;
            id->expand(Name::domain, out);
            EXPECT_EQ(memcmp(out, names.domain, SMB_NAME_SIZE), 0) << "domain, last byte " << last;
            SharedIdentity::unref(id);
        }
    }
}

TEST(NameTextBytes, EndAtTheFirstZeroUnit) {
    // Units that are not zero although a byte of them is (0x0100, 0x0080, 0x8000) stand around
    // the zero unit, so that an eight-byte step that took them for zero would stop early.
    const uint8_t fillers[][2] = {{'a', 0}, {0, 0x01}, {0x80, 0}, {0, 0x80}};
    for (uint32_t zero_at : {0u, 1u, 3u, 4u, 5u, 8u, 31u, 63u, 64u}) {
        Buffer name;
        for (uint32_t u = 0; u < SMB_NAME_SIZE / 2; ++u) {
            const uint8_t *f = fillers[u % 4];
            name[2 * u] = f[0];
            name[2 * u + 1] = f[1];
        }
        if (zero_at < SMB_NAME_SIZE / 2) name[2 * zero_at] = name[2 * zero_at + 1] = 0;
        EXPECT_EQ(smb_name_text_bytes(name.data()), 2 * zero_at) << "zero unit " << zero_at;
    }
}

}  // namespace
