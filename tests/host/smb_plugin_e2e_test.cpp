// The SMB plug-in loaded with dlopen and driven through the host library: a session with
// TREE_CONNECT, CREATE, READ and CLOSE in both directions ends in flow records whose six
// fields hold the share, the file, its type, the operation and the commands.
#include <gtest/gtest.h>

#include <map>

#include "exporter.h"
#include "host.h"
#include "packet_decoder.h"
#include "queue.h"
#include "smb2_messages.h"

namespace {

using namespace testnet;
using corvane_host::FieldValue;

constexpr uint32_t kCreate = 1u << (8 + 5), kClose = 1u << (8 + 6), kRead = 1u << (8 + 8),
                   kWrite = 1u << (8 + 9), kTreeConnect = 1u << (8 + 3);

// One exported flow record, its fields by name.
using Record = std::map<std::string, FieldValue>;

std::vector<Record> run_plugin(const std::vector<Packet> &packets, const char *params,
                               unsigned queues = 1) {
    corvane_host::Host host;
    auto problem = host.load_library(SMB_PLUGIN);
    EXPECT_FALSE(problem) << *problem;
    if (problem) return {};
    host.init_plugin(0, params);
    std::vector<corvane_host::FlowHandoff> handed;
    std::vector<Record> out;
    {
        std::vector<std::unique_ptr<corvane_host::Queue>> qs;
        for (unsigned i = 0; i < queues; ++i)
            qs.push_back(std::make_unique<corvane_host::Queue>(
                host, i, corvane_host::QueueConfig{},
                [&](corvane_host::FlowHandoff &&f) { handed.push_back(std::move(f)); }));
        for (const Packet &p : packets) {
            corvane_host::DecodedPacket d;
            EXPECT_EQ(
                corvane_host::decode_frame(corvane_host::kLinkRaw, p.ip.data(), p.ip.size(), d),
                corvane_host::DecodeStatus::Ok);
            d.pkt.timestamp_ns = p.ts_ns;
            bool from_a;
            const auto key = corvane_host::conn_key_of(d.pkt, from_a);
            qs[key.digest % queues]->process(d.pkt, d.ip_bytes);
        }
        for (auto &q : qs)
            q->flush();
        corvane_host::Exporter exporter(host);
        const auto fields = exporter.fields();
        for (auto &f : handed) {
            const auto flow = exporter.run(f);
            Record r;
            for (size_t i = 0; i < fields.size(); ++i)
                r[fields[i]->name] = flow.fields[i];
            out.push_back(std::move(r));
        }
    }
    host.shutdown();
    return out;
}

SessionSpec session(bool create_new) {
    SessionSpec s;
    s.client = ipv4(192, 168, 56, 10);
    s.server = ipv4(192, 168, 56, 20);
    s.create_new = create_new;
    s.start_ns = 1'700'000'000ull * 1'000'000'000ull;
    return s;
}

const Record *with_file(const std::vector<Record> &records) {
    for (const Record &r : records)
        if (r.at("SMB_FILE_NAME").present()) return &r;
    return nullptr;
}

TEST(SmbPluginEndToEnd, ReadOfAnExistingFile) {
    const auto records = run_plugin(smb2_session(session(false)), nullptr);
    ASSERT_FALSE(records.empty());
    for (const Record &r : records)
        ASSERT_EQ(r.size(), 6u) << "the six fields";
    const Record *file = with_file(records);
    ASSERT_NE(file, nullptr) << "a flow record with the file's name";
    EXPECT_EQ(file->at("SMB_FILE_NAME").text, "docs\\report.txt");
    EXPECT_EQ(file->at("SMB_FILE_NAME").binary.size(), 128u);
    EXPECT_EQ(file->at("SMB_TREE").text, "\\\\fileserver\\public");
    EXPECT_EQ(file->at("SMB_FILE_TYPE").number(), 2u);
    EXPECT_EQ(file->at("SMB_OP").number(), 0x01u) << "FILE_OPENED";
    const uint32_t request = file->at("SMB_CMD_REQUEST").number();
    const uint32_t response = file->at("SMB_CMD_RESPONSE").number();
    EXPECT_EQ(request & 0xff, 0xffu);
    EXPECT_EQ(request & (kRead | kClose), kRead | kClose);
    EXPECT_EQ(response & (kCreate | kRead | kClose), kCreate | kRead | kClose);

    bool tree_seen = false;
    for (const Record &r : records)
        if ((r.at("SMB_CMD_REQUEST").number() & kTreeConnect) && r.at("SMB_TREE").present())
            tree_seen = r.at("SMB_TREE").text == "\\\\fileserver\\public";
    EXPECT_TRUE(tree_seen) << "the tree connect's own flow record names the share";
}

TEST(SmbPluginEndToEnd, NewFileWrittenOverIpv6InFourQueues) {
    SessionSpec s = session(true);
    s.client = ipv6("fd00:56::10");
    s.server = ipv6("fd00:56::20");
    s.file = "reports\\q1.csv";
    const auto records = run_plugin(smb2_session(s), "port=445", 4);
    const Record *file = with_file(records);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(file->at("SMB_FILE_NAME").text, "reports\\q1.csv");
    EXPECT_EQ(file->at("SMB_OP").number(), 0x02u) << "FILE_CREATED";
    EXPECT_EQ(file->at("SMB_CMD_RESPONSE").number() & (kCreate | kWrite), kCreate | kWrite);
}

TEST(SmbPluginEndToEnd, OneWayFlowWithEqualPortsHasNoCommandFields) {
    TcpSpec t;
    t.src = ipv4(10, 0, 0, 1);
    t.dst = ipv4(10, 0, 0, 2);
    t.sport = 445;
    t.dport = 445;
    t.flags = PSH | ACK;
    t.payload = smb2_message({0, 0, 0, 0, false, 0}, negotiate_request());
    const auto records =
        run_plugin({{1'700'000'000ull * 1'000'000'000ull, tcp_datagram(t)}}, nullptr);
    ASSERT_EQ(records.size(), 1u);
    const Record &r = records[0];
    EXPECT_EQ(r.at("SMB_CMD_REQUEST").kind, FieldValue::Kind::Absent);
    EXPECT_EQ(r.at("SMB_CMD_RESPONSE").kind, FieldValue::Kind::Absent);
    EXPECT_EQ(r.at("SMB_OP").kind, FieldValue::Kind::Value) << "the flow has an SMB record";
    EXPECT_EQ(r.at("SMB_OP").number(), 0x3fu);
}

TEST(SmbPluginEndToEnd, OtherPortSeesNoSmb) {
    const auto records = run_plugin(smb2_session(session(false)), "port=139");
    ASSERT_FALSE(records.empty());
    for (const Record &r : records) {
        EXPECT_FALSE(r.at("SMB_TREE").present());
        EXPECT_EQ(r.at("SMB_CMD_REQUEST").kind, FieldValue::Kind::Default);
        EXPECT_EQ(r.at("SMB_CMD_REQUEST").number(), 0xffu);
        EXPECT_EQ(r.at("SMB_OP").number(), 0x3fu);
        EXPECT_EQ(r.at("SMB_FILE_TYPE").number(), 0xffu);
    }
}

}  // namespace
