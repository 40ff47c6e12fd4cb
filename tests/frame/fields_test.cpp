// The six exported fields: which command word goes out as request and response, normalisation
// of file type and operation, names, empty slots and lengths.
#include <gtest/gtest.h>

#include <optional>

#include "mini_host.h"
#include "frame_util.h"
#include "smb_fields.h"

namespace {

using frame_test::flow_between;
using frame_test::owned_slot;

class Fields : public ::testing::Test {
  protected:
    void SetUp() override {
        mini_host::reset();
        smb_register_fields(nullptr, 3, nullptr);
    }
    const host_flow_record two_way_ = flow_between(50000, 445, 1, 1);
};

// The exported value of a numeric field, or nullopt when nothing is written (the host then
// exports the default).
std::optional<uint32_t> number_of(const std::string &name, host_flow_record flow, host_slot *slot) {
    mini_host::exported e = mini_host::export_field(name, &flow, slot);
    if (!e.valid || e.writes.empty()) return std::nullopt;
    EXPECT_EQ(e.writes.size(), 1u);
    std::vector<uint8_t> bytes = e.writes[0].bytes;
    bytes.resize(4, 0);
    return frame_test::u32_of(bytes);
}

struct direction_case {
    const char *what;
    uint16_t src_port, dst_port;
    uint64_t packets1;  // 0: a one-way flow
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
    host_flow_record flow = flow_between(c.src_port, c.dst_port, 3, c.packets1, c.dir);
    owned_slot slot(frame_test::smb2_record(0x000020ff, 0x000060ff));
    EXPECT_EQ(mini_host::export_field("SMB_CMD_REQUEST", &flow, &slot.slot).valid, c.request_valid);
    EXPECT_EQ(mini_host::export_field("SMB_CMD_RESPONSE", &flow, &slot.slot).valid,
              c.response_valid);
    EXPECT_EQ(number_of("SMB_CMD_REQUEST", flow, &slot.slot), c.request);
    EXPECT_EQ(number_of("SMB_CMD_RESPONSE", flow, &slot.slot), c.response);
}

constexpr auto kNone = std::nullopt;

INSTANTIATE_TEST_SUITE_P(
    Flows, CommandDirection,
    ::testing::Values(
        direction_case{"two-way from the client", 50000, 445, 2, 0, true, true, 0x20ff, 0x60ff},
        direction_case{"two-way from the server", 445, 50000, 2, 0, true, true, 0x60ff, 0x20ff},
        direction_case{"two-way equal ports", 445, 445, 2, 0, true, true, 0x60ff, 0x20ff},
        direction_case{"two-way ignores the direction bit", 50000, 445, 2, 1, true, true, 0x20ff,
                       0x60ff},
        direction_case{"one-way requests word 0", 50000, 445, 0, 0, true, false, 0x20ff, kNone},
        direction_case{"one-way requests word 1", 50000, 445, 0, 1, true, false, 0x60ff, kNone},
        direction_case{"one-way responses word 0", 445, 50000, 0, 0, false, true, kNone, 0x20ff},
        direction_case{"one-way responses word 1", 445, 50000, 0, 1, false, true, kNone, 0x60ff},
        direction_case{"one-way equal ports writes nothing", 445, 445, 0, 0, true, true, kNone,
                       kNone}));

TEST_F(Fields, CommandWordsBySmbVersion) {
    owned_slot smb1(smb_record_new()), smb2(frame_test::smb2_record(0x00002000, 0x00000300)),
        none(smb_record_new());
    smb1.rec()->version = SMB_VERSION_1;
    smb1.rec()->commands[0] = 0x72;
    EXPECT_EQ(number_of("SMB_CMD_REQUEST", two_way_, &smb1.slot), 0x72u);  // as it is

    EXPECT_EQ(number_of("SMB_CMD_REQUEST", two_way_, &smb2.slot), 0x000020ffu);
    EXPECT_EQ(number_of("SMB_CMD_RESPONSE", two_way_, &smb2.slot), 0x000003ffu);
    EXPECT_EQ(smb2.rec()->commands[0], 0x000020ffu);  // fixed in the record itself

    EXPECT_EQ(number_of("SMB_CMD_REQUEST", two_way_, &none.slot), kNone);
    EXPECT_EQ(number_of("SMB_CMD_RESPONSE", two_way_, &none.slot), kNone);
}

TEST_F(Fields, OperationAndFileTypeAreNormalisedInPlace) {
    struct byte_case {
        const char *field;
        uint8_t version, value, exported;
    };
    const byte_case cases[] = {
        {"SMB_OP", 2, 0x00, 0x00},     {"SMB_OP", 2, 0x03, 0x03},     {"SMB_OP", 2, 0x04, 0x3f},
        {"SMB_OP", 2, 0x3f, 0x3f},     {"SMB_OP", 2, 0x40, 0x40},     {"SMB_OP", 2, 0x43, 0x43},
        {"SMB_OP", 2, 0x44, 0x3f},     {"SMB_OP", 2, 0x7e, 0x3f},     {"SMB_OP", 2, 0x7f, 0x7f},
        {"SMB_OP", 2, 0x81, 0x81},     {"SMB_OP", 2, 0x85, 0x85},     {"SMB_OP", 2, 0x86, 0x3f},
        {"SMB_OP", 2, 0xbf, 0x3f},     {"SMB_OP", 2, 0xc0, 0xc0},     {"SMB_OP", 2, 0xc4, 0xc4},
        {"SMB_OP", 2, 0xc5, 0xc5},     {"SMB_OP", 2, 0xc6, 0x3f},     {"SMB_OP", 1, 0x02, 0x3f},
        {"SMB_OP", 0, 0x02, 0x3f},     {"SMB_FILE_TYPE", 2, 1, 1},    {"SMB_FILE_TYPE", 2, 2, 2},
        {"SMB_FILE_TYPE", 2, 0, 0xff}, {"SMB_FILE_TYPE", 2, 3, 0xff}, {"SMB_FILE_TYPE", 1, 2, 0xff},
    };
    for (const byte_case &c : cases) {
        SCOPED_TRACE(testing::Message()
                     << c.field << " version " << int(c.version) << " value " << int(c.value));
        owned_slot slot(smb_record_new());
        slot.rec()->version = c.version;
        uint8_t &byte = std::string(c.field) == "SMB_OP" ? slot.rec()->op : slot.rec()->file_type;
        byte = c.value;
        EXPECT_EQ(number_of(c.field, two_way_, &slot.slot), c.exported);
        EXPECT_EQ(byte, c.exported);  // so a second export agrees
    }
}

TEST_F(Fields, NamesAreValidForSmb2Only) {
    owned_slot slot(frame_test::smb2_record());
    slot.rec()->file_name = frame_test::name_buffer("a.txt");
    host_flow_record flow = two_way_;
    EXPECT_FALSE(mini_host::export_field("SMB_TREE", &flow, &slot.slot).valid);
    EXPECT_TRUE(mini_host::export_field("SMB_FILE_NAME", &flow, &slot.slot).valid);
    slot.rec()->version = SMB_VERSION_1;
    EXPECT_FALSE(mini_host::export_field("SMB_FILE_NAME", &flow, &slot.slot).valid);
}

}  // namespace
