// A plug-in's fields beyond the six SMB fields, as smbflow presents them: a column each in the
// table, CSV and JSON (JSON numbers only for decimal texts), and IPFIX enterprise elements 7..
// typed by size and type code, checked with ipfixDump as the decoder. The fake plug-in's
// `kinds` fields supply one of each kind; the shipped element file is checked against what
// the SMB plug-in registers.
#include <sys/wait.h>
#include <unistd.h>

#include <regex>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "flow_format.h"
#include "host.h"
#include "ipfix_extra.h"
#include "ipfix_record.h"
#include "run_command.h"
#include "writers.h"
#include "smb_session.h"

namespace {

using namespace hosttest;
using namespace testnet;

constexpr uint64_t kT0 = 1709632800'000'000'000ull;

// One TCP flow with a record (11 + 6 payload bytes in 2 packets, the name in the first) and
// one UDP flow without.
std::string write_capture(const TempDir &tmp) {
    TcpConversation c(ipv4(10, 0, 0, 1), 40000, ipv4(10, 0, 0, 2), 445, kT0);
    c.handshake();
    const std::string first = "N:rep,ort\"1";  // 11 bytes; the name needs quoting
    c.client_sends(Bytes(first.begin(), first.end()));
    c.server_sends({'h', 'e', 'l', 'l', 'o', '!'});
    std::vector<Packet> packets = c.packets();
    packets.push_back({kT0 + 5'000'000'000ull,
                       udp_datagram(ipv4(10, 0, 0, 1), ipv4(10, 0, 0, 3), 5000, 53, {1})});
    const std::string path = tmp.path("kinds.pcap");
    write_pcap(path, kEthernet, frames_of(kEthernet, packets));
    return path;
}

// The record's values: 17 bytes, 2 packets.
constexpr uint64_t kBig = (17ull << 32) | 2;

CommandResult smbflow(const std::vector<std::string> &args) {
    std::vector<std::string> all = {SMBFLOW,     "--no-progress", "-q",   "--plugin",
                                    FAKE_PLUGIN, "--params",      "kinds"};
    all.insert(all.end(), args.begin(), args.end());
    return run_command(all);
}

TEST(PluginFields, ColumnsInEveryFormat) {
    TempDir tmp;
    const std::string capture = write_capture(tmp);
    const std::string names =
        "fake_bytes,fake_name,fake_silent,fake_post,fake_packets16,fake_big,fake_status,fake_tag";
    const std::string tag = "11000000abababababababababababab";
    struct Case {
        std::vector<std::string> args;
        std::string header_end, tcp_end, udp_end;  // ends of the header and the two rows
    } cases[] = {
        {{"-F", "csv"},
         "," + names,
         fmt::format(",17,\"rep,ort\"\"1\",,1,2,{},0xc0000011,{}", kBig, tag),
         ",,,,,,,,"},
        {{"-F", "json"},
         "",
         fmt::format(R"(,"fake_bytes":17,"fake_name":"rep,ort\"1","fake_silent":null,)"
                     R"("fake_post":1,"fake_packets16":2,"fake_big":{},"fake_status":"0xc0000011",)"
                     R"("fake_tag":"{}"}})",
                     kBig, tag),
         R"(,"fake_post":null,"fake_packets16":null,"fake_big":null,"fake_status":null,)"
         R"("fake_tag":null})"},
        {{"-F", "text", "--fields", "src_port,fake_status,fake_big,fake_name"},
         "fake_name",
         fmt::format("0xc0000011  {}  rep,ort\"1", kBig),
         "-" + std::string(12, ' ') + "-  -"},
    };
    for (const auto &c : cases) {
        std::vector<std::string> args = c.args;
        args.push_back(capture);
        const auto r = smbflow(args);
        ASSERT_EQ(r.status, 0) << r.err;
        auto lines = lines_of(r.out);
        if (c.header_end.empty()) lines.insert(lines.begin(), "");  // JSON Lines: no header
        ASSERT_EQ(lines.size(), 3u) << r.out;
        auto ends_with = [](const std::string &s, const std::string &end) {
            return s.size() >= end.size() && s.compare(s.size() - end.size(), end.size(), end) == 0;
        };
        EXPECT_TRUE(ends_with(lines[0], c.header_end)) << lines[0];
        EXPECT_TRUE(ends_with(lines[1], c.tcp_end)) << lines[1] << "\nwant end " << c.tcp_end;
        EXPECT_TRUE(ends_with(lines[2], c.udp_end)) << lines[2] << "\nwant end " << c.udp_end;
    }
    const auto unknown = smbflow({"--fields", "fake_nope", capture});
    EXPECT_EQ(unknown.status, 2);
    EXPECT_NE(unknown.err.find(names), std::string::npos) << "the extra columns are listed";
}

// ipfixDump learns the elements from the RFC 5610 type records alone.
TEST(PluginFields, IpfixElementsTypedBySizeAndKind) {
    TempDir tmp;
    const std::string capture = write_capture(tmp);
    const auto r = smbflow({capture, "--ipfix", "file:" + tmp.path("out.ipfix")});
    ASSERT_EQ(r.status, 0) << r.err;
    const auto dump = run_command(
        {"/usr/bin/ipfixDump", "--rfc5610", "--hexdump=16", "-i", tmp.path("out.ipfix")});
    ASSERT_EQ(dump.status, 0) << dump.err;
    struct Element {
        int id;
        const char *type, *name, *value;
    };
    const std::string big = std::to_string(kBig);
    const Element elements[] = {
        {7, "uint32", "fakeBytes", "17"},
        {8, "string", "fakeName", "(len: 9) rep,ort\"1"},
        {9, "uint8", "fakeSilent", "0"},  // no value: a record cannot leave an element out
        {10, "uint8", "fakePost", "1"},
        {11, "uint16", "fakePackets16", "2"},
        {12, "uint64", "fakeBig", big.c_str()},
        {13, "uint32", "fakeStatus", "3221225489"},
        {14, "octet", "fakeTag", "(len: 16) 0x11000000abababababababababababab"},
    };
    for (const auto &e : elements) {
        const std::regex in_template(
            fmt::format(R"(ent: 32473  id: +{}  type: {} +len: +\d+ +{}\n)", e.id, e.type, e.name));
        EXPECT_TRUE(std::regex_search(dump.out, in_template)) << e.name;
        const std::regex in_record(fmt::format(R"(\(32473/{}\) +{} : (.*)\n)", e.id, e.name));
        std::smatch m;
        ASSERT_TRUE(std::regex_search(dump.out, m, in_record)) << e.name;
        EXPECT_EQ(m[1], e.value) << e.name;
    }
    // The UDP flow has no record of the plug-in: a template without enterprise elements.
    EXPECT_NE(dump.out.find("count: 14      tid:   260"), std::string::npos);
}

// The service column follows the plug-in's columns when it registers SMB_RPC_INTERFACE as
// octets, and names the well-known interfaces only.
TEST(PluginFields, ServiceColumnNamesKnownInterfaces) {
    corvane_host::FieldDef interface, calls;
    interface.name = "SMB_RPC_INTERFACE";
    interface.type = CORVANE_FIELD_OCTETS;
    interface.size = 16;
    interface.fill_txt = [](void *, host_flow_record *, host_slot *, void *, uint32_t, uint32_t) {};
    calls.name = "SMB_RPC_CALLS";
    calls.type = CORVANE_FIELD_NUMBER;
    calls.size = 4;
    const std::vector<const corvane_host::FieldDef *> fields = {&interface, &calls};
    const auto cols = smbflow::output_columns(fields);
    ASSERT_GE(cols.size(), 3u);
    EXPECT_EQ(cols[cols.size() - 3].name, "smb_rpc_interface");
    EXPECT_EQ(cols.back().name, smbflow::kServiceColumn);

    const std::pair<const char *, std::optional<std::string>> cases[] = {
        {"367abb81-9844-35f1-ad32-98f038001003", "svcctl"},
        {"86d35949-83c9-4044-b424-db363231fd0c", "ITaskSchedulerService"},
        {"12345778-1234-abcd-ef00-0123456789ab", "lsarpc"},
        {"12345778-1234-abcd-ef00-0123456789ac", "samr"},
        {"00000000-0000-0000-0000-000000000000", std::nullopt},
        {"", std::nullopt},  // a record without an interface
    };
    const smbflow::FlowFormatter formatter(fields);
    for (const auto &[uuid, service] : cases) {
        corvane_host::ExportedFlow flow;
        flow.fields.resize(2);
        if (*uuid) {
            flow.fields[0].kind = corvane_host::FieldValue::Kind::Value;
            flow.fields[0].text = uuid;
        }
        const smbflow::Row row = formatter.render(flow);
        ASSERT_EQ(row.size(), cols.size());
        const auto shown = row.value_or_null(row.size() - 1);
        EXPECT_EQ(shown ? std::optional<std::string>(*shown) : std::nullopt, service) << uuid;
    }
    // Without the interface field there is no service column.
    const std::vector<const corvane_host::FieldDef *> only_calls = {&calls};
    EXPECT_NE(smbflow::output_columns(only_calls).back().name, smbflow::kServiceColumn);
}

// Decimal texts are JSON numbers; anything else a number field's text may be is a string.
TEST(PluginFields, OnlyDecimalTextsAreJsonNumbers) {
    const std::pair<const char *, bool> cases[] = {
        {"0", true},   {"17", true},     {"18446744073709551615", true},
        {"", false},   {"007", false},   {"0x1f", false},
        {"-1", false}, {"3.1.1", false}, {"1e3", false},
    };
    for (const auto &[text, number] : cases)
        EXPECT_EQ(smbflow::is_json_integer(text), number) << text;
}

// Whatever the order of registration, every value sits at an offset of its own alignment
// (libfixbuf reads fbVarfield_t pointers and numbers there) and none overlap.
TEST(PluginFields, LayoutAlignsEveryValue) {
    const std::pair<uint32_t, uint32_t> kinds[] = {
        {CORVANE_FIELD_NUMBER, 1},   {CORVANE_FIELD_OCTETS, 16}, {CORVANE_FIELD_NUMBER, 2},
        {CORVANE_FIELD_STRING, 128}, {CORVANE_FIELD_NUMBER, 8},  {CORVANE_FIELD_NUMBER, 4},
        {CORVANE_FIELD_OCTETS, 3},   {CORVANE_FIELD_NUMBER, 1},  {CORVANE_FIELD_STRING, 128},
    };
    std::vector<corvane_host::FieldDef> defs(std::size(kinds));
    std::vector<smbflow::FlowFormatter::Extra> extras;
    for (size_t i = 0; i < defs.size(); ++i) {
        defs[i].name = "F_" + std::to_string(i);
        defs[i].type = kinds[i].first;
        defs[i].size = kinds[i].second;
        extras.push_back({static_cast<uint32_t>(i), &defs[i]});
    }
    const auto layout = smbflow::ipfix::extra_layout(extras);
    ASSERT_EQ(layout.elements.size(), defs.size());
    std::vector<bool> used(layout.size, false);
    for (const auto &e : layout.elements) {
        const size_t align = e.type == FB_STRING        ? alignof(fbVarfield_t)
                             : e.type == FB_OCTET_ARRAY ? 1
                                                        : e.memory_size;
        EXPECT_EQ((sizeof(smbflow::ipfix::FlowRecord) + e.offset) % align, 0u) << e.name;
        ASSERT_LE(e.offset + e.memory_size, layout.size) << e.name;
        for (size_t b = e.offset; b < e.offset + e.memory_size; ++b) {
            EXPECT_FALSE(used[b]) << e.name << " overlaps at " << b;
            used[b] = true;
        }
    }
    EXPECT_EQ(layout.elements[2].name, "f2");
    EXPECT_EQ(layout.elements[2].id, 9);
}

struct Registered {
    std::string name;
    uint32_t type = 0, size = 0;
};

// The fields the SMB plug-in registers with `params`, loaded in a child process (a plug-in
// ends the process on parameters it does not know): status 255 then.
int registrations(const char *params, std::vector<Registered> &out) {
    int fds[2];
    if (pipe(fds) != 0) return -1;
    const pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        corvane_host::Host host;
        if (host.load_library(SMB_PLUGIN)) _exit(3);
        host.init_plugin(0, params);
        std::string text;
        for (const auto *f : host.fields())
            text += fmt::format("{} {} {}\n", f->name, f->type, f->size);
        if (write(fds[1], text.data(), text.size()) != static_cast<ssize_t>(text.size())) _exit(4);
        _exit(0);
    }
    close(fds[1]);
    std::string text;
    char chunk[4096];
    for (ssize_t n; (n = read(fds[0], chunk, sizeof chunk)) > 0;)
        text.append(chunk, n);
    close(fds[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    for (const auto &line : lines_of(text)) {
        Registered r;
        char name[128];
        if (sscanf(line.c_str(), "%127s %u %u", name, &r.type, &r.size) == 3) {
            r.name = name;
            out.push_back(r);
        }
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// The element file holds exactly the elements smbflow sends for what the plug-in registers
// with activity=1 (with only the six when the plug-in has no such parameter).
TEST(PluginFields, ElementFileMatchesThePluginsRegistrations) {
    std::vector<Registered> regs;
    // A plug-in without the parameter may refuse it or only warn.
    int status = registrations("activity=1", regs);
    const bool activity = status == 0 && regs.size() > 6;
    if (status != 0) {
        regs.clear();
        status = registrations(nullptr, regs);
    }
    ASSERT_EQ(status, 0);
    ASSERT_GE(regs.size(), 6u);
    std::vector<corvane_host::FieldDef> defs(regs.size());
    std::vector<const corvane_host::FieldDef *> ptrs;
    for (size_t i = 0; i < regs.size(); ++i) {
        defs[i].name = regs[i].name;
        defs[i].type = regs[i].type;
        defs[i].size = regs[i].size;
        ptrs.push_back(&defs[i]);
    }
    const auto layout = smbflow::ipfix::extra_layout(smbflow::FlowFormatter(ptrs).extras());
    EXPECT_EQ(layout.elements.size(), regs.size() - 6);

    GError *err = nullptr;
    fbInfoModel_t *model = fbInfoModelAlloc();
    ASSERT_TRUE(fbInfoModelReadXMLFile(model, SMB_ELEMENTS_XML, &err)) << err->message;
    for (const auto &e : layout.elements) {
        const fbInfoElement_t *ie = fbInfoModelGetElementByName(model, e.name.c_str());
        ASSERT_NE(ie, nullptr) << e.name;
        EXPECT_EQ(ie->ent, smbflow::ipfix::kDocumentationPen) << e.name;
        EXPECT_EQ(ie->num, e.id) << e.name;
        EXPECT_EQ(ie->type, e.type) << e.name;
        // An element file has no length: a fixed-size octet array reads as variable-length.
        if (e.type == FB_OCTET_ARRAY)
            EXPECT_EQ(ie->len, FB_IE_VARLEN) << e.name;
        else
            EXPECT_EQ(ie->len, e.length) << e.name;
    }
    // Nothing in the file beyond them (ids are consecutive from 1).
    const uint16_t next =
        static_cast<uint16_t>(smbflow::ipfix::kFirstExtraId + layout.elements.size());
    if (activity) {
        EXPECT_EQ(fbInfoModelGetElementByID(model, next, smbflow::ipfix::kDocumentationPen),
                  nullptr)
            << "element " << next << " is not registered";
    }
    fbInfoModelFree(model);
}

}  // namespace
