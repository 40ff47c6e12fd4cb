// Client-first records: on every committed capture each record of an SMB connection names the
// client as source, and the records a connection is split into add up, direction by
// direction, to what the run without the plug-in (one record per connection, started by the
// client's SYN) counts for it.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <tuple>

#include "orientation.h"
#include "run_command.h"

namespace {

using namespace hosttest;

struct Totals {
    uint64_t packets = 0, bytes = 0, rev_packets = 0, rev_bytes = 0;
    std::string flags = "........", rev_flags = "........";
    bool operator==(const Totals &) const = default;
};

void merge_flags(std::string &into, const std::string &flags) {
    for (size_t i = 0; i < into.size() && i < flags.size(); ++i)
        if (flags[i] != '.') into[i] = flags[i];
}

std::vector<std::string> split(const std::string &line) {
    std::vector<std::string> cells;
    size_t at = 0;
    for (size_t comma; (comma = line.find(',', at)) != std::string::npos; at = comma + 1)
        cells.push_back(line.substr(at, comma - at));
    cells.push_back(line.substr(at));
    return cells;
}

using Conn = std::tuple<std::string, std::string, std::string, std::string>;

// Per connection, as written: the TCP records' counters and flags added up. Fails the test on
// a record of port 445 whose destination is not the server.
std::map<Conn, Totals> totals(const std::string &capture, bool plugin, size_t &records) {
    std::vector<std::string> args = {
        SMBFLOW,
        "--no-progress",
        "-q",
        "-F",
        "csv",
        "--fields",
        "src_addr,src_port,dst_addr,dst_port,proto,packets,bytes,rev_packets,rev_bytes,"
        "tcp_flags,rev_tcp_flags",
        capture};
    if (plugin)
        args.insert(args.end(), {"--plugin", SMB_PLUGIN});
    else
        args.push_back("--no-plugin");
    auto r = run_command(args);
    EXPECT_EQ(r.status, 0) << r.err;
    std::map<Conn, Totals> out;
    const auto lines = lines_of(r.out);
    for (size_t i = 1; i < lines.size(); ++i) {
        const auto c = split(lines[i]);
        if (c.size() != 11 || c[4] != "6") continue;
        ++records;
        EXPECT_TRUE(c[3] == "445" && c[1] != "445") << capture << ": " << lines[i];
        Totals &t = out[{c[0], c[1], c[2], c[3]}];
        t.packets += std::stoull(c[5]);
        t.bytes += std::stoull(c[6]);
        t.rev_packets += std::stoull(c[7]);
        t.rev_bytes += std::stoull(c[8]);
        merge_flags(t.flags, c[9]);
        merge_flags(t.rev_flags, c[10]);
    }
    return out;
}

TEST(ClientFirst, RecordsOfEveryCommittedCaptureNameTheClientAsSource) {
    size_t captures = 0, split_records = 0, whole_records = 0;
    for (const auto &entry :
         std::filesystem::directory_iterator(std::string(TEST_DATA) + "/captures")) {
        if (entry.path().extension() != ".pcap") continue;
        ++captures;
        const std::string file = entry.path().string();
        // Where compound chains span segments, a record counts the earlier segments of the
        // message it parses as well, so its connection adds up to more than the whole.
        const bool recounts = entry.path().stem() == "compound_segmented";
        const auto split_up = totals(file, true, split_records);
        const auto whole = totals(file, false, whole_records);
        ASSERT_FALSE(whole.empty()) << file;
        EXPECT_EQ(split_up.size(), whole.size()) << file;
        for (const auto &[conn, t] : whole) {
            auto it = split_up.find(conn);
            ASSERT_NE(it, split_up.end())
                << file << " " << std::get<0>(conn) << ":" << std::get<1>(conn);
            const Totals &s = it->second;
            if (recounts) {
                EXPECT_GE(s.packets, t.packets) << file;
                EXPECT_GE(s.rev_packets, t.rev_packets) << file;
                EXPECT_EQ(s.flags, t.flags) << file;
                EXPECT_EQ(s.rev_flags, t.rev_flags) << file;
            } else {
                EXPECT_EQ(s, t) << file << " " << std::get<0>(conn) << ":" << std::get<1>(conn);
            }
        }
    }
    EXPECT_GE(captures, 10u);
    // The plug-in splits connections into tree and file records, most of which start with a
    // server response: these are the records that had to be turned around.
    EXPECT_GT(split_records, 2 * whole_records);
}

TEST(ClientFirst, ServerPortFollowsThePluginParameters) {
    const std::pair<std::optional<std::string>, uint16_t> cases[] = {
        {std::nullopt, 445},     {"", 445},
        {"port=139", 139},       {"port=0x20FD", 8445},
        {"foo=1,port=139", 139}, {"port=0", 445},
        {"port=-1", 445},        {"treetable-size=100,port=65536", 445},
        {"report=139", 445},
    };
    for (const auto &[params, port] : cases)
        EXPECT_EQ(smbflow::server_port_of(params), port) << params.value_or("(none)");
}

TEST(ClientFirst, OnlyTcpRecordsFromTheServerPortAreTurned) {
    struct Case {
        uint8_t protocol;
        uint16_t src, dst;
        bool turned;
    };
    const Case cases[] = {
        {6, 445, 50000, true},   {6, 50000, 445, false}, {6, 445, 445, false},
        {17, 445, 50000, false}, {6, 139, 50000, false},
    };
    for (const Case &c : cases) {
        host_flow_record rec{};
        rec.protocol = c.protocol;
        rec.src_port = c.src;
        rec.dst_port = c.dst;
        rec.src_addr.v4 = 1;
        rec.dst_addr.v4 = 2;
        rec.dir_counters[0] = {3, 300};
        rec.dir_counters[1] = {5, 500};
        rec.tcp_flags[0] = 0x12;
        rec.tcp_flags[1] = 0x02;
        corvane_host::ExportedFlow flow;
        flow.rec = rec;
        smbflow::ClientFirst client_first(445);
        const host_flow_record &out = client_first(flow).rec;
        const bool t = c.turned;
        EXPECT_EQ(out.src_port, t ? c.dst : c.src);
        EXPECT_EQ(out.dst_port, t ? c.src : c.dst);
        EXPECT_EQ(out.src_addr.v4, t ? 2u : 1u);
        EXPECT_EQ(out.dir_counters[0].packets, t ? 5u : 3u);
        EXPECT_EQ(out.dir_counters[1].bytes, t ? 300u : 500u);
        EXPECT_EQ(out.tcp_flags[0], t ? 0x02 : 0x12);
    }
}

}  // namespace
