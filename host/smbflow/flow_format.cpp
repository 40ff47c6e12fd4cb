#include "flow_format.h"
#include "rpc_services.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <ctime>

#include <fmt/format.h>

#include "utf16.h"

namespace smbflow {

using namespace corvane_host;

namespace {

const char *const kSmb2Commands[] = {
    "NEGOTIATE",     "SESSION_SETUP", "LOGOFF",   "TREE_CONNECT", "TREE_DISCONNECT",
    "CREATE",        "CLOSE",         "FLUSH",    "READ",         "WRITE",
    "LOCK",          "IOCTL",         "CANCEL",   "ECHO",         "QUERY_DIRECTORY",
    "CHANGE_NOTIFY", "QUERY_INFO",    "SET_INFO", "OPLOCK_BREAK",
};

constexpr const char *kFieldNames[] = {"SMB_CMD_REQUEST", "SMB_CMD_RESPONSE", "SMB_TREE",
                                       "SMB_FILE_TYPE",   "SMB_FILE_NAME",    "SMB_OP"};

// The cell's value, emptied for a new record; its buffer is kept. Only the protocol column
// has a display text, and it sets that itself.
std::string &value_of(Cell &c) {
    if (c.value)
        c.value->clear();
    else
        c.value.emplace();
    return *c.value;
}

void set_null(Cell &c) {
    c.value.reset();
}

// Dotted quad by hand: the C library formats each byte through printf.
void append_ipv4(std::string &out, uint32_t wire_order) {
    uint8_t b[4];
    memcpy(b, &wire_order, 4);
    char buf[16];
    char *p = buf;
    for (int i = 0; i < 4; ++i) {
        if (i) *p++ = '.';
        const unsigned v = b[i];
        if (v >= 100) *p++ = static_cast<char>('0' + v / 100);
        if (v >= 10) *p++ = static_cast<char>('0' + v / 10 % 10);
        *p++ = static_cast<char>('0' + v % 10);
    }
    out.append(buf, p);
}

// Numbers by hand as well: fmt's format strings are parsed again for every call, which for
// the dozen numbers of each record cost more than the rest of its formatting.
void append_uint(std::string &out, uint64_t v) {
    const fmt::format_int digits(v);
    out.append(digits.data(), digits.size());
}

// "0x" and `digits` lowercase hex digits, zero-padded.
void append_hex(std::string &out, uint32_t v, int digits) {
    static const char hex[] = "0123456789abcdef";
    char buf[10] = {'0', 'x'};
    for (int i = digits - 1; i >= 0; --i, v >>= 4)
        buf[2 + i] = hex[v & 15];
    out.append(buf, 2 + digits);
}

// inet_ntop formats an IPv6 address through printf, several thousand instructions; a
// connection's records repeat its two addresses, so each thread keeps the last few it made.
void append_addr(std::string &out, const host_addr &addr, uint8_t ip_version) {
    if (ip_version == 4) {
        append_ipv4(out, addr.v4);
        return;
    }
    struct Made {
        uint8_t addr[16];
        char text[INET6_ADDRSTRLEN];
        size_t len = 0;  // 0: empty
    };
    constexpr unsigned kMade = 8;
    thread_local Made made[kMade];
    thread_local unsigned next = 0;
    for (const Made &m : made)
        if (m.len && memcmp(m.addr, addr.v6, 16) == 0) {
            out.append(m.text, m.len);
            return;
        }
    Made &m = made[next];
    next = (next + 1) % kMade;
    memcpy(m.addr, addr.v6, 16);
    m.len = strlen(inet_ntop(AF_INET6, addr.v6, m.text, sizeof m.text));
    out.append(m.text, m.len);
}

}  // namespace

const std::vector<Column> &columns() {
    static const std::vector<Column> cols = {
        {"start", false, true},
        {"end", false, true},
        {"src_addr", false, true},
        {"src_port", true, true},
        {"dst_addr", false, true},
        {"dst_port", true, true},
        {"proto", true, true},
        {"packets", true, true},
        {"bytes", true, true},
        {"rev_packets", true, true},
        {"rev_bytes", true, true},
        {"tcp_flags", false, true},
        {"rev_tcp_flags", false, true},
        {"smb_cmd_request", false, true},
        {"smb_cmd_request_names", false, true},
        {"smb_cmd_response", false, true},
        {"smb_cmd_response_names", false, true},
        {"smb_tree", false, false},
        {"smb_file_name", false, false},
        {"smb_file_type", false, true},
        {"smb_file_type_code", true, true},
        {"smb_op", false, false},
        {"smb_op_code", false, true},
    };
    return cols;
}

const std::vector<std::string> &host_rendered_fields() {
    static const std::vector<std::string> names(std::begin(kFieldNames), std::end(kFieldNames));
    return names;
}

Column plugin_column(const FieldDef &field) {
    Column c{field.name, false, false};
    for (char &ch : c.name)
        ch = static_cast<char>(tolower(static_cast<unsigned char>(ch)));
    c.number_text = field.type == CORVANE_FIELD_NUMBER;
    return c;
}

std::vector<Column> output_columns(const std::vector<const FieldDef *> &fields) {
    std::vector<Column> cols = columns();
    FlowFormatter formatter(fields);
    for (const auto &e : formatter.extras())
        cols.push_back(plugin_column(*e.def));
    if (formatter.has_service_column()) cols.push_back({kServiceColumn, false, true});
    return cols;
}

void append_field_text(std::string &out, const FieldDef &def, const FieldValue &value) {
    // A default, or a value from a fill that writes no text: the binary form speaks.
    if (value.kind == FieldValue::Kind::Value && def.fill_txt) {
        out += value.text;
        return;
    }
    if (value.kind == FieldValue::Kind::Default) {
        out += value.text;
        return;
    }
    if (def.type == CORVANE_FIELD_STRING) {
        append_utf16le_as_utf8(out, value.binary.data(), value.binary.size());
        return;
    }
    if (def.type == CORVANE_FIELD_NUMBER && !value.binary.empty() && value.binary.size() <= 8)
        append_uint(out, value.number());
    else
        append_hex_octets(out, value.binary.data(), value.binary.size());
}

// Records come in time order, so the calendar part of a timestamp rarely changes from one to
// the next. A record's start and end often fall in different seconds, so each thread keeps
// the last two seconds it formatted: one alone would be formatted again for every field.
void append_time(std::string &out, uint64_t ns, bool nanoseconds) {
    struct Second {
        time_t secs = -1;
        char text[24];
        size_t len = 0;
    };
    thread_local Second cache[2];
    thread_local unsigned next = 0;
    const auto secs = static_cast<time_t>(ns / 1'000'000'000ull);
    Second *hit = cache[0].secs == secs ? &cache[0] : cache[1].secs == secs ? &cache[1] : nullptr;
    if (!hit) {
        hit = &cache[next];
        next ^= 1;
        struct tm tm;
        gmtime_r(&secs, &tm);
        hit->len = strftime(hit->text, sizeof hit->text, "%Y-%m-%dT%H:%M:%S", &tm);
        hit->secs = secs;
    }
    out.append(hit->text, hit->len);
    const int digits = nanoseconds ? 9 : 6;
    auto frac = static_cast<uint32_t>(ns % 1'000'000'000ull / (nanoseconds ? 1 : 1000));
    char buf[11];
    buf[0] = '.';
    for (int i = digits; i > 0; --i, frac /= 10)
        buf[i] = static_cast<char>('0' + frac % 10);
    buf[digits + 1] = 'Z';
    out.append(buf, digits + 2);
}

std::string format_time(uint64_t ns) {
    std::string out;
    append_time(out, ns);
    return out;
}

std::string format_addr(const host_addr &addr, uint8_t ip_version) {
    std::string out;
    append_addr(out, addr, ip_version);
    return out;
}

std::string format_tcp_flags(uint8_t flags) {
    static const char letters[] = "CEUAPRSF";  // bit 7 down to bit 0
    std::string out(8, '.');
    for (int i = 0; i < 8; ++i)
        if (flags & (0x80 >> i)) out[i] = letters[i];
    return out;
}

namespace {

void make_command_names(std::string &out, uint32_t word) {
    const size_t start = out.size();
    auto add = [&](std::string_view name) {
        if (out.size() > start) out += '|';
        out += name;
    };
    const uint32_t low = word & 0xff;
    if (low != 0xff) {
        add("SMB1:");
        append_hex(out, low, 2);
    }
    for (int n = 0; n <= 18; ++n)
        if (word & (1u << (8 + n))) add(kSmb2Commands[n]);
    if (word & 0x80000000u) add("ENCRYPTED");
}

}  // namespace

// A capture's records carry few distinct command words, and each record two of them: the
// names of the last few words are kept per thread instead of being put together again.
void append_command_names(std::string &out, uint32_t word) {
    struct Made {
        uint32_t word = 0;
        bool set = false;
        std::string names;
    };
    constexpr unsigned kMade = 8;
    thread_local Made made[kMade];
    thread_local unsigned next = 0;
    for (const Made &m : made)
        if (m.set && m.word == word) {
            out += m.names;
            return;
        }
    Made &m = made[next];
    next = (next + 1) % kMade;
    m.names.clear();
    make_command_names(m.names, word);
    m.word = word;
    m.set = true;
    out += m.names;
}

std::string command_names(uint32_t word) {
    std::string out;
    append_command_names(out, word);
    return out;
}

std::string file_type_word(uint8_t type) {
    switch (type) {
        case 1:
            return "directory";
        case 2:
            return "file";
        default:
            return "unknown";
    }
}

// Codes 0 to 3 of a successful exchange are those of the CREATE response's CreateAction;
// a failed one carries the request's CreateDisposition with 3 and 4 exchanged.
std::string op_word(uint8_t op) {
    static const char *const done[] = {"superseded",  "opened",    "created",
                                       "overwritten", "overwrite", "overwrite-if"};
    static const char *const failed[] = {"supersede", "open",    "create",
                                         "overwrite", "open-if", "overwrite-if"};
    const unsigned code = op & 0x3f;
    const bool del = op & 0x40;
    const bool fail = op & 0x80;
    std::string out;
    if (code <= 5)
        out = fail ? fmt::format("{} failed", failed[code]) : done[code];
    else if (code != 0x3f)
        out = fmt::format("code {}", code);
    if (del) out += out.empty() ? "delete" : ",delete";
    return out.empty() ? "unknown" : out;
}

std::string protocol_name(uint8_t protocol) {
    switch (protocol) {
        case 1:
            return "icmp";
        case 6:
            return "tcp";
        case 17:
            return "udp";
        case 44:
            return "ipv6-frag";
        case 58:
            return "icmp6";
        case 132:
            return "sctp";
        default:
            return std::to_string(protocol);
    }
}

FlowFormatter::FlowFormatter(const std::vector<const FieldDef *> &fields) {
    for (int k = 0; k < kSmbFields; ++k) {
        index_[k] = -1;
        for (size_t i = 0; i < fields.size(); ++i)
            if (fields[i]->name == kFieldNames[k]) index_[k] = static_cast<int>(i);
    }
    for (size_t i = 0; i < fields.size(); ++i)
        if (std::find(std::begin(index_), std::end(index_), static_cast<int>(i)) ==
            std::end(index_))
            extras_.push_back({static_cast<uint32_t>(i), fields[i]});
    for (size_t i = 0; i < extras_.size(); ++i)
        if (extras_[i].def->name == "SMB_RPC_INTERFACE" &&
            extras_[i].def->type == CORVANE_FIELD_OCTETS)
            interface_extra_ = static_cast<int>(i);
}

const FieldValue *FlowFormatter::extra_value(const ExportedFlow &flow, const Extra &extra) {
    if (extra.position >= flow.fields.size()) return nullptr;
    const FieldValue &v = flow.fields[extra.position];
    const bool had_record = (flow.plugin_records >> extra.def->plugin_index) & 1;
    if (v.kind == FieldValue::Kind::Value || (v.kind == FieldValue::Kind::Default && had_record))
        return &v;
    return nullptr;
}

bool FlowFormatter::smb_values(const ExportedFlow &flow, SmbValues &out) const {
    auto value = [&](Smb which) -> const FieldValue * {
        const int i = index_[which];
        if (i < 0 || static_cast<size_t>(i) >= flow.fields.size()) return nullptr;
        return &flow.fields[i];
    };
    bool smb = false;
    for (int which = 0; which < kSmbFields; ++which)
        if (const FieldValue *v = value(Smb(which))) smb |= v->kind == FieldValue::Kind::Value;
    auto field = [&](Smb which) -> const FieldValue * {
        const FieldValue *v = value(which);
        return smb && v && v->present() ? v : nullptr;
    };
    out = {field(CmdRequest), field(CmdResponse), field(Tree),
           field(FileType),   field(FileName),    field(Op)};
    return smb;
}

Row FlowFormatter::render(const ExportedFlow &flow) const {
    Row row;
    render(flow, row);
    return row;
}

void FlowFormatter::render(const ExportedFlow &flow, Row &row) const {
    const host_flow_record &r = flow.rec;
    const bool tcp = r.protocol == 6;
    row.resize(columns().size() + extras_.size() + (has_service_column() ? 1 : 0));
    Cell *c = row.data();
    auto num = [&](uint64_t v) { append_uint(value_of(*c++), v); };

    append_time(value_of(*c++), r.first_ns, nano_);
    append_time(value_of(*c++), r.last_ns, nano_);
    append_addr(value_of(*c++), r.src_addr, r.ip_version);
    num(r.src_port);
    append_addr(value_of(*c++), r.dst_addr, r.ip_version);
    num(r.dst_port);
    c->display = protocol_name(r.protocol);  // value_of leaves display alone
    num(r.protocol);
    num(r.dir_counters[0].packets);
    num(r.dir_counters[0].bytes);
    num(r.dir_counters[1].packets);
    num(r.dir_counters[1].bytes);
    for (int dir = 0; dir < 2; ++dir) {
        if (tcp)
            value_of(*c) = format_tcp_flags(r.tcp_flags[dir]);
        else
            set_null(*c);
        ++c;
    }

    SmbValues smb;
    smb_values(flow, smb);
    for (const FieldValue *v : {smb.cmd_request, smb.cmd_response}) {
        if (v) {
            const auto word = static_cast<uint32_t>(v->number());
            append_hex(value_of(*c++), word, 8);
            std::string &names = value_of(*c);
            append_command_names(names, word);
            if (names.empty()) set_null(*c);
            ++c;
        } else {
            set_null(*c++);
            set_null(*c++);
        }
    }
    for (const FieldValue *v : {smb.tree, smb.file_name}) {
        if (v)
            value_of(*c++) += v->text;
        else
            set_null(*c++);
    }
    if (const FieldValue *v = smb.file_type) {
        const auto type = static_cast<uint8_t>(v->number());
        value_of(*c++) = file_type_word(type);
        num(type);
    } else {
        set_null(*c++);
        set_null(*c++);
    }
    if (const FieldValue *v = smb.op) {
        const auto op = static_cast<uint8_t>(v->number());
        value_of(*c++) = op_word(op);
        append_hex(value_of(*c++), op, 2);
    } else {
        set_null(*c++);
        set_null(*c++);
    }
    for (const Extra &e : extras_) {
        if (const FieldValue *v = extra_value(flow, e))
            append_field_text(value_of(*c), *e.def, *v);
        else
            set_null(*c);
        ++c;
    }
    if (has_service_column()) {
        const FieldValue *v = extra_value(flow, extras_[interface_extra_]);
        const std::string_view name =
            v && v->kind == FieldValue::Kind::Value ? rpc_service_name(v->text) : "";
        if (name.empty())
            set_null(*c);
        else
            value_of(*c) = name;
    }
}

}  // namespace smbflow
