// The activity fields: the parameter that turns them on, what they register with the host,
// their exported values and texts, and how the update hook merges a packet's counters into its
// flow's record.
#include <gtest/gtest.h>

#include "frame_util.h"
#include "mini_host.h"
#include "smb_activity.h"
#include "smb_fields.h"

namespace {

using frame_test::flow_between;
using frame_test::owned_slot;

struct registered {
    const char *name;
    uint32_t type, size;
    size_t default_size;  // 0: none
};

const registered kActivityFields[] = {
    {"SMB_DIALECT", 1, 2, 2},
    {"SMB_BYTES_READ", 1, 8, 8},
    {"SMB_BYTES_WRITTEN", 1, 8, 8},
    {"SMB_READS", 1, 4, 4},
    {"SMB_WRITES", 1, 4, 4},
    {"SMB_ERRORS", 1, 4, 4},
    {"SMB_LAST_ERROR", 1, 4, 4},
    {"SMB_RENAMES", 1, 4, 4},
    {"SMB_RENAME_TO", 8, 128, 0},
    {"SMB_DELETES", 1, 4, 4},
    {"SMB_LATENCY_COUNT", 1, 4, 4},
    {"SMB_LATENCY_SUM_US", 1, 8, 8},
    {"SMB_LATENCY_MAX_US", 1, 4, 4},
    {"SMB_SECURITY", 1, 1, 1},
    // Identity and remote calls.
    {"SMB_USER", 8, 128, 0},
    {"SMB_DOMAIN", 8, 128, 0},
    {"SMB_WORKSTATION", 8, 128, 0},
    {"SMB_RPC_INTERFACE", 16, 16, 0},
    {"SMB_RPC_OPNUMS", 1, 8, 8},
    {"SMB_RPC_CALLS", 1, 4, 4},
};

TEST(ActivityParameter, RegistersItsFieldsAfterTheSixOnlyWhenOn) {
    for (const char *params : {"activity=0", "port=139", "activity=1"}) {
        SCOPED_TRACE(params);
        mini_host::reset();
        int host = 0;
        auto *ctx = static_cast<smb_plugin_ctx *>(process_smb_init(4, params, &host, 0));
        const bool on = std::string(params) == "activity=1";
        EXPECT_EQ(ctx->activity, on ? 1u : 0u);
        EXPECT_EQ(ctx->conntable != nullptr, on);
        const auto &fields = mini_host::host().fields;
        ASSERT_EQ(fields.size(), on ? 6 + std::size(kActivityFields) : 6u);
        for (size_t i = 6; i < fields.size(); ++i) {
            const registered &r = kActivityFields[i - 6];
            EXPECT_EQ(fields[i].name, r.name);
            EXPECT_EQ(fields[i].type, r.type);
            EXPECT_EQ(fields[i].size, r.size);
            EXPECT_EQ(fields[i].default_value, std::vector<uint8_t>(r.default_size, 0)) << r.name;
        }
        process_smb_shutdown(ctx);
    }
}

TEST(ActivityParameter, OtherValuesEndTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    int host = 0;
    EXPECT_EXIT(process_smb_init(1, "activity=2", &host, 0), ::testing::ExitedWithCode(255),
                "activity must be 0 or 1.*Parsing smb parameters failed");
}

// A record with every counter set, in the version given.
smb_flow_data *record_with_activity(uint8_t version) {
    smb_flow_data *rec = frame_test::smb2_record();
    rec->version = version;
    smb_activity *a = smb_activity_of(rec);
    a->dialect = 0x0302;
    a->bytes_read = 0x100000000ull;
    a->reads = 3;
    a->errors = 2;
    a->last_error = 0xC0000022;
    a->counted = 1;
    a->renames = 1;
    a->rename_to = static_cast<uint8_t *>(calloc(SMB_NAME_SIZE, 1));
    a->rename_to[0] = 'x';
    a->latency_max_us = 70000;
    rec->security = 0x13;
    return rec;
}

std::string ascii_of(const std::vector<uint8_t> &utf16) {
    std::string s;
    for (size_t i = 0; i + 1 < utf16.size() && utf16[i]; i += 2)
        s += char(utf16[i]);
    return s;
}

uint64_t number_of(const std::vector<uint8_t> &bytes) {
    uint64_t v = 0;
    for (size_t i = bytes.size(); i-- > 0;)
        v = v << 8 | bytes[i];
    return v;
}

struct export_case {
    const char *field;
    bool valid;
    std::vector<uint8_t> binary;  // empty: not checked
    std::string text;             // through the text fill
};
void PrintTo(const export_case &c, std::ostream *os) {
    *os << c.field;
}

class ActivityExport : public ::testing::TestWithParam<export_case> {
  protected:
    void SetUp() override {
        mini_host::reset();
        smb_plugin_ctx ctx{};
        ctx.activity = 1;
        smb_register_fields(nullptr, 3, &ctx);
    }
};

TEST_P(ActivityExport, WritesTheValueAndItsText) {
    const export_case &c = GetParam();
    host_flow_record flow = flow_between(50000, 445, 1, 1);
    owned_slot slot(record_with_activity(SMB_VERSION_2));
    const mini_host::exported bin = mini_host::export_field(c.field, &flow, &slot.slot);
    EXPECT_EQ(bin.valid, c.valid);
    if (!c.valid) return;  // the host shows the field's default
    if (!c.binary.empty()) {
        ASSERT_EQ(bin.writes.size(), 1u);
        EXPECT_EQ(bin.writes[0].bytes, c.binary);
        EXPECT_EQ(bin.writes[0].b, 9u);  // the host's byte-order argument, passed through
    }
    const mini_host::exported txt = mini_host::export_field(c.field, &flow, &slot.slot, true);
    ASSERT_EQ(txt.writes.size(), 1u);
    const mini_host::write &w = txt.writes[0];
    EXPECT_EQ(w.writer == "txt_num" ? std::to_string(number_of(w.bytes)) : ascii_of(w.bytes),
              c.text);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Fields, ActivityExport, ::testing::Values(
    export_case{"SMB_DIALECT", true, {0x02, 0x03}, "3.0.2"},
    export_case{"SMB_BYTES_READ", true, {0, 0, 0, 0, 1, 0, 0, 0}, "4294967296"},
    export_case{"SMB_READS", true, {3, 0, 0, 0}, "3"},
    // A counter at zero is not valid: the host shows the field's default, zero as well.
    export_case{"SMB_WRITES", false, {}, ""},
    export_case{"SMB_LAST_ERROR", true, {0x22, 0, 0, 0xc0}, "0xc0000022"},
    export_case{"SMB_RENAME_TO", true, {}, "x"},
    export_case{"SMB_LATENCY_MAX_US", true, {0x70, 0x11, 0x01, 0}, "70000"},
    export_case{"SMB_SECURITY", true, {0x13}, "19"}));
// clang-format on

// Every dialect's text, handed over with its exact size; one the table does not know is
// written in hexadecimal.
TEST(ActivityDialect, TextsOfKnownAndOtherDialects) {
    mini_host::reset();
    smb_plugin_ctx ctx{};
    ctx.activity = 1;
    smb_register_fields(nullptr, 3, &ctx);
    const std::pair<uint16_t, std::string> cases[] = {{0x0202, "2.0.2"}, {0x0210, "2.1"},
                                                      {0x0300, "3.0"},   {0x0302, "3.0.2"},
                                                      {0x0311, "3.1.1"}, {0x02ff, "0x02ff"}};
    host_flow_record flow = flow_between(50000, 445, 1, 1);
    for (const auto &[dialect, text] : cases) {
        owned_slot slot(record_with_activity(SMB_VERSION_2));
        smb_activity_of(slot.rec())->dialect = dialect;
        const mini_host::exported txt =
            mini_host::export_field("SMB_DIALECT", &flow, &slot.slot, true);
        ASSERT_EQ(txt.writes.size(), 1u);
        EXPECT_EQ(ascii_of(txt.writes[0].bytes), text);
        EXPECT_EQ(txt.writes[0].bytes.size(), 2 * text.size()) << text;
    }
}

TEST(ActivityExport, DialectRenameTargetAndCountersAreValidOnlyWhenSeenAndSmb1HasNoFields) {
    mini_host::reset();
    smb_plugin_ctx ctx{};
    ctx.activity = 1;
    smb_register_fields(nullptr, 3, &ctx);
    host_flow_record flow = flow_between(50000, 445, 1, 1);
    owned_slot plain(frame_test::smb2_record());
    EXPECT_FALSE(mini_host::export_field("SMB_DIALECT", &flow, &plain.slot).valid);
    EXPECT_FALSE(mini_host::export_field("SMB_RENAME_TO", &flow, &plain.slot).valid);
    // Counters at zero fall to their default, zero (checked with the registrations above).
    EXPECT_FALSE(mini_host::export_field("SMB_ERRORS", &flow, &plain.slot).valid);
    EXPECT_FALSE(mini_host::export_field("SMB_SECURITY", &flow, &plain.slot).valid);
    plain.rec()->security = 1;
    EXPECT_TRUE(mini_host::export_field("SMB_SECURITY", &flow, &plain.slot).valid);
    owned_slot smb1(record_with_activity(SMB_VERSION_1));
    for (const registered &r : kActivityFields)
        EXPECT_FALSE(mini_host::export_field(r.name, &flow, &smb1.slot).valid) << r.name;
}

TEST(ActivityMerge, SumsCountersKeepsTheMaximumOrsFlagsAndTakesTheLastOfTheRest) {
    host_flow_record flow = flow_between(50000, 445, 1, 1);
    owned_slot flow_slot(record_with_activity(SMB_VERSION_2));
    owned_slot pkt_slot(frame_test::smb2_record());
    smb_activity *p = smb_activity_of(pkt_slot.rec());
    p->counted = 1;
    p->bytes_read = 5;
    p->reads = 1;
    p->errors = 1;
    p->last_error = 0xC0000034;
    p->latency_max_us = 10;
    p->latency_count = 1;
    pkt_slot.rec()->security = 0x04;
    host_packet pkt{};
    pkt.dst_port = 445;
    flow.dst_port = 445;
    process_smb_update(nullptr, &pkt, &flow, &pkt_slot.slot, &flow_slot.slot);
    const smb_activity &a = *flow_slot.rec()->activity;
    EXPECT_EQ(a.bytes_read, 0x100000005ull);
    EXPECT_EQ(a.reads, 4u);
    EXPECT_EQ(a.errors, 3u);
    EXPECT_EQ(a.last_error, 0xC0000034u);
    EXPECT_EQ(a.latency_max_us, 70000u);
    EXPECT_EQ(a.latency_count, 1u);
    EXPECT_EQ(flow_slot.rec()->security, 0x17);
    EXPECT_EQ(a.dialect, 0x0302);  // the packet saw none
    ASSERT_NE(a.rename_to, nullptr);
    EXPECT_EQ(a.rename_to[0], 'x');
    EXPECT_EQ(pkt_slot.rec()->activity, nullptr);
}

}  // namespace
