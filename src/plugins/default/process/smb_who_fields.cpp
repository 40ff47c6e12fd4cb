// The identity and remote-call fields (activity=1), registered after the activity fields:
// SMB_USER, SMB_DOMAIN, SMB_WORKSTATION, SMB_RPC_INTERFACE, SMB_RPC_OPNUMS, SMB_RPC_CALLS.
#include <string.h>

#include <array>
#include <utility>

#include "smb_fields.h"
#include "smb_who.h"

namespace {

constexpr uint32_t kUuidSize = 16;
const uint64_t kZero = 0;

const smb_flow_data *smb2_record(host_slot *slot) {
    const auto *rec = static_cast<const smb_flow_data *>(*slot);
    return rec && rec->version == SMB_VERSION_2 ? rec : nullptr;
}

using smb::ntlmssp::Name;
using smb::ntlmssp::SharedIdentity;

// The record's session names, or null when it has none (Kerberos, anonymous, not seen).
const SharedIdentity *identity_of(host_slot *slot) {
    const smb_flow_data *rec = smb2_record(slot);
    return rec && rec->who ? rec->who->identity : nullptr;
}

template <Name N>
int name_valid(void *, host_flow_record *, host_slot *slot) {
    const SharedIdentity *id = identity_of(slot);
    return id && id->has_text(N) ? 1 : 0;
}

int name_length(void *, host_flow_record *, host_slot *slot) {
    return *slot ? SMB_NAME_SIZE : 0;
}

template <Name N>
void name_fill(void *, host_flow_record *, host_slot *slot, void *output, uint32_t a, uint32_t) {
    const SharedIdentity *id = identity_of(slot);
    if (!id || !id->has_text(N)) return;
    uint8_t name[SMB_NAME_SIZE];
    id->expand(N, name);
    record_universal_get_array(output, name, SMB_NAME_SIZE, a, 0);
}

template <Name N>
void name_fill_txt(void *, host_flow_record *, host_slot *slot, void *output, uint32_t a,
                   uint32_t) {
    const SharedIdentity *id = identity_of(slot);
    if (id && id->has_text(N))
        record_universal_get_txt_string(output, id->text(N), id->text_size(N), a, 0);
}

const smb::dcerpc::Uuid *interface_of(host_slot *slot) {
    const smb_flow_data *rec = smb2_record(slot);
    return rec ? smb_who_interface(rec->who) : nullptr;
}

int interface_valid(void *, host_flow_record *, host_slot *slot) {
    return interface_of(slot) ? 1 : 0;
}

int interface_length(void *, host_flow_record *, host_slot *slot) {
    return *slot ? kUuidSize : 0;
}

void interface_fill(void *, host_flow_record *, host_slot *slot, void *output, uint32_t a,
                    uint32_t) {
    if (const auto *uuid = interface_of(slot))
        record_universal_get_array(output, uuid->bytes, kUuidSize, a, 0);
}

void interface_fill_txt(void *, host_flow_record *, host_slot *slot, void *output, uint32_t a,
                        uint32_t) {
    const auto *uuid = interface_of(slot);
    if (!uuid) return;
    char text[37];
    smb::dcerpc::uuid_text(*uuid, text);
    // The 36 characters as UTF-16LE units, handed over with their exact size.
    uint8_t wide[2 * (sizeof text - 1)];
    size_t i = 0;
    for (; text[i]; ++i) {
        wide[2 * i] = static_cast<uint8_t>(text[i]);
        wide[2 * i + 1] = 0;
    }
    record_universal_get_txt_string(output, wide, static_cast<uint32_t>(2 * i), a, 0);
}

// The counters have a value (0 when nothing was called) on every SMB2 record; at zero it is
// the field's default, which the host shows without asking the fill callbacks.
int counter_valid(void *, host_flow_record *, host_slot *slot) {
    const smb_flow_data *rec = smb2_record(slot);
    return rec && rec->who && (rec->who->calls || rec->who->opnums) ? 1 : 0;
}

template <uint32_t Size>
int counter_length(void *, host_flow_record *, host_slot *slot) {
    return *slot ? Size : 0;
}

uint64_t opnums_of(const smb_flow_data *rec) {
    return rec->who ? rec->who->opnums : 0;
}

uint32_t calls_of(const smb_flow_data *rec) {
    return rec->who ? rec->who->calls : 0;
}

template <bool Text>
void opnums_fill(void *, host_flow_record *, host_slot *slot, void *output, uint32_t a,
                 uint32_t b) {
    const smb_flow_data *rec = smb2_record(slot);
    if (!rec) return;
    const uint64_t v = opnums_of(rec);
    if (Text)
        record_universal_get_txt_num(output, &v, sizeof v, a, b);
    else
        record_universal_get_num(output, &v, sizeof v, a, b);
}

template <bool Text>
void calls_fill(void *, host_flow_record *, host_slot *slot, void *output, uint32_t a, uint32_t b) {
    const smb_flow_data *rec = smb2_record(slot);
    if (!rec) return;
    const uint32_t v = calls_of(rec);
    if (Text)
        record_universal_get_txt_num(output, &v, sizeof v, a, b);
    else
        record_universal_get_num(output, &v, sizeof v, a, b);
}

const std::array<field_desc, 6> kFields = {{
    {"SMB_USER", CORVANE_FIELD_STRING, SMB_NAME_SIZE, name_valid<Name::user>, name_length,
     name_fill<Name::user>, name_fill_txt<Name::user>, nullptr},
    {"SMB_DOMAIN", CORVANE_FIELD_STRING, SMB_NAME_SIZE, name_valid<Name::domain>, name_length,
     name_fill<Name::domain>, name_fill_txt<Name::domain>, nullptr},
    {"SMB_WORKSTATION", CORVANE_FIELD_STRING, SMB_NAME_SIZE, name_valid<Name::workstation>,
     name_length, name_fill<Name::workstation>, name_fill_txt<Name::workstation>, nullptr},
    {"SMB_RPC_INTERFACE", CORVANE_FIELD_OCTETS, kUuidSize, interface_valid, interface_length,
     interface_fill, interface_fill_txt, nullptr},
    {"SMB_RPC_OPNUMS", CORVANE_FIELD_NUMBER, 8, counter_valid, counter_length<8>,
     opnums_fill<false>, opnums_fill<true>, &kZero},
    {"SMB_RPC_CALLS", CORVANE_FIELD_NUMBER, 4, counter_valid, counter_length<4>, calls_fill<false>,
     calls_fill<true>, &kZero},
}};

}  // namespace

void smb_register_who_fields(void *host, uint32_t plugin_id, smb_plugin_ctx *ctx) {
    smb_register_field_descs(host, plugin_id, ctx, kFields.data(), kFields.size());
}
