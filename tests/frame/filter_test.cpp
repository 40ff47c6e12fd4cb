// The packet filter: which packets are parsed, the flag bits they get and what their slot
// holds afterwards, with the real parser behind it.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "mini_host.h"
#include "frame_util.h"
#include "payload_need.h"
#include "smb2_builder.h"
#include "smb_data_table.h"

namespace {

using frame_test::owned_slot;
using Bytes = std::vector<uint8_t>;

constexpr uint32_t kClient = 0x0100000a;
constexpr uint32_t kServer = 0x0200000a;
constexpr uint16_t kNoFlags = 0;
constexpr uint16_t kPortOnly = HOST_FLAG_SMB_PORT;
constexpr uint16_t kPortAndRecord = HOST_FLAG_SMB_PORT | HOST_FLAG_SMB_RECORD;

Bytes smb1(uint8_t command) {
    return smb2test::smb1_message(command);
}

Bytes transform() {
    return smb2test::transform_message(0);
}

Bytes short_smb2() {  // one byte short of a whole SMB2 header
    Bytes header = smb2test::encode(smb2test::request(smb2test::ECHO, 1, 0, {}));
    header.pop_back();
    return smb2test::session(header);
}

// The first segment of an ECHO request whose session message goes on in later segments.
Bytes smb2_echo_first_segment() {
    const Bytes echo = smb2test::encode(
        smb2test::request(smb2test::ECHO, 1, 0, smb2test::request_body(smb2test::ECHO)));
    return smb2test::session_with_word(echo, 200);  // longer than this payload
}

Bytes no_header() {
    return Bytes(40, 0x55);
}

class Filter : public ::testing::Test {
  protected:
    // A packet with 20 bytes of headers in front of its payload.
    host_packet packet(const Bytes &payload, uint16_t src_port = 50000, uint16_t dst_port = 445,
                       uint8_t protocol = 6) {
        frame_.assign(20, 0);
        frame_.insert(frame_.end(), payload.begin(), payload.end());
        host_packet pkt{};
        pkt.data = frame_.data();
        pkt.length = frame_.size();
        pkt.payload_offset = 20;
        pkt.ip_version = 4;
        pkt.protocol = protocol;
        pkt.src_addr.v4 = src_port == 445 ? kServer : kClient;
        pkt.dst_addr.v4 = src_port == 445 ? kClient : kServer;
        pkt.src_port = src_port;
        pkt.dst_port = dst_port;
        return pkt;
    }

    int filter(host_packet &pkt, owned_slot &slot) {
        return process_smb_filter(q_, &pkt, nullptr, &slot.slot);
    }

    Bytes frame_;
    mini_host::plugin plugin_{"filetable-size=1024"};
    smb_queue_ctx *q_ = plugin_.queue;
};

struct filter_case {
    const char *what;
    uint16_t port;  // the queue's configured port
    Bytes payload;
    uint16_t src_port, dst_port;
    uint8_t protocol;
    uint16_t flags;
    bool record;
};
void PrintTo(const filter_case &c, std::ostream *os) {
    *os << c.what;
}

class FilterCases : public Filter, public ::testing::WithParamInterface<filter_case> {};

TEST_P(FilterCases, SetFlagsAndSlot) {
    const filter_case &c = GetParam();
    q_->port = c.port;
    host_packet pkt = packet(c.payload, c.src_port, c.dst_port, c.protocol);
    int stale = 0;  // whatever the slot held before is overwritten
    host_slot slot = &stale;
    EXPECT_EQ(process_smb_filter(q_, &pkt, nullptr, &slot), 0);
    ASSERT_NE(slot, &stale);
    owned_slot result(static_cast<smb_flow_data *>(slot));
    EXPECT_EQ(pkt.flags, c.flags);
    EXPECT_EQ(slot != nullptr, c.record);
    // smbflow's copy of a live packet keeps the payload of whatever the plug-in parses.
    if (c.record) {
        EXPECT_EQ(smbflow::PayloadNeed::tcp_port(c.port).bytes(pkt), pkt.length);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Packets, FilterCases,
    ::testing::Values(
        filter_case{"SMB1 to the port", 445, smb1(0x72), 50000, 445, 6, kPortAndRecord, true},
        filter_case{"SMB1 from the port", 445, smb1(0x72), 445, 50000, 6, kPortAndRecord, true},
        filter_case{"encrypted to the port", 445, transform(), 50000, 445, 6, kPortAndRecord, true},
        filter_case{"first segment of a longer message", 445, smb2_echo_first_segment(), 50000, 445,
                    6, kPortAndRecord, true},
        filter_case{"malformed SMB2 still marks the port", 445, short_smb2(), 50000, 445, 6,
                    kPortOnly, false},
        filter_case{"no SMB data from the port", 445, no_header(), 445, 50000, 6, kPortOnly, false},
        filter_case{"empty payload", 445, {}, 50000, 445, 6, kPortOnly, false},
        filter_case{"other ports", 445, smb1(0x72), 50000, 139, 6, kNoFlags, false},
        filter_case{"UDP on the port", 445, smb1(0x72), 50000, 445, 17, kNoFlags, false},
        filter_case{"any port, SMB1", 0, smb1(0x72), 50000, 8445, 6, kPortAndRecord, true},
        filter_case{"any port, first segment", 0, smb2_echo_first_segment(), 50000, 445, 6,
                    kPortAndRecord, true},
        filter_case{"any port, no SMB data", 0, no_header(), 50000, 445, 6, kNoFlags, false},
        filter_case{"any port, malformed", 0, short_smb2(), 50000, 445, 6, kNoFlags, false},
        filter_case{"any port, UDP", 0, smb1(0x72), 50000, 445, 17, kNoFlags, false}));

TEST_F(Filter, Ipv4FragmentKeepsItsSlotAndGetsNoFlags) {
    host_packet pkt = packet(smb1(0x72));
    pkt.ipv4_aux16 = 0x2000;  // more fragments follow
    int sentinel = 0;
    host_slot slot = &sentinel;
    process_smb_filter(q_, &pkt, nullptr, &slot);
    EXPECT_EQ(slot, &sentinel);
    EXPECT_EQ(pkt.flags, kNoFlags);

    pkt.ip_version = 6;  // the field means nothing for IPv6
    owned_slot v6;
    filter(pkt, v6);
    EXPECT_EQ(pkt.flags, kPortAndRecord);
}

TEST_F(Filter, PayloadOffsetBeyondTheLengthIsPassedOver) {
    host_packet pkt = packet(smb1(0x72));
    pkt.payload_offset = pkt.length + 1;
    int stale = 0;
    host_slot slot = &stale;
    process_smb_filter(q_, &pkt, nullptr, &slot);
    EXPECT_EQ(slot, nullptr);
    EXPECT_EQ(pkt.flags, kNoFlags);
}

TEST_F(Filter, RecordsAreTheSameWhetherAllocatedBeforeOrAfterParsing) {
    // With the port configured an SMB signature makes the filter allocate first; without
    // port filtering it parses on the stack.
    owned_slot first, second;
    host_packet a = packet(smb1(0x2f));
    filter(a, first);
    q_->port = 0;
    host_packet b = packet(smb1(0x2f));
    filter(b, second);
    ASSERT_NE(first.slot, nullptr);
    ASSERT_NE(second.slot, nullptr);
    EXPECT_EQ(memcmp(first.rec(), second.rec(), sizeof(smb_flow_data)), 0);
    EXPECT_EQ(a.flow_hash, b.flow_hash);
}

TEST_F(Filter, SegmentWithoutHeaderIsKeptFromTheStack) {
    // A later segment of a message whose first segment was parsed: the parser gives it the
    // message's ids, and the filter copies the stack record out.
    {
        smb::SpinGuard guard(q_->datatable->lock);
        datatable_insert(q_->datatable, 5, 6, kClient, 50000, 0);
    }
    host_packet pkt = packet(no_header());
    owned_slot slot;
    filter(pkt, slot);
    EXPECT_EQ(pkt.flags, kPortAndRecord);
    ASSERT_NE(slot.slot, nullptr);
    EXPECT_EQ(slot.rec()->tree_id, 5u);
    EXPECT_EQ(slot.rec()->file_id, 6u);
    EXPECT_EQ(slot.rec()->version, SMB_VERSION_NONE);
}

}  // namespace
