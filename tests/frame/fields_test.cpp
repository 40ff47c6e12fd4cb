// The six exported fields: which command word goes out as request and response, normalisation
// of file type and operation, names, empty slots, lengths and registration.
#include <gtest/gtest.h>

#include <optional>

#include "fake_host.h"
#include "frame_util.h"
#include "smb_fields.h"

namespace {

using frame_test::flow_between;
using frame_test::owned_slot;
using frame_test::u32_of;

class Fields : public ::testing::Test {
  protected:
    void SetUp() override {
        fake_host::reset();
        smb_register_fields(&host_handle_, 3, &ctx_);
    }
    int host_handle_ = 0;
    smb_plugin_ctx ctx_{};
};

// The exported value of a numeric field, or nullopt when the host falls back to the default.
std::optional<uint32_t> number_of(const std::string &name, host_flow_record *flow,
                                  host_slot *slot) {
    fake_host::exported e = fake_host::export_field(name, flow, slot);
    if (!e.valid) return std::nullopt;
    EXPECT_LE(e.writes.size(), 1u);
    if (e.writes.empty()) return std::nullopt;
    std::vector<uint8_t> bytes = e.writes[0].bytes;
    bytes.resize(4, 0);
    return u32_of(bytes);
}

struct direction_case {
    const char *what;
    uint16_t src_port, dst_port;
    uint64_t packets0, packets1;
    uint16_t dir;
    bool request_valid, response_valid;
    std::optional<uint32_t> request, response;
};

void PrintTo(const direction_case &c, std::ostream *os) {
    *os << c.what;
}

class CommandDirection : public Fields, public ::testing::WithParamInterface<direction_case> {};

TEST_P(CommandDirection, ChoosesTheWordByPortsAndDirection) {
    const direction_case &c = GetParam();
    host_flow_record flow = flow_between(c.src_port, c.dst_port, c.packets0, c.packets1, c.dir);
    owned_slot slot(frame_test::smb2_record(0x000020ff, 0x000060ff));
    EXPECT_EQ(fake_host::export_field("SMB_CMD_REQUEST", &flow, &slot.slot).valid, c.request_valid);
    EXPECT_EQ(fake_host::export_field("SMB_CMD_RESPONSE", &flow, &slot.slot).valid,
              c.response_valid);
    EXPECT_EQ(number_of("SMB_CMD_REQUEST", &flow, &slot.slot), c.request);
    EXPECT_EQ(number_of("SMB_CMD_RESPONSE", &flow, &slot.slot), c.response);
}

INSTANTIATE_TEST_SUITE_P(
    Flows, CommandDirection,
    ::testing::Values(
        direction_case{"two-way client to server", 50000, 445, 3, 2, 0, true, true, 0x20ff, 0x60ff},
        direction_case{"two-way server first", 445, 50000, 3, 2, 0, true, true, 0x60ff, 0x20ff},
        direction_case{"two-way equal ports", 445, 445, 3, 2, 0, true, true, 0x60ff, 0x20ff},
        direction_case{"two-way direction bit ignored", 50000, 445, 3, 2, 1, true, true, 0x20ff,
                       0x60ff},
        direction_case{"one-way requests, word 0", 50000, 445, 4, 0, 0, true, false, 0x20ff,
                       std::nullopt},
        direction_case{"one-way requests, word 1", 50000, 445, 4, 0, 1, true, false, 0x60ff,
                       std::nullopt},
        direction_case{"one-way responses, word 0", 445, 50000, 4, 0, 0, false, true, std::nullopt,
                       0x20ff},
        direction_case{"one-way responses, word 1", 445, 50000, 4, 0, 1, false, true, std::nullopt,
                       0x60ff},
        direction_case{"one-way equal ports writes nothing", 445, 445, 4, 0, 0, true, true,
                       std::nullopt, std::nullopt}),
    [](const auto &info) {
        std::string name = info.param.what;
        for (char &ch : name)
            if (!isalnum(static_cast<unsigned char>(ch))) ch = '_';
        return name;
    });

TEST_F(Fields, CommandWordsOfSmb1GoOutAsTheyAreAndSmb2GetTheirLowByteBack) {
    host_flow_record flow = flow_between(50000, 445, 1, 1);
    owned_slot smb1(smb_record_new());
    smb1.rec()->version = SMB_VERSION_1;
    smb1.rec()->commands[0] = 0x72;
    EXPECT_EQ(number_of("SMB_CMD_REQUEST", &flow, &smb1.slot), 0x72u);

    owned_slot smb2(frame_test::smb2_record(0x00002000, 0x00000300));
    EXPECT_EQ(number_of("SMB_CMD_REQUEST", &flow, &smb2.slot), 0x000020ffu);
    EXPECT_EQ(number_of("SMB_CMD_RESPONSE", &flow, &smb2.slot), 0x000003ffu);
    EXPECT_EQ(smb2.rec()->commands[0], 0x000020ffu);  // fixed in the record itself
    EXPECT_EQ(number_of("SMB_CMD_REQUEST", &flow, &smb2.slot), 0x000020ffu);
}

TEST_F(Fields, CommandFieldsNeedAnSmbVersion) {
    host_flow_record flow = flow_between(50000, 445, 1, 1);
    owned_slot none(smb_record_new());
    EXPECT_FALSE(fake_host::export_field("SMB_CMD_REQUEST", &flow, &none.slot).valid);
    EXPECT_FALSE(fake_host::export_field("SMB_CMD_RESPONSE", &flow, &none.slot).valid);
}

TEST_F(Fields, WritersReceiveTheHostsArguments) {
    host_flow_record flow = flow_between(50000, 445, 1, 1);
    owned_slot slot(frame_test::smb2_record(0x20ff, 0x20ff));
    slot.rec()->op = 2;
    slot.rec()->file_type = 2;
    slot.rec()->tree_name = frame_test::name_buffer("share");
    struct expectation {
        const char *field;
        bool text;
        const char *writer;
        uint32_t size, b;
    };
    const expectation cases[] = {
        {"SMB_CMD_REQUEST", false, "num", 4, 9}, {"SMB_CMD_REQUEST", true, "txt_num", 4, 9},
        {"SMB_OP", false, "num", 1, 1},          {"SMB_OP", true, "txt_num", 1, 9},
        {"SMB_FILE_TYPE", false, "num", 1, 1},   {"SMB_FILE_TYPE", true, "txt_num", 1, 9},
        {"SMB_TREE", false, "array", 128, 0},    {"SMB_TREE", true, "txt_string", 128, 0},
    };
    for (const expectation &c : cases) {
        SCOPED_TRACE(std::string(c.field) + (c.text ? " text" : " binary"));
        fake_host::exported e = fake_host::export_field(c.field, &flow, &slot.slot, c.text);
        ASSERT_EQ(e.writes.size(), 1u);
        EXPECT_EQ(e.writes[0].writer, c.writer);
        EXPECT_EQ(e.writes[0].output, &e);
        EXPECT_EQ(e.writes[0].size, c.size);
        EXPECT_EQ(e.writes[0].a, 7u);
        EXPECT_EQ(e.writes[0].b, c.b);
    }
}

struct byte_case {
    uint8_t version;
    uint8_t value;
    uint8_t exported;
};

TEST_F(Fields, OperationIsNormalisedToTheKnownRanges) {
    const byte_case cases[] = {
        {2, 0x00, 0x00}, {2, 0x03, 0x03}, {2, 0x04, 0x3f}, {2, 0x3f, 0x3f}, {2, 0x3e, 0x3f},
        {2, 0x40, 0x40}, {2, 0x43, 0x43}, {2, 0x44, 0x3f}, {2, 0x7e, 0x3f}, {2, 0x7f, 0x7f},
        {2, 0x81, 0x81}, {2, 0x85, 0x85}, {2, 0x86, 0x3f}, {2, 0xbf, 0x3f}, {2, 0xc0, 0xc0},
        {2, 0xc4, 0xc4}, {2, 0xc5, 0xc5}, {2, 0xc6, 0x3f}, {2, 0xff, 0x3f}, {1, 0x02, 0x3f},
        {0, 0x02, 0x3f},
    };
    host_flow_record flow = flow_between(50000, 445, 1, 1);
    for (const byte_case &c : cases) {
        SCOPED_TRACE(testing::Message()
                     << "version " << int(c.version) << " op 0x" << std::hex << int(c.value));
        owned_slot slot(smb_record_new());
        slot.rec()->version = c.version;
        slot.rec()->op = c.value;
        EXPECT_EQ(number_of("SMB_OP", &flow, &slot.slot), c.exported);
        EXPECT_EQ(slot.rec()->op, c.exported);  // normalised in place, so a re-export agrees
        EXPECT_EQ(number_of("SMB_OP", &flow, &slot.slot), c.exported);
    }
}

TEST_F(Fields, FileTypeIsDirectoryFileOrUnknown) {
    const byte_case cases[] = {
        {2, 1, 1}, {2, 2, 2}, {2, 0, 0xff}, {2, 3, 0xff}, {2, 0xff, 0xff}, {1, 2, 0xff},
    };
    host_flow_record flow = flow_between(50000, 445, 1, 1);
    for (const byte_case &c : cases) {
        SCOPED_TRACE(testing::Message()
                     << "version " << int(c.version) << " type " << int(c.value));
        owned_slot slot(smb_record_new());
        slot.rec()->version = c.version;
        slot.rec()->file_type = c.value;
        EXPECT_EQ(number_of("SMB_FILE_TYPE", &flow, &slot.slot), c.exported);
    }
}

TEST_F(Fields, NamesGoOutWholeForSmb2Only) {
    host_flow_record flow = flow_between(50000, 445, 1, 1);
    owned_slot slot(frame_test::smb2_record());
    slot.rec()->file_name = frame_test::name_buffer("a.txt");
    slot.rec()->file_name[127] = 'z';  // bytes behind the text are handed over too

    EXPECT_FALSE(fake_host::export_field("SMB_TREE", &flow, &slot.slot).valid);
    fake_host::exported file = fake_host::export_field("SMB_FILE_NAME", &flow, &slot.slot);
    ASSERT_TRUE(file.valid);
    EXPECT_EQ(file.length, 128);
    ASSERT_EQ(file.writes.size(), 1u);
    EXPECT_EQ(file.writes[0].address, slot.rec()->file_name);
    EXPECT_EQ(file.writes[0].bytes[0], 'a');
    EXPECT_EQ(file.writes[0].bytes[127], 'z');

    slot.rec()->version = SMB_VERSION_1;
    EXPECT_FALSE(fake_host::export_field("SMB_FILE_NAME", &flow, &slot.slot).valid);
}

TEST_F(Fields, Smb1RecordExportsOnlyMarkersBesideItsCommand) {
    host_flow_record flow = flow_between(50000, 445, 1, 1);
    owned_slot slot(smb_record_new());
    slot.rec()->version = SMB_VERSION_1;
    slot.rec()->file_type = 2;
    slot.rec()->op = 1;
    EXPECT_EQ(number_of("SMB_OP", &flow, &slot.slot), 0x3fu);
    EXPECT_EQ(number_of("SMB_FILE_TYPE", &flow, &slot.slot), 0xffu);
    EXPECT_FALSE(fake_host::export_field("SMB_TREE", &flow, &slot.slot).valid);
    EXPECT_FALSE(fake_host::export_field("SMB_FILE_NAME", &flow, &slot.slot).valid);
}

TEST_F(Fields, EmptySlotLeavesEveryFieldToItsDefault) {
    host_flow_record flow = flow_between(50000, 445, 1, 1);
    host_slot empty = nullptr;
    for (const fake_host::field &f : fake_host::host().fields) {
        SCOPED_TRACE(f.name);
        EXPECT_EQ(f.validity(nullptr, &flow, &empty), 0);
        EXPECT_EQ(f.length(nullptr, &flow, &empty), 0);
        f.fill(nullptr, &flow, &empty, nullptr, 0, 0);
        f.fill_txt(nullptr, &flow, &empty, nullptr, 0, 0);
    }
    EXPECT_TRUE(fake_host::host().writes.empty());
}

TEST_F(Fields, LengthsWithARecord) {
    host_flow_record flow = flow_between(50000, 445, 1, 1);
    owned_slot slot(frame_test::smb2_record());
    const std::pair<const char *, int> expected[] = {
        {"SMB_CMD_REQUEST", 4}, {"SMB_CMD_RESPONSE", 4}, {"SMB_TREE", 128},
        {"SMB_FILE_TYPE", 1},   {"SMB_FILE_NAME", 128},  {"SMB_OP", 1},
    };
    for (const auto &[name, length] : expected)
        EXPECT_EQ(fake_host::export_field(name, &flow, &slot.slot).length, length) << name;
}

TEST_F(Fields, RegistrationOrderTypesAndDefaults) {
    const auto &h = fake_host::host();
    const std::vector<std::string> calls = {
        "corvane_getter_add SMB_CMD_REQUEST",
        "corvane_getter_add SMB_CMD_RESPONSE",
        "corvane_getter_add SMB_TREE",
        "corvane_getter_add SMB_FILE_TYPE",
        "corvane_getter_add SMB_FILE_NAME",
        "corvane_getter_add SMB_OP",
        "corvane_getter_set_default SMB_CMD_REQUEST",
        "corvane_getter_set_default SMB_CMD_RESPONSE",
        "corvane_getter_set_default SMB_FILE_TYPE",
        "corvane_getter_set_default SMB_OP",
    };
    EXPECT_EQ(h.calls, calls);

    struct expected_field {
        uint32_t type, size;
        std::vector<uint8_t> default_value;
    };
    const expected_field expected[] = {
        {1, 4, {0xff, 0, 0, 0}},
        {1, 4, {0xff, 0, 0, 0}},
        {8, 128, {}},
        {1, 1, {0xff}},
        {8, 128, {}},
        {1, 1, {0x3f}},
    };
    ASSERT_EQ(h.fields.size(), 6u);
    for (size_t i = 0; i < 6; ++i) {
        const fake_host::field &f = h.fields[i];
        SCOPED_TRACE(f.name);
        EXPECT_EQ(f.host, &host_handle_);
        EXPECT_EQ(f.plugin_id, 3u);
        EXPECT_EQ(f.all_ones, 0xffffffffu);
        EXPECT_EQ(f.ctx, &ctx_);
        EXPECT_EQ(f.type, expected[i].type);
        EXPECT_EQ(f.size, expected[i].size);
        EXPECT_EQ(f.default_value, expected[i].default_value);
    }
    EXPECT_EQ(h.fields[0].validity, &validity_cmd_request);
    EXPECT_EQ(h.fields[1].fill_txt, &value_fill_cmd_response_txt);
    EXPECT_EQ(h.fields[5].length, &op_length);
}

}  // namespace
