#include "rpc_builder.h"

#include <stdexcept>

namespace smb2test {

namespace {

template <typename T>
void put_le(Bytes &out, size_t offset, T value) {
    for (size_t i = 0; i < sizeof(T); ++i)
        out[offset + i] = uint8_t(value >> (8 * i));
}

template <typename T>
void put_be(Bytes &out, size_t offset, T value) {
    for (size_t i = 0; i < sizeof(T); ++i)
        out[offset + i] = uint8_t(value >> (8 * (sizeof(T) - 1 - i)));
}

Bytes encode_name(std::string_view name, bool unicode) {
    if (unicode) return utf16(name);
    return Bytes(name.begin(), name.end());
}

// A DER element with a definite length (short form, or long form of two octets).
Bytes der(uint8_t tag, const Bytes &contents) {
    Bytes out{tag};
    const size_t n = contents.size();
    if (n < 0x80) {
        out.push_back(uint8_t(n));
    } else if (n < 0x100) {
        out.insert(out.end(), {0x81, uint8_t(n)});
    } else {
        out.insert(out.end(), {0x82, uint8_t(n >> 8), uint8_t(n)});
    }
    out.insert(out.end(), contents.begin(), contents.end());
    return out;
}

Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes &p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

// Functions rather than globals: the tests build their tables during static initialisation.
Bytes spnego_oid() {
    return {0x06, 0x06, 0x2b, 0x06, 0x01, 0x05, 0x05, 0x02};
}
Bytes ntlm_oid() {
    return {0x06, 0x0a, 0x2b, 0x06, 0x01, 0x04, 0x01, 0x82, 0x37, 0x02, 0x02, 0x0a};
}
const char *kNdrSyntax = "8a885d04-1ceb-11c9-9fe8-08002b104860";

void put_uuid(Bytes &out, size_t offset, std::string_view text, bool little) {
    const Uuid u = uuid_from_text(text);
    static constexpr uint8_t kLittle[16] = {3, 2, 1, 0, 5, 4, 7, 6, 8, 9, 10, 11, 12, 13, 14, 15};
    for (size_t i = 0; i < 16; ++i)
        out[offset + i] = u[little ? kLittle[i] : i];
}

Bytes dcerpc_header(uint8_t type, uint8_t flags, size_t length, bool little) {
    Bytes h(16, 0);
    h[0] = 5;
    h[2] = type;
    h[3] = flags;
    h[4] = little ? 0x10 : 0x00;
    if (little)
        put_le<uint16_t>(h, 8, uint16_t(length));
    else
        put_be<uint16_t>(h, 8, uint16_t(length));
    h[12] = 1;  // call id
    return h;
}

}  // namespace

Bytes ntlm_authenticate(const NtlmNames &names) {
    const Bytes domain = encode_name(names.domain, names.unicode);
    const Bytes user = encode_name(names.user, names.unicode);
    const Bytes workstation = encode_name(names.workstation, names.unicode);
    const Bytes lm(24, 0x11), nt(24, 0x22);
    Bytes m(64, 0);
    const char signature[8] = {'N', 'T', 'L', 'M', 'S', 'S', 'P', 0};
    std::copy(signature, signature + 8, m.begin());
    put_le<uint32_t>(m, 8, 3);
    size_t at = 64;
    auto field = [&](size_t fields, const Bytes &value) {
        put_le<uint16_t>(m, fields, uint16_t(value.size()));
        put_le<uint16_t>(m, fields + 2, uint16_t(value.size()));
        put_le<uint32_t>(m, fields + 4, uint32_t(at));
        m.insert(m.end(), value.begin(), value.end());
        at += value.size();
    };
    field(28, domain);
    field(36, user);
    field(44, workstation);
    field(12, lm);
    field(20, nt);
    put_le<uint32_t>(m, 60, names.unicode ? 0xE2088235u : 0xE2088234u);
    return m;
}

Bytes spnego_targ(const Bytes &token) {
    return der(0xA1, der(0x30, der(0xA2, der(0x04, token))));
}

Bytes spnego_init(const Bytes &token) {
    const Bytes mech_types = der(0xA0, der(0x30, ntlm_oid()));
    const Bytes init = der(0xA0, der(0x30, cat({mech_types, der(0xA2, der(0x04, token))})));
    return der(0x60, cat({spnego_oid(), init}));
}

Bytes session_setup_request_body(const Bytes &security) {
    Bytes b(24, 0);
    put_le<uint16_t>(b, 0, 25);
    put_le<uint16_t>(b, 12, 64 + 24);
    put_le<uint16_t>(b, 14, uint16_t(security.size()));
    b.insert(b.end(), security.begin(), security.end());
    return b;
}

Uuid uuid_from_text(std::string_view text) {
    Uuid u{};
    size_t n = 0;
    for (size_t i = 0; i < text.size() && n < 32; ++i) {
        const char c = text[i];
        if (c == '-') continue;
        const int v = c >= 'a' ? c - 'a' + 10 : c >= 'A' ? c - 'A' + 10 : c - '0';
        u[n / 2] = uint8_t(u[n / 2] | (v << (n % 2 ? 0 : 4)));
        ++n;
    }
    if (n != 32) throw std::invalid_argument("not a UUID");
    return u;
}

Bytes dcerpc_bind(const std::vector<PresentationContext> &contexts, bool little, uint8_t type) {
    Bytes body(12, 0);  // max_xmit_frag, max_recv_frag, assoc_group_id, n_context_elem ...
    auto put16 = [&](Bytes &b, size_t at, uint16_t v) {
        if (little)
            put_le(b, at, v);
        else
            put_be(b, at, v);
    };
    put16(body, 0, 4280);
    put16(body, 2, 4280);
    body[8] = uint8_t(contexts.size());
    for (const auto &c : contexts) {
        Bytes e(24 + 20 * c.transfer_syntaxes, 0);
        put16(e, 0, c.id);
        e[2] = c.transfer_syntaxes;
        put_uuid(e, 4, c.interface, little);
        e[20] = 1;  // interface version
        for (size_t t = 0; t < c.transfer_syntaxes; ++t) {
            put_uuid(e, 24 + 20 * t, kNdrSyntax, little);
            e[24 + 20 * t + 16] = 2;
        }
        body.insert(body.end(), e.begin(), e.end());
    }
    Bytes pdu = dcerpc_header(type, 0x03, 16 + body.size(), little);
    pdu.insert(pdu.end(), body.begin(), body.end());
    return pdu;
}

Bytes dcerpc_request(uint16_t context_id, uint16_t opnum, size_t stub_length, bool first,
                     bool little) {
    Bytes body(8 + stub_length, 0);
    if (little) {
        put_le<uint32_t>(body, 0, uint32_t(stub_length));
        put_le(body, 4, context_id);
        put_le(body, 6, opnum);
    } else {
        put_be<uint32_t>(body, 0, uint32_t(stub_length));
        put_be(body, 4, context_id);
        put_be(body, 6, opnum);
    }
    const uint8_t flags = first ? 0x03 : 0x02;  // first+last, or last
    Bytes pdu = dcerpc_header(0, flags, 16 + body.size(), little);
    pdu.insert(pdu.end(), body.begin(), body.end());
    return pdu;
}

Bytes pipe_write_body(uint64_t file_id, const Bytes &data) {
    Bytes b = write_request_body(file_id, data);
    put_le<uint16_t>(b, 2, 64 + 48);
    return b;
}

Bytes pipe_transceive_body(uint64_t file_id, const Bytes &input, uint32_t ctl_code) {
    Bytes b = request_body(IOCTL, file_id);
    b.resize(56);
    put_le<uint32_t>(b, 4, ctl_code);
    put_le<uint32_t>(b, 24, 64 + 56);
    put_le<uint32_t>(b, 28, uint32_t(input.size()));
    put_le<uint32_t>(b, 44, 4280);
    put_le<uint32_t>(b, 48, 1);  // SMB2_0_IOCTL_IS_FSCTL
    b.insert(b.end(), input.begin(), input.end());
    return b;
}

}  // namespace smb2test
