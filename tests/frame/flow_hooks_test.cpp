// The update hook's move, merge and give-up; the release hook's deep copies; the free hook.
#include <gtest/gtest.h>

#include "mini_host.h"
#include "frame_util.h"

namespace {

using frame_test::flow_between;
using frame_test::owned_slot;

class Update : public ::testing::Test {
  protected:
    void SetUp() override {
        mini_host::reset();
        queue_.queue_id = 4;
    }
    // A packet of the flow: the first direction shares the flow's destination port.
    host_packet packet(bool first_direction) const {
        host_packet pkt{};
        pkt.src_port = first_direction ? 50000 : 445;
        pkt.dst_port = first_direction ? 445 : 50000;
        return pkt;
    }
    void *update(host_packet &pkt, host_flow_record &flow, owned_slot &pkt_slot,
                 owned_slot &flow_slot) {
        return process_smb_update(&queue_, &pkt, &flow, &pkt_slot.slot, &flow_slot.slot);
    }
    smb_queue_ctx queue_{};
};

TEST_F(Update, FirstRecordMovesIntoTheFlowAndStays) {
    host_flow_record flow = flow_between(50000, 445, 30, 30);
    host_packet pkt = packet(true);
    smb_flow_data *rec = frame_test::smb2_record(0x20ff);
    owned_slot pkt_slot(rec), flow_slot, empty;
    EXPECT_EQ(update(pkt, flow, pkt_slot, flow_slot), rec);
    EXPECT_EQ(flow_slot.slot, rec);
    EXPECT_EQ(pkt_slot.slot, nullptr);
    EXPECT_EQ(flow.flags, HOST_FLAG_SMB_RECORD);
    host_packet answer = packet(false);  // a packet without record leaves it
    EXPECT_EQ(update(answer, flow, empty, flow_slot), rec);
    EXPECT_EQ(rec->commands[0], 0x20ffu);
    EXPECT_TRUE(mini_host::host().removals.empty());  // a record wins over the packet count
}

TEST_F(Update, FlowWithoutRecordIsDroppedAfterTenPackets) {
    struct count_case {
        uint64_t packets0, packets1;
        bool removed;
    };
    const count_case cases[] = {
        {5, 5, false}, {6, 5, true}, {10, 0, false}, {11, 0, true}, {0, 11, true}, {0, 0, false},
    };
    int marker = 0;
    mini_host::host().update_remove_result = &marker;
    for (const count_case &c : cases) {
        SCOPED_TRACE(testing::Message() << c.packets0 << "+" << c.packets1);
        mini_host::host().removals.clear();
        host_flow_record flow = flow_between(50000, 445, c.packets0, c.packets1);
        host_packet pkt = packet(true);
        owned_slot pkt_slot, flow_slot;
        void *result = update(pkt, flow, pkt_slot, flow_slot);
        EXPECT_EQ(flow_slot.slot, nullptr);
        EXPECT_EQ(flow.flags, 0);
        if (c.removed) {
            ASSERT_EQ(mini_host::host().removals.size(), 1u);
            const mini_host::removal &r = mini_host::host().removals[0];
            EXPECT_EQ(r.flow, &flow);
            EXPECT_EQ(r.queue_id, 4u);
            EXPECT_EQ(r.hook, &process_smb_update);
            EXPECT_EQ(result, &marker);
        } else {
            EXPECT_TRUE(mini_host::host().removals.empty());
            EXPECT_EQ(result, nullptr);
        }
    }
}

TEST_F(Update, CommandsMergeByDirection) {
    host_flow_record flow = flow_between(50000, 445, 1, 1);
    owned_slot flow_slot;
    host_packet create = packet(true), close = packet(false);
    owned_slot first(frame_test::smb2_record(SMB_CMD_CREATE | 0xff));
    update(create, flow, first, flow_slot);
    owned_slot second(frame_test::smb2_record(SMB_CMD_BIT(SMB2_CLOSE) | 0xff));
    EXPECT_EQ(update(close, flow, second, flow_slot), flow_slot.slot);
    EXPECT_EQ(flow_slot.rec()->commands[0], 0x000020ffu);
    EXPECT_EQ(flow_slot.rec()->commands[1], 0x000040ffu);
    EXPECT_NE(second.slot, nullptr);  // merged, not moved: the host frees it
}

TEST_F(Update, OnlyCommandBitsAndDeleteAreMerged) {
    host_flow_record flow = flow_between(50000, 445, 1, 1);
    owned_slot flow_slot(frame_test::smb2_record());
    smb_flow_data &r = *flow_slot.rec();
    r.tree_id = 5;
    r.file_id = 6;
    r.op = 0x01;
    r.message_id = 7;
    r.is_response = 0;

    struct merge_case {
        const char *what;
        uint32_t cmd0, cmd1;
        uint8_t op;
        uint8_t expected_op;
    };
    const merge_case cases[] = {
        {"delete without SET_INFO is ignored", SMB_CMD_CREATE | 0xff, 0xff, 0x42, 0x01},
        {"SET_INFO request with delete", SMB_CMD_SET_INFO | 0xff, 0xff, 0x7f, 0x41},
        {"SET_INFO of the answered request", 0xff, SMB_CMD_SET_INFO | 0xff, 0xc0, 0x41},
    };
    for (const merge_case &c : cases) {
        SCOPED_TRACE(c.what);
        r.op = 0x01;
        owned_slot pkt_slot(frame_test::smb2_record(c.cmd0, c.cmd1));
        pkt_slot.rec()->op = c.op;
        pkt_slot.rec()->tree_id = 50;
        pkt_slot.rec()->file_id = 60;
        pkt_slot.rec()->message_id = 70;
        pkt_slot.rec()->is_response = 1;
        pkt_slot.rec()->file_name = frame_test::name_buffer("b.txt");
        host_packet pkt = packet(true);
        update(pkt, flow, pkt_slot, flow_slot);
        EXPECT_EQ(r.op, c.expected_op);
        EXPECT_EQ(r.tree_id, 5u);
        EXPECT_EQ(r.file_id, 6u);
        EXPECT_EQ(r.message_id, 7u);
        EXPECT_EQ(r.is_response, 0);
        EXPECT_EQ(r.file_name, nullptr);
    }
    EXPECT_EQ(r.commands[0], SMB_CMD_CREATE | SMB_CMD_SET_INFO | 0xff);
    EXPECT_EQ(r.commands[1], 0xffu);  // a packet's second word never reaches the flow
}

TEST_F(Update, Smb1AnswerSetsTheResponseWordOnlyWhileTheOtherSideIsUncounted) {
    struct smb1_case {
        const char *what;
        bool first_direction;
        uint16_t flow_flags;
        uint64_t packets0, packets1;
        uint32_t expected;
    };
    const smb1_case cases[] = {
        {"answer, other side uncounted", false, 0, 3, 0, 0x73},
        {"answer, other side counted", false, 0, 3, 1, 0xff},
        {"flow direction bit selects block 0", false, HOST_FLAG_DIRECTION, 0, 3, 0x73},
        {"flow direction bit, block 0 counted", false, HOST_FLAG_DIRECTION, 1, 3, 0xff},
        {"same direction", true, 0, 3, 0, 0xff},
    };
    for (const smb1_case &c : cases) {
        SCOPED_TRACE(c.what);
        host_flow_record flow = flow_between(50000, 445, c.packets0, c.packets1, c.flow_flags);
        owned_slot flow_slot(smb_record_new());
        flow_slot.rec()->version = SMB_VERSION_1;
        flow_slot.rec()->commands[0] = 0x72;
        owned_slot pkt_slot(smb_record_new());
        pkt_slot.rec()->version = SMB_VERSION_1;
        pkt_slot.rec()->commands[0] = 0x73;
        host_packet pkt = packet(c.first_direction);
        update(pkt, flow, pkt_slot, flow_slot);
        EXPECT_EQ(flow_slot.rec()->commands[0], 0x72u);
        EXPECT_EQ(flow_slot.rec()->commands[1], c.expected);
    }
}

TEST(Release, CopiesOnlyWhenAskedAndTheSourceHoldsARecord) {
    int sentinel = 0;
    owned_slot src(frame_test::smb2_record(0x20ff, 0x40ff));
    host_slot dst = &sentinel;
    process_smb_release(nullptr, nullptr, &src.slot, nullptr, &dst, 0);
    EXPECT_EQ(dst, &sentinel);

    host_slot empty = nullptr;
    process_smb_release(nullptr, nullptr, &empty, nullptr, &dst, 1);
    EXPECT_EQ(dst, &sentinel);

    // The copy itself is smb_record_copy's (tests/foundation/record_test.cpp).
    owned_slot copy;
    process_smb_release(nullptr, nullptr, &src.slot, nullptr, &copy.slot, 1);
    ASSERT_NE(copy.slot, nullptr);
    EXPECT_NE(copy.slot, src.slot);
    EXPECT_EQ(copy.rec()->commands[1], 0x40ffu);
}

TEST(Callback, FreesTheRecordWithItsNamesAndClearsTheSlot) {
    // Leaks show up under AddressSanitizer; here the slot must end empty, and an empty slot
    // must survive a second call.
    host_slot slot = frame_test::smb2_record();
    static_cast<smb_flow_data *>(slot)->tree_name = frame_test::name_buffer("share");
    static_cast<smb_flow_data *>(slot)->file_name = frame_test::name_buffer("a.txt");
    process_smb_callback(nullptr, &slot);
    EXPECT_EQ(slot, nullptr);
    process_smb_callback(nullptr, &slot);
    EXPECT_EQ(slot, nullptr);
}

}  // namespace
