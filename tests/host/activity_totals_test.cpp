// The activity counters of the capture files in tests/data/captures, run through the real
// host at one and at four queues: the sums over all records must equal the capture's totals
// as tshark counts them (the figures of the table), whatever the number of queues.
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>

#include "capture.h"
#include "host.h"
#include "pipeline.h"

namespace {

struct Totals {
    uint64_t reads = 0, bytes_read = 0, writes = 0, bytes_written = 0, errors = 0, renames = 0,
             deletes = 0, latency_count = 0;
    std::set<std::string> dialects;
    bool operator==(const Totals &) const = default;
};

std::ostream &operator<<(std::ostream &os, const Totals &t) {
    os << "reads " << t.reads << "/" << t.bytes_read << " writes " << t.writes << "/"
       << t.bytes_written << " errors " << t.errors << " renames " << t.renames << " deletes "
       << t.deletes << " timed " << t.latency_count << " dialects";
    for (const std::string &d : t.dialects)
        os << " " << d;
    return os;
}

std::string hex16(uint64_t v) {
    char text[8];
    snprintf(text, sizeof text, "0x%04x", static_cast<unsigned>(v));
    return text;
}

Totals run_capture(const std::string &path, unsigned queues) {
    corvane_host::Host host;
    if (auto error = host.load_library(SMB_PLUGIN)) ADD_FAILURE() << *error;
    host.init_plugin(0, "activity=1");
    const auto fields = host.fields();
    Totals t;
    {
        smbflow::Pipeline pipeline(
            host, queues, corvane_host::QueueConfig{}, [&](const corvane_host::ExportedFlow &flow) {
                for (size_t i = 0; i < fields.size(); ++i) {
                    const corvane_host::FieldValue &v = flow.fields[i];
                    if (v.kind != corvane_host::FieldValue::Kind::Value) continue;
                    const std::string &name = fields[i]->name;
                    static const std::map<std::string, uint64_t Totals::*> kCounters = {
                        {"SMB_READS", &Totals::reads},
                        {"SMB_BYTES_READ", &Totals::bytes_read},
                        {"SMB_WRITES", &Totals::writes},
                        {"SMB_BYTES_WRITTEN", &Totals::bytes_written},
                        {"SMB_ERRORS", &Totals::errors},
                        {"SMB_RENAMES", &Totals::renames},
                        {"SMB_DELETES", &Totals::deletes},
                        {"SMB_LATENCY_COUNT", &Totals::latency_count}};
                    if (auto it = kCounters.find(name); it != kCounters.end())
                        t.*(it->second) += v.number();
                    else if (name == "SMB_DIALECT")
                        t.dialects.insert(hex16(v.number()));
                }
            });
        smbflow::Capture capture = smbflow::Capture::files({path}, "");
        EXPECT_TRUE(capture.open()) << path;
        smbflow::submit_capture(capture, pipeline);
        pipeline.finish();
    }
    host.shutdown();
    return t;
}

struct Case {
    const char *capture;
    Totals expected;
};

class ActivityTotals : public testing::TestWithParam<Case> {};

TEST_P(ActivityTotals, EqualTheCaptureTotalsAtOneAndFourQueues) {
    const std::string path = std::string(TEST_DATA) + "/captures/" + GetParam().capture;
    EXPECT_EQ(run_capture(path, 1), GetParam().expected);
    EXPECT_EQ(run_capture(path, 4), GetParam().expected);
}

// Counted with tshark: successful READ responses (DataLength), WRITE responses (Count), error
// statuses other than STATUS_MORE_PROCESSING_REQUIRED, SET_INFO rename and delete requests
// answered with success, responses with smb2.time other than interim STATUS_PENDING ones, and
// the NEGOTIATE response dialects.
// clang-format off
INSTANTIATE_TEST_SUITE_P(Captures, ActivityTotals, testing::Values(
    Case{"compound.pcap", {2, 2, 3, 1091, 61, 0, 0, 244, {"0x0311"}}},
    Case{"compound_segmented.pcap", {0, 0, 1, 1024, 10, 0, 0, 56, {"0x0311"}}},
    Case{"ipv6_ops.pcap", {1, 72, 2, 144, 2, 1, 1, 62, {"0x0311"}}},
    Case{"names.pcap", {1, 72, 5, 360, 2, 0, 1, 84, {"0x0311"}}},
    Case{"oplocks_locks.pcap", {0, 0, 4, 402, 67, 0, 1, 317, {"0x0311"}}},
    // A WRITE response sent twice (a TCP retransmission): one write.
    Case{"retransmission.pcap", {0, 0, 1, 200, 20, 0, 0, 35, {"0x0311"}}},
    Case{"smb1_ops.pcap", {0, 0, 0, 0, 0, 0, 0, 0, {}}},
    Case{"smb3_encrypted.pcap", {0, 0, 0, 0, 0, 0, 0, 3, {"0x0311"}}},
    Case{"large_io.pcap", {1, 196608, 1, 196608, 1, 0, 0, 21, {"0x0311"}}},
    Case{"smb2_ops.pcap", {2, 144, 3, 216, 3, 1, 1, 94, {"0x0202", "0x0210"}}},
    Case{"smb3_ops.pcap", {1, 72, 2, 144, 3, 1, 2, 84, {"0x0311"}}}),
    [](const auto &info) {
        std::string name = info.param.capture;
        return name.substr(0, name.find('.'));
    });
// clang-format on

}  // namespace
