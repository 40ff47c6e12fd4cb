// The opt-in activity fields (activity=1): registered after the six fields, in this order.
// Every field reads the flow record's activity block; a record without one reads as all zero.
#include <string.h>

#include <array>
#include <type_traits>

#include "smb_activity.h"
#include "smb_fields.h"

namespace {

enum class Text { decimal, dialect, hex32, name };

struct activity_field {
    const char *name;
    uint32_t type;
    uint32_t size;
    Text text;
    uint64_t (*value)(const smb_flow_data &);
    bool (*present)(const smb_flow_data &);
};

const smb_activity kNothing{};
const uint64_t kZero = 0;  // the default of every numeric field, as wide as the field
const uint8_t kNoName[SMB_NAME_SIZE] = {};

// The record's counters; a record without them reads as all zero.
const smb_activity &counters_of(const smb_flow_data &rec) {
    return rec.activity ? *rec.activity : kNothing;
}

// Most fields have a value on every SMB2 record.
constexpr bool always(const smb_flow_data &) {
    return true;
}

// The value of one counter.
template <auto Member>
uint64_t counter(const smb_flow_data &rec) {
    return counters_of(rec).*Member;
}

template <auto Member>
constexpr activity_field number(const char *name, Text text = Text::decimal) {
    using Value = std::remove_cvref_t<decltype(smb_activity{}.*Member)>;
    return {name, CORVANE_FIELD_NUMBER, sizeof(Value), text, counter<Member>, always};
}

constexpr uint32_t kAllQueues = 0xffffffffu;

constexpr std::array<activity_field, 14> kFields = {{
    {"SMB_DIALECT", CORVANE_FIELD_NUMBER, 2, Text::dialect, counter<&smb_activity::dialect>,
     [](const smb_flow_data &r) { return counters_of(r).dialect != 0; }},
    number<&smb_activity::bytes_read>("SMB_BYTES_READ"),
    number<&smb_activity::bytes_written>("SMB_BYTES_WRITTEN"),
    number<&smb_activity::reads>("SMB_READS"),
    number<&smb_activity::writes>("SMB_WRITES"),
    number<&smb_activity::errors>("SMB_ERRORS"),
    number<&smb_activity::last_error>("SMB_LAST_ERROR", Text::hex32),
    number<&smb_activity::renames>("SMB_RENAMES"),
    {"SMB_RENAME_TO", CORVANE_FIELD_STRING, SMB_NAME_SIZE, Text::name, nullptr,
     [](const smb_flow_data &r) { return counters_of(r).rename_to != nullptr; }},
    number<&smb_activity::deletes>("SMB_DELETES"),
    number<&smb_activity::latency_count>("SMB_LATENCY_COUNT"),
    number<&smb_activity::latency_sum_us>("SMB_LATENCY_SUM_US"),
    number<&smb_activity::latency_max_us>("SMB_LATENCY_MAX_US"),
    // The record keeps the security flags itself.
    {"SMB_SECURITY", CORVANE_FIELD_NUMBER, 1, Text::decimal,
     [](const smb_flow_data &r) -> uint64_t { return r.security; }, always},
}};

const smb_flow_data *smb2_record(host_slot *slot) {
    const auto *rec = static_cast<const smb_flow_data *>(*slot);
    return rec && rec->version == SMB_VERSION_2 ? rec : nullptr;
}

const uint8_t *rename_of(const smb_flow_data &rec) {
    const uint8_t *name = counters_of(rec).rename_to;
    return name ? name : kNoName;
}

// A number as `size` bytes in host order.
struct number_bytes {
    uint8_t bytes[8];
    number_bytes(uint64_t v, uint32_t size) {
        const uint8_t b8 = static_cast<uint8_t>(v);
        const uint16_t b16 = static_cast<uint16_t>(v);
        const uint32_t b32 = static_cast<uint32_t>(v);
        switch (size) {
            case 1:
                memcpy(bytes, &b8, 1);
                break;
            case 2:
                memcpy(bytes, &b16, 2);
                break;
            case 4:
                memcpy(bytes, &b32, 4);
                break;
            default:
                memcpy(bytes, &v, 8);
                break;
        }
    }
};

// The text of a field that is no plain number, in the UTF-16LE units that the host's string
// writer takes: written as units straight away, and handed over with its exact size.
struct unit_text {
    uint8_t bytes[32];
    uint32_t size = 0;

    void put(char c) {
        bytes[size] = static_cast<uint8_t>(c);
        bytes[size + 1] = 0;
        size += 2;
    }
};

// The two hexadecimal digits of every byte as two UTF-16LE units (four bytes), made once.
constexpr auto kHexUnits = [] {
    std::array<std::array<uint8_t, 4>, 256> t{};
    constexpr char kHex[] = "0123456789abcdef";
    for (unsigned v = 0; v < 256; ++v)
        t[v] = {static_cast<uint8_t>(kHex[v >> 4]), 0, static_cast<uint8_t>(kHex[v & 15]), 0};
    return t;
}();

// "0x" and `digits` (an even number, at most 8) lower-case hexadecimal digits of `value`,
// a byte at a time from the table.
void hex_text(uint32_t value, int digits, unit_text &text) {
    text.put('0');
    text.put('x');
    for (int i = digits / 2 - 1; i >= 0; --i) {
        memcpy(text.bytes + text.size, kHexUnits[(value >> (8 * i)) & 0xff].data(), 4);
        text.size += 4;
    }
}

// An ASCII word as UTF-16LE units, made at compile time.
template <size_t N>
struct units_of {
    uint8_t bytes[2 * (N - 1)] = {};
    constexpr explicit units_of(const char (&word)[N]) {
        for (size_t i = 0; i + 1 < N; ++i)
            bytes[2 * i] = static_cast<uint8_t>(word[i]);
    }
};

constexpr units_of k202("2.0.2");
constexpr units_of k210("2.1");
constexpr units_of k300("3.0");
constexpr units_of k302("3.0.2");
constexpr units_of k311("3.1.1");

// Called for every record: the known dialects' texts are handed over as they are, others
// written as hexadecimal, without printf.
void dialect_fill_txt(uint16_t dialect, void *output, uint32_t a) {
    switch (dialect) {
        case 0x0202:
            record_universal_get_txt_string(output, k202.bytes, sizeof k202.bytes, a, 0);
            return;
        case 0x0210:
            record_universal_get_txt_string(output, k210.bytes, sizeof k210.bytes, a, 0);
            return;
        case 0x0300:
            record_universal_get_txt_string(output, k300.bytes, sizeof k300.bytes, a, 0);
            return;
        case 0x0302:
            record_universal_get_txt_string(output, k302.bytes, sizeof k302.bytes, a, 0);
            return;
        case 0x0311:
            record_universal_get_txt_string(output, k311.bytes, sizeof k311.bytes, a, 0);
            return;
    }
    unit_text text;
    hex_text(dialect, 4, text);
    record_universal_get_txt_string(output, text.bytes, text.size, a, 0);
}

// A decimal counter at zero is left to the field's default, which is zero as well: the host
// then skips the fill callbacks of the many counters that most records leave at zero.
template <size_t I>
int validity(void *, host_flow_record *, host_slot *slot) {
    const smb_flow_data *rec = smb2_record(slot);
    if (!rec || !kFields[I].present(*rec)) return 0;
    if constexpr (kFields[I].text == Text::decimal) return kFields[I].value(*rec) != 0 ? 1 : 0;
    return 1;
}

template <size_t I>
int length(void *, host_flow_record *, host_slot *slot) {
    return *slot ? static_cast<int>(kFields[I].size) : 0;
}

template <size_t I>
void fill(void *, host_flow_record *, host_slot *slot, void *output, uint32_t a, uint32_t b) {
    const smb_flow_data *rec = smb2_record(slot);
    if (!rec) return;
    constexpr const activity_field &f = kFields[I];
    if constexpr (f.text == Text::name) {
        record_universal_get_array(output, rename_of(*rec), SMB_NAME_SIZE, a, 0);
    } else {
        const number_bytes n(f.value(*rec), f.size);
        record_universal_get_num(output, n.bytes, f.size, a, b);
    }
}

template <size_t I>
void fill_txt(void *, host_flow_record *, host_slot *slot, void *output, uint32_t a, uint32_t b) {
    const smb_flow_data *rec = smb2_record(slot);
    if (!rec) return;
    constexpr const activity_field &f = kFields[I];
    if constexpr (f.text == Text::name) {
        const uint8_t *name = rename_of(*rec);
        record_universal_get_txt_string(output, name, smb_name_text_bytes(name), a, 0);
    } else if constexpr (f.text == Text::decimal) {
        const number_bytes n(f.value(*rec), f.size);
        record_universal_get_txt_num(output, n.bytes, f.size, a, b);
    } else if constexpr (f.text == Text::dialect) {
        dialect_fill_txt(static_cast<uint16_t>(f.value(*rec)), output, a);
    } else {
        unit_text text;
        hex_text(static_cast<uint32_t>(f.value(*rec)), 8, text);
        record_universal_get_txt_string(output, text.bytes, text.size, a, 0);
    }
}

template <size_t... I>
void register_all(void *host, uint32_t plugin_id, smb_plugin_ctx *ctx, std::index_sequence<I...>) {
    const std::array<void *, kFields.size()> handles = {corvane_getter_add(
        host, plugin_id, kAllQueues, kFields[I].name, kFields[I].type, kFields[I].size, 0, ctx,
        validity<I>, length<I>, fill<I>, fill_txt<I>, 0)...};
    for (size_t i = 0; i < kFields.size(); ++i)
        if (kFields[i].type == CORVANE_FIELD_NUMBER)
            corvane_getter_set_default(handles[i], &kZero, kFields[i].size);
}

}  // namespace

void smb_register_activity_fields(void *host, uint32_t plugin_id, smb_plugin_ctx *ctx) {
    register_all(host, plugin_id, ctx, std::make_index_sequence<kFields.size()>{});
}
