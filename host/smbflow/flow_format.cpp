#include "flow_format.h"
#include "rpc_services.h"
#include "writers.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <ctime>

#include <fmt/format.h>

#include "special_bytes.h"
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

// A plug-in's number field with no text form of its own is written in decimal from its
// binary form.
bool is_decimal_field(const FieldDef &field) {
    return field.type == CORVANE_FIELD_NUMBER && field.size > 0 && field.size <= 8 && field.fill &&
           !field.fill_txt;
}

// Texts of small codes, made once at compile time: the decimal text of every byte value
// (for dotted quads), the two hex digits of every byte and the eight flag letters of every
// TCP flags byte. A table look-up and a fixed-size copy beat digit loops and printf.
struct ByteText {
    char text[4];
    uint8_t len;
};
constexpr auto kDecimalBytes = [] {
    std::array<ByteText, 256> t{};
    for (unsigned v = 0; v < 256; ++v) {
        char *p = t[v].text;
        if (v >= 100) *p++ = static_cast<char>('0' + v / 100);
        if (v >= 10) *p++ = static_cast<char>('0' + v / 10 % 10);
        *p++ = static_cast<char>('0' + v % 10);
        t[v].len = static_cast<uint8_t>(p - t[v].text);
    }
    return t;
}();
constexpr auto kHexBytes = [] {
    std::array<std::array<char, 2>, 256> t{};
    for (unsigned v = 0; v < 256; ++v)
        t[v] = {"0123456789abcdef"[v >> 4], "0123456789abcdef"[v & 15]};
    return t;
}();
constexpr auto kDigitPairs = [] {
    std::array<std::array<char, 2>, 100> t{};
    for (unsigned v = 0; v < 100; ++v)
        t[v] = {static_cast<char>('0' + v / 10), static_cast<char>('0' + v % 10)};
    return t;
}();
constexpr auto kTcpFlagTexts = [] {
    std::array<std::array<char, 8>, 256> t{};
    for (unsigned v = 0; v < 256; ++v)
        for (int i = 0; i < 8; ++i)
            t[v][i] = v & (0x80 >> i) ? "CEUAPRSF"[i] : '.';  // bit 7 down to bit 0
    return t;
}();

// Dotted quad by hand: the C library formats each byte through printf.
char *write_ipv4(char *p, uint32_t wire_order) {
    uint8_t b[4];
    memcpy(b, &wire_order, 4);
    for (int i = 0; i < 4; ++i) {
        const ByteText &t = kDecimalBytes[b[i]];
        memcpy(p, t.text, 4);  // room for 4 bytes a byte; the end follows the length
        p[t.len] = '.';
        p += t.len + 1;
    }
    return p - 1;
}

// "0x" and `digits` (2 or 8) lowercase hex digits, zero-padded.
void append_hex(TextBuffer &out, uint32_t v, int digits) {
    char *p = out.room(10);
    p[0] = '0';
    p[1] = 'x';
    for (int i = digits - 2; i >= 0; i -= 2, v >>= 8)
        memcpy(p + 2 + i, kHexBytes[v & 0xff].data(), 2);
    out.commit(p + 2 + digits);
}

void append_tcp_flags(TextBuffer &out, uint8_t flags) {
    char *p = out.room(8);
    memcpy(p, kTcpFlagTexts[flags].data(), 8);
    out.commit(p + 8);
}

// inet_ntop formats an IPv6 address through printf, several thousand instructions; a
// connection's records repeat its two addresses, so each thread keeps the last few it made.
void append_addr(TextBuffer &out, const host_addr &addr, uint8_t ip_version) {
    if (ip_version == 4) {
        out.commit(write_ipv4(out.room(20), addr.v4));
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

std::string make_op_word(uint8_t op);
std::string make_protocol_name(uint8_t protocol);

// Words of the codes, made once: a table of 256 for the operation byte and the protocol.
template <std::string (*make)(uint8_t)>
std::string_view word_of(uint8_t code) {
    static const std::array<std::string, 256> table = [] {
        std::array<std::string, 256> t;
        for (unsigned i = 0; i < 256; ++i)
            t[i] = make(static_cast<uint8_t>(i));
        return t;
    }();
    return table[code];
}

std::string_view op_text(uint8_t op) {
    return word_of<make_op_word>(op);
}

std::string_view protocol_text(uint8_t protocol) {
    return word_of<make_protocol_name>(protocol);
}

std::string_view file_type_text(uint8_t type) {
    switch (type) {
        case 1:
            return "directory";
        case 2:
            return "file";
        default:
            return "unknown";
    }
}

}  // namespace

// Numbers by hand as well: fmt's format strings are parsed again for every call, which for
// the dozen numbers of each record cost more than the rest of its formatting.
void append_uint(TextBuffer &out, uint64_t v) {
    char *p = out.room(20);
    if (v < 10) {
        *p = static_cast<char>('0' + v);
        out.commit(p + 1);
        return;
    }
    if (v >= 100'000'000) {
        const fmt::format_int digits(v);
        memcpy(p, digits.data(), digits.size());
        out.commit(p + digits.size());
        return;
    }
    // Ports and the counters of short flows: up to eight digits, two at a time from the
    // back.
    const int n = v < 100          ? 2
                  : v < 1000       ? 3
                  : v < 10'000     ? 4
                  : v < 100'000    ? 5
                  : v < 1'000'000  ? 6
                  : v < 10'000'000 ? 7
                                   : 8;
    char *q = p + n;
    while (v >= 100) {
        q -= 2;
        memcpy(q, kDigitPairs[v % 100].data(), 2);
        v /= 100;
    }
    if (v >= 10) {
        memcpy(q - 2, kDigitPairs[v].data(), 2);
    } else {
        q[-1] = static_cast<char>('0' + v);
    }
    out.commit(p + n);
}

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

void append_field_text_from_binary(TextBuffer &out, const FieldDef &def, const FieldValue &value) {
    if (def.type == CORVANE_FIELD_NUMBER && !value.binary.empty() && value.binary.size() <= 8) {
        append_uint(out, value.number());
        return;
    }
    std::string text;
    if (def.type == CORVANE_FIELD_STRING)
        append_utf16le_as_utf8(text, value.binary.data(), value.binary.size());
    else
        append_hex_octets(text, value.binary.data(), value.binary.size());
    out += text;
}

// The IPFIX export's string elements: the common case, a text the fill or the default gave,
// is appended without a buffer between.
void append_field_text(std::string &out, const FieldDef &def, const FieldValue &value) {
    if ((value.kind == FieldValue::Kind::Value && def.fill_txt) ||
        value.kind == FieldValue::Kind::Default) {
        out += value.text;
        return;
    }
    TextBuffer text;
    append_field_text_from_binary(text, def, value);
    out += text.view();
}

// Records come in time order, so the calendar part of a timestamp rarely changes from one to
// the next. A record's start and end often fall in different seconds, so each thread keeps
// the last two seconds it formatted: one alone would be formatted again for every field.
void append_time(TextBuffer &out, uint64_t ns, bool nanoseconds) {
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
    char *p = out.room(sizeof hit->text + 11);
    memcpy(p, hit->text, sizeof hit->text);  // the whole array: a fixed-size copy
    p += hit->len;
    *p++ = '.';
    // The fraction's digits two at a time.
    auto frac = static_cast<uint32_t>(ns % 1'000'000'000ull);
    int last_pair = 4;
    if (nanoseconds) {
        p[8] = static_cast<char>('0' + frac % 10);
        frac /= 10;
        last_pair = 6;
    } else {
        frac /= 1000;
    }
    for (int i = last_pair; i >= 0; i -= 2, frac /= 100)
        memcpy(p + i, kDigitPairs[frac % 100].data(), 2);
    p += nanoseconds ? 9 : 6;
    *p++ = 'Z';
    out.commit(p);
}

namespace {

std::string to_string(const TextBuffer &text) {
    return std::string(text.view());
}

void make_command_names(TextBuffer &out, uint32_t word) {
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

// Codes 0 to 3 of a successful exchange are those of the CREATE response's CreateAction;
// a failed one carries the request's CreateDisposition with 3 and 4 exchanged.
std::string make_op_word(uint8_t op) {
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

std::string make_protocol_name(uint8_t protocol) {
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

}  // namespace

std::string format_time(uint64_t ns) {
    TextBuffer out;
    append_time(out, ns);
    return to_string(out);
}

std::string format_addr(const host_addr &addr, uint8_t ip_version) {
    TextBuffer out;
    append_addr(out, addr, ip_version);
    return to_string(out);
}

std::string format_tcp_flags(uint8_t flags) {
    TextBuffer out;
    append_tcp_flags(out, flags);
    return to_string(out);
}

// A capture's records carry few distinct command words, and each record two of them: the
// names of a word are kept per thread in a small direct-mapped cache instead of being put
// together again.
void append_command_names(TextBuffer &out, uint32_t word) {
    struct Made {
        uint32_t word = 0;
        bool set = false;
        TextBuffer names;
    };
    constexpr unsigned kMade = 64;
    thread_local Made made[kMade];
    Made &m = made[(word * 0x9e3779b1u) >> 26];
    if (!m.set || m.word != word) {
        m.names.clear();
        make_command_names(m.names, word);
        m.word = word;
        m.set = true;
    }
    out += m.names.view();
}

std::string command_names(uint32_t word) {
    TextBuffer out;
    append_command_names(out, word);
    return to_string(out);
}

std::string file_type_word(uint8_t type) {
    return std::string(file_type_text(type));
}

std::string op_word(uint8_t op) {
    return std::string(op_text(op));
}

std::string protocol_name(uint8_t protocol) {
    return std::string(protocol_text(protocol));
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
    for (const Extra &e : extras_)
        extra_positions_.push_back(e.position);
    for (size_t i = 0; i < extras_.size(); ++i)
        if (extras_[i].def->name == "SMB_RPC_INTERFACE" &&
            extras_[i].def->type == CORVANE_FIELD_OCTETS)
            interface_extra_ = static_cast<int>(i);
    for (const Column &c : columns())
        verbatim_.push_back(c.verbatim);
    for (const Extra &e : extras_) {
        const bool verbatim = plugin_column(*e.def).verbatim;
        verbatim_.push_back(verbatim);
        const std::string text = e.def->has_default ? default_text(*e.def) : std::string();
        ExtraPlan plan{e.position,
                       e.def,
                       is_decimal_field(*e.def),
                       !e.def->has_default || !needs_csv_quotes(text),
                       e.def->fill_txt != nullptr,
                       verbatim,
                       e.def->plugin_index < 32 ? 1u << e.def->plugin_index : 0u,
                       {},
                       0};
        if (e.def->has_default && plan.default_plain && text.size() < sizeof plan.default_cell) {
            plan.default_cell[0] = ',';
            memcpy(plan.default_cell + 1, text.data(), text.size());
            plan.default_cell_len = static_cast<uint8_t>(text.size() + 1);
        }
        plans_.push_back(plan);
    }
    if (has_service_column()) verbatim_.push_back(true);
}

bool FlowFormatter::smb_values(const ExportedFlow &flow, SmbValues &out) const {
    const FieldValue *const values = flow.fields.data();
    const size_t count = flow.fields.size();
    // Each field's value when it has one; `kinds` gathers a bit for each kind seen.
    unsigned kinds = 0;
    auto at = [&](int which) __attribute__((always_inline))->const FieldValue * {
        const auto i = static_cast<size_t>(index_[which]);  // -1: past any count
        if (i >= count) return nullptr;
        const FieldValue *v = values + i;
        kinds |= 1u << static_cast<unsigned>(v->kind);
        return v->present() ? v : nullptr;
    };
    const SmbValues found = {at(CmdRequest), at(CmdResponse), at(Tree),
                             at(FileType),   at(FileName),    at(Op)};
    if (!(kinds & (1u << static_cast<unsigned>(FieldValue::Kind::Value)))) {
        out = {};
        return false;
    }
    out = found;
    return true;
}

Row FlowFormatter::render(const ExportedFlow &flow) const {
    Row row;
    render(flow, row);
    return row;
}

namespace {

// Where render_to() puts a record's columns, one after the other: open() before a column's
// text is appended to text(), close() after it; skip() for a null column.
class RowSink {
  public:
    explicit RowSink(Row &row) : row_(row) {}
    TextBuffer &text() { return row_.text(); }
    uint32_t open(size_t) { return row_.mark(); }
    uint32_t open_first() { return row_.mark(); }
    void close(size_t k, uint32_t from) { row_.close(k, from); }
    // An empty text stands for no value (a command word with no command bit).
    void close_unless_empty(size_t k, uint32_t from) {
        if (row_.mark() != from) row_.close(k, from);
    }
    void close_plain(size_t k, uint32_t from) { row_.close(k, from); }
    // A column's text after its separator, `n` bytes of a 16-byte array.
    void put_cell(size_t k, const char (&cell)[16], size_t n) {
        row_.set(k, std::string_view(cell + 1, n - 1));
    }
    void put_text(size_t k, const TextBuffer &text, bool) {
        const uint32_t from = open(k);
        row_.text() += text;
        close(k, from);
    }
    void skip(size_t) {}
    void display(size_t k, std::string_view text) { row_.set_display(k, text); }

  private:
    Row &row_;
};

// A CSV line of every column in order (RFC 4180): the text goes straight into the line; a
// column whose values may hold a separator or quote is looked at once written and, in the
// rare case it needs it, quoted in place.
class CsvSink {
  public:
    CsvSink(TextBuffer &line, const std::vector<uint8_t> &verbatim)
        : line_(line), verbatim_(verbatim) {}
    TextBuffer &text() { return line_; }
    // Every column but the first (open_first()) follows a separator.
    __attribute__((always_inline)) uint32_t open(size_t) {
        line_ += ',';
        return static_cast<uint32_t>(line_.size());
    }
    uint32_t open_first() { return static_cast<uint32_t>(line_.size()); }
    __attribute__((always_inline)) void close(size_t k, uint32_t from) {
        if (!verbatim_[k]) quote_if_needed(from);
    }
    void close_unless_empty(size_t k, uint32_t from) { close(k, from); }
    // A text that cannot need quotes (digits, hex, words of our own).
    void close_plain(size_t, uint32_t) {}
    __attribute__((always_inline)) void put_cell(size_t, const char (&cell)[16], size_t n) {
        char *const p = line_.room(sizeof cell);
        memcpy(p, cell, sizeof cell);  // the whole array: a fixed-size copy
        line_.commit(p + n);
    }
    // A column's separator and a field's text, looked at for quotes unless the column or the
    // writers say it never needs them: a text of 1 to 16 bytes is one bounds test and one
    // 16-byte copy from its buffer's bytes to spare, looked at as one block.
    __attribute__((always_inline)) void put_text(size_t, const TextBuffer &text, bool verbatim) {
        const size_t n = text.size();
        if (n - 1 >= TextBuffer::kSlack) {  // none, or more than 16 bytes
            const uint32_t from = open(0);
            line_ += text.view();
            if (!verbatim) quote_if_needed(from);
            return;
        }
        char *const p = line_.room(1 + 16 + 16);
        *p = ',';
        memcpy(p + 1, text.data(), TextBuffer::kSlack);
        line_.commit(p + 1 + n);
        if (!verbatim && has_special_short(p + 1, n))
            quote(static_cast<uint32_t>(p + 1 - line_.data()));
    }
    void skip(size_t k) { open(k); }
    void display(size_t, std::string_view) {}

  private:
    // needs_csv_quotes() of `n` (at most 16) bytes at `p`, which has 16 readable bytes.
    static bool has_special_short(const char *p, size_t n) { return any_byte_of<CsvSpecial>(p, n); }
    __attribute__((always_inline)) void quote_if_needed(uint32_t from) {
        if (has_special(from)) quote(from);
    }
    // needs_csv_quotes() of the column's text: the line is given room after its text, so that
    // the scan's last block may read past the end (into the line's own buffer).
    bool has_special(uint32_t from) {
        line_.room(16);
        return any_byte_of<CsvSpecial>(line_.data() + from, line_.size() - from);
    }
    // In place: the text moves back by one byte for the opening quote and one more for each
    // quote before it, which is doubled (RFC 4180).
    __attribute__((noinline)) void quote(uint32_t from) {
        const std::string_view text = line_.view(from, line_.size());
        const size_t quotes = static_cast<size_t>(std::count(text.begin(), text.end(), '"'));
        const size_t n = text.size();
        char *const end = line_.room(quotes + 2);  // may move the line: `text` is stale now
        char *const begin = end - n;
        char *to = end + quotes + 2;
        *--to = '"';
        for (char *at = end; at != begin;) {
            const char c = *--at;
            *--to = c;
            if (c == '"') *--to = '"';
        }
        *--to = '"';
        line_.commit(end + quotes + 2);
    }

    TextBuffer &line_;
    const std::vector<uint8_t> &verbatim_;
};

}  // namespace

void FlowFormatter::render(const ExportedFlow &flow, Row &row) const {
    row.reset(column_count());
    RowSink sink(row);
    render_to(flow, sink);
}

void FlowFormatter::render_csv(const ExportedFlow &flow, TextBuffer &line) const {
    CsvSink sink(line, verbatim_);
    render_to(flow, sink);
}

template <typename Sink>
__attribute__((noinline)) size_t FlowFormatter::render_extras(const ExportedFlow &flow, Sink &sink,
                                                              size_t k) const {
    TextBuffer &t = sink.text();
    auto cell = [&](auto write) __attribute__((always_inline)) {
        const uint32_t from = sink.open(k);
        write();
        sink.close(k++, from);
    };
    auto null = [&]() __attribute__((always_inline)) {
        sink.skip(k++);
    };
    auto num = [&](uint64_t v) __attribute__((always_inline)) {
        const uint32_t from = sink.open(k);
        append_uint(t, v);
        sink.close_plain(k++, from);
    };
    // The extras, as extra_value() picks their values, with the loop's bounds and the
    // record's in locals: the appends write chars, which the compiler must assume may change
    // any member it would otherwise read again.
    using Kind = FieldValue::Kind;
    const FieldValue *const values = flow.fields.data();
    const uint32_t records = flow.plugin_records;
    auto put = [&](const ExtraPlan &plan, Kind kind) __attribute__((always_inline)) {
        if (kind == Kind::Value) {
            const FieldValue &v = values[plan.position];
            if (plan.text_fill) {
                // What the text fill wrote, not looked at when the writers know it needs no
                // quotes.
                sink.put_text(k++, v.text, plan.verbatim || v.plain);
            } else if (plan.decimal && !v.binary.empty() && v.binary.size() <= 8) {
                num(v.number());
            } else {
                cell([&] { append_field_text(t, *plan.def, v); });
            }
        } else if (kind == Kind::Absent || !(records & plan.plugin_bit)) {
            null();
        } else if (plan.default_cell_len) {
            sink.put_cell(k++, plan.default_cell, plan.default_cell_len);
        } else {
            // The default's text, made once by the exporter: looked at for quotes only when
            // it may need them.
            const uint32_t from = sink.open(k);
            t += values[plan.position].text;
            if (plan.default_plain)
                sink.close_plain(k++, from);
            else
                sink.close(k++, from);
        }
    };
    const ExtraPlan *const end = plans_.data() + plans_.size();
    if (PendingFields *const pending = flow.pending; pending && !pending->taken) {
        pending->taken = true;
        if (pending->count == extra_positions_.size() &&
            std::equal(extra_positions_.begin(), extra_positions_.end(), pending->positions)) {
            // The fields left to this output are its columns: each is asked as its column is
            // written, one pass with the value's text written while it is at hand.
            const FieldPlan *const fields = pending->plans;
            host_flow_record &rec = *pending->rec;
            host_slot *const slots = pending->slots;
            FieldValue *const into = pending->values;
            for (const ExtraPlan *plan = plans_.data(); plan != end; ++plan) {
                const uint32_t pos = plan->position;
                put(*plan, evaluate_field(fields[pos], pos, rec, slots, into[pos]));
            }
            return k;
        }
        // Other fields are left to it as well, or not all of its columns: every one is asked
        // first, and the columns are written from the values as below.
        pending->evaluate_all();
    }
    const size_t value_count = flow.fields.size();
    for (const ExtraPlan *plan = plans_.data(); plan != end; ++plan)
        put(*plan, plan->position < value_count ? values[plan->position].kind : Kind::Absent);
    return k;
}

template <typename Sink>
void FlowFormatter::render_to(const ExportedFlow &flow, Sink &sink) const {
    const host_flow_record &r = flow.rec;
    TextBuffer &t = sink.text();
    size_t k = 0;
    // Inlined: a record has a few dozen columns, and a call per column costs as much as the
    // bookkeeping it wraps.
    // A column of text that may need quoting (names from the wire, words joined by commas).
    auto cell = [&](auto write) __attribute__((always_inline)) {
        const uint32_t from = sink.open(k);
        write();
        sink.close(k++, from);
    };
    // A column of text made here that no output quotes: not looked at again.
    auto plain = [&](auto write) __attribute__((always_inline)) {
        const uint32_t from = sink.open(k);
        write();
        sink.close_plain(k++, from);
    };
    auto null = [&]() __attribute__((always_inline)) {
        sink.skip(k++);
    };
    auto num = [&](uint64_t v) __attribute__((always_inline)) {
        plain([&] { append_uint(t, v); });
    };

    // The first column, always present: no separator before it.
    {
        const uint32_t from = sink.open_first();
        append_time(t, r.first_ns, nano_);
        sink.close_plain(k++, from);
    }
    plain([&] { append_time(t, r.last_ns, nano_); });
    plain([&] { append_addr(t, r.src_addr, r.ip_version); });
    num(r.src_port);
    plain([&] { append_addr(t, r.dst_addr, r.ip_version); });
    num(r.dst_port);
    sink.display(k, protocol_text(r.protocol));
    num(r.protocol);
    num(r.dir_counters[0].packets);
    num(r.dir_counters[0].bytes);
    num(r.dir_counters[1].packets);
    num(r.dir_counters[1].bytes);
    for (int dir = 0; dir < 2; ++dir) {
        if (r.protocol == 6)
            plain([&] { append_tcp_flags(t, r.tcp_flags[dir]); });
        else
            null();
    }

    SmbValues smb;
    smb_values(flow, smb);
    for (const FieldValue *v : {smb.cmd_request, smb.cmd_response}) {
        if (v) {
            const auto word = static_cast<uint32_t>(v->number());
            plain([&] { append_hex(t, word, 8); });
            const uint32_t from = sink.open(k);
            append_command_names(t, word);
            sink.close_unless_empty(k++, from);
        } else {
            null();
            null();
        }
    }
    for (const FieldValue *v : {smb.tree, smb.file_name}) {
        if (v)
            cell([&] { t += v->text; });
        else
            null();
    }
    if (const FieldValue *v = smb.file_type) {
        const auto type = static_cast<uint8_t>(v->number());
        plain([&] { t += file_type_text(type); });
        num(type);
    } else {
        null();
        null();
    }
    if (const FieldValue *v = smb.op) {
        const auto op = static_cast<uint8_t>(v->number());
        cell([&] { t += op_text(op); });
        plain([&] { append_hex(t, op, 2); });
    } else {
        null();
        null();
    }
    // The plug-in's other fields, when it has any: out of line, so that the columns every
    // record has are compiled as if they were all.
    if (!extras_.empty()) k = render_extras(flow, sink, k);
    if (has_service_column()) {
        const FieldValue *v = extra_value(flow, extras_[interface_extra_]);
        const std::string_view name =
            v && v->kind == FieldValue::Kind::Value ? rpc_service_name(v->text) : "";
        if (name.empty())
            null();
        else
            cell([&] { t += name; });
    }
}

}  // namespace smbflow
