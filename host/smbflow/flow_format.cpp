#include "flow_format.h"

#include <arpa/inet.h>
#include <ctime>

#include <fmt/format.h>

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

Cell cell(std::string v) {
    return Cell{std::move(v), std::nullopt};
}
Cell null_cell() {
    return Cell{};
}

}  // namespace

const std::vector<Column> &columns() {
    static const std::vector<Column> cols = {
        {"start", false},
        {"end", false},
        {"src_addr", false},
        {"src_port", true},
        {"dst_addr", false},
        {"dst_port", true},
        {"proto", true},
        {"packets", true},
        {"bytes", true},
        {"rev_packets", true},
        {"rev_bytes", true},
        {"tcp_flags", false},
        {"rev_tcp_flags", false},
        {"smb_cmd_request", false},
        {"smb_cmd_request_names", false},
        {"smb_cmd_response", false},
        {"smb_cmd_response_names", false},
        {"smb_tree", false},
        {"smb_file_name", false},
        {"smb_file_type", false},
        {"smb_file_type_code", true},
        {"smb_op", false},
        {"smb_op_code", false},
    };
    return cols;
}

std::string format_time(uint64_t ns) {
    const time_t secs = static_cast<time_t>(ns / 1'000'000'000ull);
    struct tm tm;
    gmtime_r(&secs, &tm);
    char buf[32];
    strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S", &tm);
    return fmt::format("{}.{:06}Z", buf, (ns % 1'000'000'000ull) / 1000);
}

std::string format_addr(const host_addr &addr, uint8_t ip_version) {
    char buf[INET6_ADDRSTRLEN];
    if (ip_version == 4) return inet_ntop(AF_INET, &addr.v4, buf, sizeof buf);
    return inet_ntop(AF_INET6, addr.v6, buf, sizeof buf);
}

std::string format_tcp_flags(uint8_t flags) {
    static const char letters[] = "CEUAPRSF";  // bit 7 down to bit 0
    std::string out(8, '.');
    for (int i = 0; i < 8; ++i)
        if (flags & (0x80 >> i)) out[i] = letters[i];
    return out;
}

std::string command_names(uint32_t word) {
    std::string out;
    auto add = [&out](std::string_view name) {
        if (!out.empty()) out += '|';
        out += name;
    };
    const uint32_t low = word & 0xff;
    if (low != 0xff) add(fmt::format("SMB1:0x{:02x}", low));
    for (int n = 0; n <= 18; ++n)
        if (word & (1u << (8 + n))) add(kSmb2Commands[n]);
    if (word & 0x80000000u) add("ENCRYPTED");
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
}

Row FlowFormatter::render(const ExportedFlow &flow) const {
    const host_flow_record &r = flow.rec;
    const bool tcp = r.protocol == 6;
    Row row;
    row.reserve(columns().size());
    row.push_back(cell(format_time(r.first_ns)));
    row.push_back(cell(format_time(r.last_ns)));
    row.push_back(cell(format_addr(r.src_addr, r.ip_version)));
    row.push_back(cell(std::to_string(r.src_port)));
    row.push_back(cell(format_addr(r.dst_addr, r.ip_version)));
    row.push_back(cell(std::to_string(r.dst_port)));
    row.push_back(Cell{std::to_string(r.protocol), protocol_name(r.protocol)});
    row.push_back(cell(std::to_string(r.dir_counters[0].packets)));
    row.push_back(cell(std::to_string(r.dir_counters[0].bytes)));
    row.push_back(cell(std::to_string(r.dir_counters[1].packets)));
    row.push_back(cell(std::to_string(r.dir_counters[1].bytes)));
    row.push_back(tcp ? cell(format_tcp_flags(r.tcp_flags[0])) : null_cell());
    row.push_back(tcp ? cell(format_tcp_flags(r.tcp_flags[1])) : null_cell());

    auto field = [&](Smb which) -> const FieldValue * {
        const int i = index_[which];
        if (i < 0 || static_cast<size_t>(i) >= flow.fields.size()) return nullptr;
        const FieldValue &v = flow.fields[i];
        return v.present() ? &v : nullptr;
    };
    for (Smb cmd : {CmdRequest, CmdResponse}) {
        if (const FieldValue *v = field(cmd)) {
            const auto word = static_cast<uint32_t>(v->number());
            row.push_back(cell(fmt::format("0x{:08x}", word)));
            row.push_back(cell(command_names(word)));
        } else {
            row.push_back(null_cell());
            row.push_back(null_cell());
        }
    }
    for (Smb name : {Tree, FileName}) {
        const FieldValue *v = field(name);
        row.push_back(v ? cell(v->text) : null_cell());
    }
    if (const FieldValue *v = field(FileType)) {
        const auto type = static_cast<uint8_t>(v->number());
        row.push_back(cell(file_type_word(type)));
        row.push_back(cell(std::to_string(type)));
    } else {
        row.push_back(null_cell());
        row.push_back(null_cell());
    }
    if (const FieldValue *v = field(Op)) {
        const auto op = static_cast<uint8_t>(v->number());
        row.push_back(cell(op_word(op)));
        row.push_back(cell(fmt::format("0x{:02x}", op)));
    } else {
        row.push_back(null_cell());
        row.push_back(null_cell());
    }
    return row;
}

}  // namespace smbflow
