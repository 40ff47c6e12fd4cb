// IPFIX export, checked by decoding what smbflow sends with libfixbuf's collecting side and
// rendering it through smbflow's own JSON writer: the records must be those of the JSON output
// (times at the millisecond precision of flowStartMilliseconds).
#include <arpa/inet.h>
#include <poll.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <map>
#include <regex>
#include <thread>

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "ipfix_export.h"
#include "ipfix_record.h"
#include "ipfix_url.h"
#include "run_command.h"
#include "writers.h"

namespace {

using namespace hosttest;
using namespace smbflow;
using corvane_host::FieldDef;
using corvane_host::FieldValue;

const std::string kSample = std::string(TEST_DATA) + "/sample-smb2.pcap";

// The SMB plug-in's field names, in an order of the test's own.
std::vector<FieldDef> smb_field_defs() {
    std::vector<FieldDef> defs(6);
    const char *names[] = {"SMB_CMD_REQUEST", "SMB_CMD_RESPONSE", "SMB_TREE",
                           "SMB_FILE_NAME",   "SMB_FILE_TYPE",    "SMB_OP"};
    for (int i = 0; i < 6; ++i)
        defs[i].name = names[i];
    return defs;
}

FieldValue number_value(uint32_t v, int size) {
    FieldValue f;
    f.kind = FieldValue::Kind::Value;
    for (int i = 0; i < size; ++i)
        f.binary.push_back(static_cast<uint8_t>(v >> (8 * i)));
    return f;
}

FieldValue text_value(const fbVarfield_t &v) {
    FieldValue f;
    f.kind = FieldValue::Kind::Value;
    f.text.assign(reinterpret_cast<const char *>(v.buf), v.len);
    return f;
}

// The lines of `text`, each with every match of `pattern` replaced.
std::vector<std::string> edited_lines(const std::string &text, const char *pattern,
                                      const char *replacement) {
    std::vector<std::string> lines;
    const std::regex re(pattern);
    for (size_t at = 0; at < text.size();) {
        const size_t nl = text.find('\n', at);
        lines.push_back(std::regex_replace(text.substr(at, nl - at), re, replacement));
        at = nl + 1;
    }
    return lines;
}

// Decodes an IPFIX message stream (a file, a TCP connection's bytes, or UDP datagrams one
// after the other) into the JSON lines that smbflow's JSON writer would write for its records.
std::vector<std::string> decode(const std::string &stream,
                                uint32_t pen = ipfix::kDocumentationPen) {
    using namespace ipfix;
    GError *err = nullptr;
    fbInfoModel_t *model = make_model(pen);
    fbSession_t *session = fbSessionAlloc(model);
    fbTemplate_t *internal = fbTemplateAlloc(model);
    EXPECT_TRUE(fbTemplateAppendSpecArray(
        internal, const_cast<fbInfoElementSpec_t *>(record_spec()), UINT32_MAX, &err));
    EXPECT_TRUE(fbSessionAddTemplate(session, TRUE, kInternalTid, internal, &err));
    FILE *in = fmemopen(const_cast<char *>(stream.data()), stream.size(), "rb");
    fBuf_t *buf = fBufAllocForCollection(session, fbCollectorAllocFP(nullptr, in));
    EXPECT_TRUE(fBufSetInternalTemplate(buf, kInternalTid, &err));

    const auto defs = smb_field_defs();
    std::vector<const FieldDef *> def_ptrs;
    for (const auto &d : defs)
        def_ptrs.push_back(&d);
    FlowFormatter formatter(def_ptrs);
    char *text = nullptr;
    size_t text_size = 0;
    FILE *out = open_memstream(&text, &text_size);
    auto writer = make_writer(Format::Json, out);
    fbInfoElementSpec_t tree_spec{const_cast<char *>("smbTree"), 0, 0};
    fbInfoElementSpec_t v6_spec{const_cast<char *>("sourceIPv6Address"), 0, 0};
    fbInfoElementSpec_t reverse_spec{const_cast<char *>("reversePacketDeltaCount"), 0, 0};
    for (;;) {
        uint16_t tid = 0;
        fbTemplate_t *ext = fBufNextCollectionTemplate(buf, &tid, &err);
        if (!ext) {
            EXPECT_TRUE(g_error_matches(err, FB_ERROR_DOMAIN, FB_ERROR_EOF)) << err->message;
            g_clear_error(&err);
            break;
        }
        FlowRecord r{};
        size_t len = sizeof r;
        if (!fBufNext(buf, reinterpret_cast<uint8_t *>(&r), &len, &err)) {
            ADD_FAILURE() << err->message;
            g_clear_error(&err);
            break;
        }
        if (fbTemplateGetOptionsScope(ext)) continue;  // RFC 5610 type records
        corvane_host::ExportedFlow flow;
        host_flow_record &rec = flow.rec;
        rec.first_ns = r.flowStartMilliseconds * 1'000'000;
        rec.last_ns = r.flowEndMilliseconds * 1'000'000;
        rec.dir_counters[0] = {r.packetDeltaCount, r.octetDeltaCount};
        EXPECT_TRUE(fbTemplateContainsElementByName(ext, &reverse_spec));
        rec.dir_counters[1] = {r.reversePacketDeltaCount, r.reverseOctetDeltaCount};
        if (fbTemplateContainsElementByName(ext, &v6_spec)) {
            rec.ip_version = 6;
            memcpy(rec.src_addr.v6, r.sourceIPv6Address, 16);
            memcpy(rec.dst_addr.v6, r.destinationIPv6Address, 16);
        } else {
            rec.ip_version = 4;
            rec.src_addr.v4 = htonl(r.sourceIPv4Address);
            rec.dst_addr.v4 = htonl(r.destinationIPv4Address);
        }
        rec.src_port = r.sourceTransportPort;
        rec.dst_port = r.destinationTransportPort;
        rec.protocol = r.protocolIdentifier;
        rec.tcp_flags[0] = static_cast<uint8_t>(r.tcpControlBits);
        rec.tcp_flags[1] = static_cast<uint8_t>(r.reverseTcpControlBits);
        flow.fields.resize(6);
        if (fbTemplateContainsElementByName(ext, &tree_spec))
            flow.fields = {number_value(r.smbCommandRequest, 4),
                           number_value(r.smbCommandResponse, 4),
                           text_value(r.smbTree),
                           text_value(r.smbFileName),
                           number_value(r.smbFileType, 1),
                           number_value(r.smbOperation, 1)};
        writer->write(formatter.render(flow));
    }
    writer->finish();
    fclose(out);
    std::string json(text, text_size);
    free(text);
    fBufFree(buf);
    fclose(in);
    fbInfoModelFree(model);

    // An absent name travels as an empty string.
    return edited_lines(json, R"re("(smb_tree|smb_file_name)":"")re", "\"$1\":null");
}

// smbflow's JSON lines with times cut to milliseconds.
std::vector<std::string> json_lines_at_ms(const std::string &json) {
    return edited_lines(json, R"re((\.\d{3})\d*Z")re", "$01000Z\"");
}

int bound_socket(int type, uint16_t &port) {
    const int fd = socket(AF_INET, type, 0);
    const int one = 1, big = 4 << 20;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(port);
    if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) {
        close(fd);
        return -1;
    }
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
    port = ntohs(a.sin_port);
    return fd;
}

// A TCP collector on loopback that keeps the bytes of each connection it accepts. Stopping it
// takes what the connection's receive buffer holds (on loopback, all that was written) and
// closes it, as a collector that goes away would.
class TcpCollector {
  public:
    explicit TcpCollector(uint16_t port = 0) : port_(port) {
        listen_fd_ = bound_socket(SOCK_STREAM, port_);
        EXPECT_GE(listen_fd_, 0);
        listen(listen_fd_, 4);
        EXPECT_EQ(pipe(wake_), 0);
        thread_ = std::thread([this] { run(); });
    }
    ~TcpCollector() { stop(); }
    void stop() {
        if (!thread_.joinable()) return;
        EXPECT_EQ(write(wake_[1], "x", 1), 1);
        thread_.join();
        close(listen_fd_);
        close(wake_[0]);
        close(wake_[1]);
    }
    uint16_t port() const { return port_; }
    // After stop: the bytes of every connection, in the order they ended.
    const std::vector<std::string> &streams() const { return streams_; }

  private:
    void run() {
        int conn = -1;
        std::string bytes;
        char chunk[65536];
        auto end_connection = [&] {
            for (ssize_t n; (n = recv(conn, chunk, sizeof chunk, MSG_DONTWAIT)) > 0;)
                bytes.append(chunk, n);
            close(conn);
            conn = -1;
            streams_.push_back(std::move(bytes));
            bytes.clear();
        };
        for (;;) {
            pollfd fds[3] = {{conn, POLLIN, 0}, {listen_fd_, POLLIN, 0}, {wake_[0], POLLIN, 0}};
            poll(fds, 3, -1);
            if (conn >= 0 && (fds[0].revents & (POLLIN | POLLHUP | POLLERR))) {
                const ssize_t n = read(conn, chunk, sizeof chunk);
                if (n > 0)
                    bytes.append(chunk, n);
                else
                    end_connection();
                continue;
            }
            if (conn < 0 && (fds[1].revents & POLLIN)) {
                conn = accept(listen_fd_, nullptr, nullptr);
                continue;
            }
            // Told to stop only once what has arrived is taken.
            if (fds[2].revents) break;
        }
        if (conn >= 0) end_connection();
    }

    uint16_t port_;
    int listen_fd_ = -1;
    int wake_[2] = {-1, -1};
    std::thread thread_;
    std::vector<std::string> streams_;
};

std::vector<std::string> committed_captures() {
    std::vector<std::string> out{kSample};
    for (const auto &e : std::filesystem::directory_iterator(std::string(TEST_DATA) + "/captures"))
        if (e.path().extension() == ".pcap") out.push_back(e.path().string());
    std::sort(out.begin(), out.end());
    return out;
}

class IpfixRoundTrip : public testing::TestWithParam<std::string> {};

// One run sends to a file, a TCP and a UDP collector: each gets exactly the JSON writer's
// records.
TEST_P(IpfixRoundTrip, EveryTransportGetsTheJsonWritersRecords) {
    TempDir tmp;
    TcpCollector tcp;
    uint16_t udp_port = 0;
    const int udp = bound_socket(SOCK_DGRAM, udp_port);
    ASSERT_GE(udp, 0);
    const auto r =
        run_command({SMBFLOW, "-q", "--params", "short-create=1", GetParam(), "-F", "json", "-o",
                     tmp.path("out.json"), "--ipfix", "file:" + tmp.path("out.ipfix"), "--ipfix",
                     fmt::format("tcp://127.0.0.1:{}", tcp.port()), "--ipfix",
                     fmt::format("udp://127.0.0.1:{}", udp_port), "--template-refresh", "0"});
    ASSERT_EQ(r.status, 0) << r.err;
    tcp.stop();
    std::string datagrams;
    size_t messages = 0, data_after_data = 0;
    bool data_before = false;
    unsigned char dgram[65536];
    for (ssize_t n; (n = recv(udp, dgram, sizeof dgram, MSG_DONTWAIT)) > 0; ++messages) {
        EXPECT_LE(n, 1452) << "a UDP message must fit a 1500-byte path over IPv6 too";
        datagrams.append(reinterpret_cast<char *>(dgram), n);
        // --template-refresh 0: templates go out again before every message of flow records
        // (sets of the biflow templates, 260 to 263).
        const unsigned first_set = dgram[16] << 8 | dgram[17];
        const bool data = first_set >= 260 && first_set <= 263;
        data_after_data += data && data_before;
        data_before = data;
    }
    EXPECT_EQ(data_after_data, 0u);
    close(udp);

    const auto expected = json_lines_at_ms(read_file(tmp.path("out.json")));
    ASSERT_FALSE(expected.empty());
    EXPECT_EQ(decode(read_file(tmp.path("out.ipfix"))), expected) << "file";
    ASSERT_EQ(tcp.streams().size(), 1u);
    EXPECT_EQ(decode(tcp.streams()[0]), expected) << "TCP";
    EXPECT_EQ(decode(datagrams), expected) << "UDP";
    EXPECT_GT(messages, 0u);
}

INSTANTIATE_TEST_SUITE_P(Captures, IpfixRoundTrip, testing::ValuesIn(committed_captures()),
                         [](const auto &info) {
                             std::string n = std::filesystem::path(info.param).stem();
                             std::replace(n.begin(), n.end(), '-', '_');
                             return n;
                         });

// Without the plug-in no record carries SMB elements; with --ipfix-uniflow the reverse
// direction is a record of its own; the observation domain is the one given.
TEST(Ipfix, UniflowAndNoPluginRecords) {
    TempDir tmp;
    const auto bi =
        run_command({SMBFLOW, "-q", "--no-plugin", kSample, "--ipfix",
                     "file:" + tmp.path("bi.ipfix"), "-F", "csv", "-o", tmp.path("bi.csv")});
    ASSERT_EQ(bi.status, 0) << bi.err;
    EXPECT_EQ(decode(read_file(tmp.path("bi.ipfix"))).size() + 1,
              json_lines_at_ms(read_file(tmp.path("bi.csv"))).size());
    const auto uni = run_command({SMBFLOW, "-q", kSample, "--ipfix-uniflow", "--ipfix",
                                  "file:" + tmp.path("uni.ipfix"), "--observation-domain", "7"});
    ASSERT_EQ(uni.status, 0) << uni.err;
    const auto dump = run_command({"/usr/bin/ipfixDump", "-i", tmp.path("uni.ipfix")});
    ASSERT_EQ(dump.status, 0);
    EXPECT_EQ(dump.out.find("reverse"), std::string::npos);
    EXPECT_NE(dump.out.find("observation domain id: 7"), std::string::npos);
    // The sample's 7 flows all have packets both ways.
    EXPECT_NE(dump.out.find("14 Data Records"), std::string::npos) << dump.out;
}

IpfixFlow flow_from_port(uint16_t port) {
    IpfixFlow f;
    f.rec.ip_version = 4;
    f.rec.protocol = 17;
    f.rec.src_port = port;
    f.rec.dst_port = 4739;
    f.rec.dir_counters[0] = {1, 100};
    return f;
}

std::vector<std::string> ports_in(const std::vector<std::string> &lines) {
    std::vector<std::string> ports;
    const std::regex port(R"re("src_port":(\d+))re");
    for (const auto &l : lines) {
        std::smatch m;
        if (std::regex_search(l, m, port)) ports.push_back(m[1]);
    }
    return ports;
}

IpfixUrl tcp_url(uint16_t port) {
    return std::get<IpfixUrl>(parse_ipfix_url(fmt::format("tcp://127.0.0.1:{}", port)));
}

// A collector that is not there at the start: records wait for it up to the bound, the rest
// are counted, and the held ones go out on the last connection attempt at the end.
TEST(IpfixFaults, CollectorAbsentAtStart) {
    uint16_t port = 0;
    const int probe = bound_socket(SOCK_STREAM, port);  // a port where nothing listens
    IpfixSettings settings;
    settings.held_records = 5;
    std::vector<std::string> warnings;
    IpfixDestination dest(tcp_url(port), settings,
                          [&](const std::string &w) { warnings.push_back(w); });
    for (uint16_t p = 1; p <= 8; ++p)
        dest.write(flow_from_port(p));
    dest.flush();
    EXPECT_EQ(dest.counters().records_dropped, 3u);
    EXPECT_EQ(dest.counters().connections, 0u);
    close(probe);
    TcpCollector collector(port);
    dest.finish();
    collector.stop();
    const auto c = dest.counters();
    EXPECT_EQ(c.records_exported, 5u);
    EXPECT_EQ(c.records_dropped, 3u);
    EXPECT_EQ(c.connections, 1u);
    ASSERT_EQ(collector.streams().size(), 1u);
    EXPECT_EQ(ports_in(decode(collector.streams()[0])),
              (std::vector<std::string>{"1", "2", "3", "4", "5"}));
    ASSERT_GE(warnings.size(), 2u);
    EXPECT_NE(warnings[0].find("Connection refused"), std::string::npos) << warnings[0];
    // The first connection is not a reconnection.
    EXPECT_EQ(warnings.back(), "ipfix: " + tcp_url(port).text + ": connected") << warnings.back();
}

// A collector that goes away and comes back: the records before and after the outage arrive,
// the new connection starts with the templates again, and nothing held is lost.
TEST(IpfixFaults, CollectorRestartedMidRun) {
    auto collector = std::make_unique<TcpCollector>();
    const uint16_t port = collector->port();
    IpfixDestination dest(tcp_url(port), {}, [](const std::string &) {});
    for (uint16_t p = 1; p <= 3; ++p)
        dest.write(flow_from_port(p));
    dest.flush();
    collector->stop();
    const auto first = collector->streams();
    // Writes into a connection whose peer has gone succeed until the reset comes back: send
    // until the loss shows.
    uint16_t p = 100;
    while (dest.counters().send_failures == 0 && p < 200) {
        dest.write(flow_from_port(p++));
        dest.flush();
    }
    ASSERT_GT(dest.counters().send_failures, 0u);
    collector = std::make_unique<TcpCollector>(port);
    for (uint16_t q = 1000; q < 1003; ++q)
        dest.write(flow_from_port(q));
    dest.finish();
    collector->stop();

    ASSERT_EQ(first.size(), 1u);
    EXPECT_EQ(ports_in(decode(first[0])), (std::vector<std::string>{"1", "2", "3"}));
    std::vector<std::string> after;
    for (const auto &s : collector->streams())
        for (const auto &q : ports_in(decode(s)))
            after.push_back(q);
    // The write that failed is sent again after the outage; the last three follow it.
    ASSERT_GE(after.size(), 4u);
    EXPECT_EQ(after[after.size() - 4], std::to_string(p - 1));
    EXPECT_EQ(std::vector<std::string>(after.end() - 3, after.end()),
              (std::vector<std::string>{"1000", "1001", "1002"}));
    EXPECT_EQ(dest.counters().records_dropped, 0u);
    EXPECT_GE(dest.counters().connections, 2u);
}

// Over UDP a port where nothing listens is not an error for each message: one warning, the
// run goes on and ends normally.
TEST(IpfixFaults, UdpToAClosedPortWarnsOnce) {
    uint16_t port = 0;
    close(bound_socket(SOCK_DGRAM, port));
    const auto r = run_command(
        {SMBFLOW, kSample, std::string(TEST_DATA) + "/captures/compound.pcap", "--ipfix",
         fmt::format("udp://127.0.0.1:{}", port), "--template-refresh", "0"});
    EXPECT_EQ(r.status, 0) << r.err;
    auto count = [&](const std::string &text) {
        size_t n = 0;
        for (size_t at = 0; (at = r.err.find(text, at)) != std::string::npos; ++at)
            ++n;
        return n;
    };
    // On loopback the port-unreachable answer to the first message is back before the next
    // one is sent: the refusal shows, once, however many messages follow.
    EXPECT_EQ(count("Connection refused"), 1u) << r.err;
    EXPECT_LE(count("smbflow: ipfix:"), 2u) << r.err;
    EXPECT_NE(r.err.find("IPFIX to                  udp://127.0.0.1:"), std::string::npos);
}

// flowEndReason carries the values of the IANA registry (RFC 5102 section 5.11.3): idle
// timeout 1, active timeout 2, forced end 4 for a flow still open when the input ends.
TEST(Ipfix, FlowEndReasonsAreTheRegisteredValues) {
    using corvane_host::ExportReason;
    EXPECT_EQ(ipfix::flow_end_reason(ExportReason::Inactive), 1);
    EXPECT_EQ(ipfix::flow_end_reason(ExportReason::Active), 2);
    EXPECT_EQ(ipfix::flow_end_reason(ExportReason::End), 4);
}

// Each record carries its own end reason (read back by ipfixDump): with a 1 s idle timeout the
// sample's four records that end at 10:00:00.1 end idle while the capture goes on, and its three
// of 10:00:02.0 end with the input.
TEST(Ipfix, EachRecordCarriesItsOwnEndReason) {
    TempDir tmp;
    const auto r = run_command({SMBFLOW, "-q", kSample, "--inactive-timeout", "1", "--ipfix",
                                "file:" + tmp.path("reasons.ipfix")});
    ASSERT_EQ(r.status, 0) << r.err;
    const auto dump = run_command({"/usr/bin/ipfixDump", "-i", tmp.path("reasons.ipfix")});
    ASSERT_EQ(dump.status, 0);
    std::map<std::string, int> reasons;
    const std::regex reason(R"(flowEndReason[^:\n]*:\s*(\d+))");
    for (std::sregex_iterator m(dump.out.begin(), dump.out.end(), reason), end; m != end; ++m)
        ++reasons[(*m)[1]];
    EXPECT_EQ(reasons, (std::map<std::string, int>{{"1", 4}, {"4", 3}})) << dump.out;
}

// The element file that the repository ships defines the elements that smbflow sends.
TEST(Ipfix, ElementFileMatchesTheExportedElements) {
    GError *err = nullptr;
    fbInfoModel_t *model = fbInfoModelAlloc();
    ASSERT_TRUE(fbInfoModelReadXMLFile(model, SMB_ELEMENTS_XML, &err)) << err->message;
    for (const auto &e : ipfix::kSmbElements) {
        const fbInfoElement_t *ie = fbInfoModelGetElementByName(model, e.name);
        ASSERT_NE(ie, nullptr) << e.name;
        EXPECT_EQ(ie->ent, ipfix::kDocumentationPen) << e.name;
        EXPECT_EQ(ie->num, e.id) << e.name;
        EXPECT_EQ(ie->type, e.type) << e.name;
        EXPECT_EQ(ie->len, e.length) << e.name;
        EXPECT_EQ(FB_IE_SEMANTIC(ie->flags), FB_IE_SEMANTIC(e.semantics)) << e.name;
    }
    fbInfoModelFree(model);
}

// The plug-in's further fields as the IPFIX thread appends them, record after record through
// the same buffers: numbers in network byte order, strings pointing into the record's own text,
// and nothing of a fuller record left in the next one.
TEST(Ipfix, ExtrasOfOneRecordDoNotLeakIntoTheNext) {
    const struct {
        const char *name;
        uint32_t type, size;
    } kFields[] = {{"NAME", CORVANE_FIELD_STRING, 0},
                   {"SMALL", CORVANE_FIELD_NUMBER, 2},
                   {"MIDDLE", CORVANE_FIELD_NUMBER, 4},
                   {"LARGE", CORVANE_FIELD_NUMBER, 8},
                   {"RAW", CORVANE_FIELD_OCTETS, 3}};
    std::vector<FieldDef> defs(5);
    std::vector<const FieldDef *> ptrs;
    for (size_t i = 0; i < defs.size(); ++i) {
        defs[i].name = kFields[i].name;
        defs[i].type = kFields[i].type;
        defs[i].size = kFields[i].size;
        ptrs.push_back(&defs[i]);
    }
    // A string field with a text fill: its value is the text.
    defs[0].fill_txt = [](void *, host_flow_record *, host_slot *, void *, uint32_t, uint32_t) {};
    const auto layout = ipfix::extra_layout(FlowFormatter(ptrs).extras());
    ASSERT_EQ(layout.elements.size(), 5u);

    corvane_host::ExportedFlow full;
    full.fields.resize(5);
    full.fields[0].kind = FieldValue::Kind::Value;
    full.fields[0].text.assign("share\\dir\\file.txt");
    full.fields[1] = number_value(0x1234, 2);
    full.fields[2] = number_value(0x01020304, 4);
    full.fields[3].kind = full.fields[4].kind = FieldValue::Kind::Value;
    for (uint8_t b : {8, 7, 6, 5, 4, 3, 2, 1})  // little-endian, as fills write numbers
        full.fields[3].binary.push_back(b);
    for (uint8_t b : {0xa1, 0xb2, 0xc3})
        full.fields[4].binary.push_back(b);
    corvane_host::ExportedFlow sparse;
    sparse.fields.resize(5);
    sparse.fields[1] = number_value(0x00ff, 2);

    const uint64_t base = 0x1122334455667788;
    std::vector<uint8_t> bytes, buf;
    std::string text;
    auto element = [&](const uint8_t *record, size_t i) {
        return record + sizeof base + layout.elements[i].offset;
    };
    auto wire = [](const uint8_t *at, size_t n) { return std::vector<uint8_t>(at, at + n); };
    size_t size = 0;
    EXPECT_TRUE(ipfix::pack_extras(full, layout, bytes, text));
    const uint8_t *r =
        ipfix::record_with_extras(&base, sizeof base, layout, bytes.data(), text, buf, size);
    ASSERT_EQ(size, sizeof base + layout.size);
    EXPECT_EQ(memcmp(r, &base, sizeof base), 0);
    fbVarfield_t name;
    memcpy(&name, element(r, 0), sizeof name);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(name.buf), name.len),
              full.fields[0].text.view());
    EXPECT_EQ(wire(element(r, 1), 2), (std::vector<uint8_t>{0x12, 0x34}));
    EXPECT_EQ(wire(element(r, 2), 4), (std::vector<uint8_t>{1, 2, 3, 4}));
    EXPECT_EQ(wire(element(r, 3), 8), (std::vector<uint8_t>{1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_EQ(wire(element(r, 4), 3), (std::vector<uint8_t>{0xa1, 0xb2, 0xc3}));

    // The same buffers for a record with one value, then for one without any.
    for (bool packed : {true, false}) {
        SCOPED_TRACE(packed ? "one value" : "no values");
        EXPECT_TRUE(ipfix::pack_extras(sparse, layout, bytes, text));
        r = ipfix::record_with_extras(&base, sizeof base, layout, packed ? bytes.data() : nullptr,
                                      text, buf, size);
        ASSERT_EQ(size, sizeof base + layout.size);
        memcpy(&name, element(r, 0), sizeof name);
        EXPECT_EQ(name.len, 0u);
        EXPECT_EQ(name.buf, nullptr);
        EXPECT_EQ(wire(element(r, 1), 2),
                  packed ? (std::vector<uint8_t>{0x00, 0xff}) : std::vector<uint8_t>(2, 0));
        EXPECT_EQ(wire(element(r, 2), 4), std::vector<uint8_t>(4, 0));
        EXPECT_EQ(wire(element(r, 3), 8), std::vector<uint8_t>(8, 0));
        EXPECT_EQ(wire(element(r, 4), 3), std::vector<uint8_t>(3, 0));
    }
    corvane_host::ExportedFlow none;
    none.fields.resize(5);
    EXPECT_FALSE(ipfix::pack_extras(none, layout, bytes, text));
    EXPECT_EQ(bytes, std::vector<uint8_t>(layout.size, 0));
    EXPECT_EQ(text, "");
}

TEST(Ipfix, UrlsNameTransportHostAndPort) {
    struct Case {
        const char *url, *host, *port, *path;
        IpfixUrl::Transport transport;
    } cases[] = {
        {"udp://collector", "collector", "4739", "", IpfixUrl::Transport::Udp},
        {"tcp://10.0.0.1:9995", "10.0.0.1", "9995", "", IpfixUrl::Transport::Tcp},
        {"udp://[2001:db8::1]", "2001:db8::1", "4739", "", IpfixUrl::Transport::Udp},
        {"tcp://[::1]:4740/", "::1", "4740", "", IpfixUrl::Transport::Tcp},
        {"file:/tmp/a.ipfix", "", "", "/tmp/a.ipfix", IpfixUrl::Transport::File},
        {"file:///tmp/a.ipfix", "", "", "/tmp/a.ipfix", IpfixUrl::Transport::File},
    };
    for (const auto &c : cases) {
        auto parsed = parse_ipfix_url(c.url);
        ASSERT_TRUE(std::holds_alternative<IpfixUrl>(parsed)) << std::get<std::string>(parsed);
        const auto &u = std::get<IpfixUrl>(parsed);
        EXPECT_EQ(u.transport, c.transport) << c.url;
        EXPECT_EQ(u.host, c.host) << c.url;
        EXPECT_EQ(u.port, c.port) << c.url;
        EXPECT_EQ(u.path, c.path) << c.url;
    }
    for (const char *bad : {"udp://", "udp://:4739", "tcp://h:0", "tcp://h:", "tcp://[::1",
                            "file:", "http://h", "udp://h:12ab"})
        EXPECT_TRUE(std::holds_alternative<std::string>(parse_ipfix_url(bad))) << bad;
}

}  // namespace

namespace {

// Over UDP the templates go out again on time and on message count, whichever comes first: a
// collector that starts late decodes records soon after. Each step writes one flow record
// (one message) after moving the clock on by its seconds; 'T' is a message of templates,
// 'D' one of data.
TEST(Ipfix, UdpTemplatesAreResentOnTimeAndMessageCount) {
    struct Case {
        double refresh_s;
        uint64_t refresh_messages;
        std::vector<int> step_s;
        const char *expected;
    };
    const Case cases[] = {
        {30, 0, {0, 10, 10, 10, 10, 10, 10}, "TDDDTDDDTD"},
        {30, 3, {0, 1, 1, 1, 1, 1, 1, 1}, "TDDDTDDDTDD"},
        {30, 3, {0, 1, 40, 1}, "TDDTDD"},
        {600, 0, {0, 100, 100, 100}, "TDDDD"},
    };
    for (const Case &c : cases) {
        uint16_t port = 0;
        const int udp = bound_socket(SOCK_DGRAM, port);
        ASSERT_GE(udp, 0);
        std::atomic<int64_t> now_s{1000};
        IpfixSettings settings;
        settings.template_refresh_s = c.refresh_s;
        settings.template_refresh_messages = c.refresh_messages;
        IpfixDestination dest(
            std::get<IpfixUrl>(parse_ipfix_url(fmt::format("udp://127.0.0.1:{}", port))), settings,
            [](const std::string &) {},
            [&] { return std::chrono::steady_clock::time_point(std::chrono::seconds(now_s)); });
        uint16_t p = 1;
        for (int s : c.step_s) {
            now_s += s;
            dest.write(flow_from_port(p++));
            dest.flush();
        }
        dest.finish();
        std::string seen;
        unsigned char dgram[65536];
        for (ssize_t n; (n = recv(udp, dgram, sizeof dgram, MSG_DONTWAIT)) > 0;) {
            ASSERT_GE(n, 18);
            // Flow records are in the sets of the biflow templates, 260 to 263; the rest are
            // templates and the SMB elements' type records.
            const unsigned set = dgram[16] << 8 | dgram[17];
            const char kind = set >= 260 && set <= 263 ? 'D' : 'T';
            if (kind == 'D' || seen.empty() || seen.back() != 'T') seen += kind;
        }
        close(udp);
        EXPECT_EQ(seen, c.expected) << c.refresh_s << " s, " << c.refresh_messages << " messages";
    }
}

}  // namespace
