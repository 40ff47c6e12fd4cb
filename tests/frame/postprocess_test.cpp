// Post-processing: names, type, operation, delete state and parked command bits from the
// shared tree and file tables, looked up under the flow's client end.
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include "frame_util.h"
#include "smb_activity.h"
#include "smb_activity_table.h"
#include "smb_file_table.h"
#include "smb_tree_table.h"

namespace {

using frame_test::name_bytes;
using frame_test::owned_slot;

constexpr uint32_t kClient = 0x0a000001, kServer = 0x0a000002;
constexpr uint16_t kClientPort = 50000;
constexpr uint32_t kTree = 5;
constexpr uint64_t kFile = 0xf00d;
constexpr uint32_t kTreeConnect = SMB_CMD_BIT(SMB2_TREE_CONNECT), kRead = SMB_CMD_BIT(SMB2_READ),
                   kClose = SMB_CMD_BIT(SMB2_CLOSE), kCreate = SMB_CMD_CREATE | 0xff,
                   kSetInfo = SMB_CMD_SET_INFO | 0xff;

struct masks {
    uint32_t to_server = 0, to_client = 0;
};

// What the tables hold, what the flow's record holds before, and what it holds after.
struct pp_case {
    const char *what = "";
    const char *file = nullptr;  // null: no file record
    uint8_t name_empty = 0, file_type = 2, file_op = 0x01;
    masks file_masks{};
    uint8_t delete_flag = 0;
    const char *tree = nullptr;  // null: no tree record
    masks tree_masks{};
    bool from_server = false;  // the flow's first packet came from the server
    uint8_t is_response = 0, op = 0x3f;
    uint32_t cmd0 = 0xff, cmd1 = 0xff;
    const char *file_name = nullptr, *tree_name = nullptr;  // expected; null: none
    uint8_t op_after = 0x3f, type_after = 2;
    uint32_t cmd0_after = 0xff, cmd1_after = 0xff;
};
void PrintTo(const pp_case &c, std::ostream *os) {
    *os << c.what;
}

std::vector<uint8_t> bytes_of(const char *name) {
    return name ? std::vector<uint8_t>(name, name + SMB_NAME_SIZE) : std::vector<uint8_t>{};
}
std::vector<uint8_t> expected_name(const char *name) {
    return name ? name_bytes(name) : std::vector<uint8_t>{};
}

class Postprocess : public ::testing::Test {
  protected:
    void SetUp() override {
        ctx_.treetable = treetable_create(1024);
        ctx_.filetable = filetable_create(1024);
    }
    void TearDown() override {
        treetable_free(ctx_.treetable);
        filetable_free(ctx_.filetable);
    }

    void fill_tables(const pp_case &c) {
        if (c.file) {
            const uint32_t m[2] = {c.file_masks.to_server, c.file_masks.to_client};
            filetable_insert(ctx_.filetable, name_bytes(c.file).data(), c.name_empty, c.file_type,
                             c.file_op, m, kTree, kClient, kClientPort, kFile);
        }
        if (c.delete_flag)
            filetable_set_delete_flag(ctx_.filetable, kClient, kClientPort, kFile, c.delete_flag);
        if (c.tree) {
            const uint32_t m[2] = {c.tree_masks.to_server, c.tree_masks.to_client};
            treetable_insert(ctx_.treetable, name_bytes(c.tree).data(), m, kClient, kClientPort,
                             kTree);
        }
    }

    static host_flow_record flow(bool from_server) {
        host_flow_record f{};
        f.ip_version = 4;
        f.src_addr.v4 = from_server ? kServer : kClient;
        f.dst_addr.v4 = from_server ? kClient : kServer;
        f.src_port = from_server ? 445 : kClientPort;
        f.dst_port = from_server ? kClientPort : 445;
        return f;
    }

    static smb_flow_data *record(const pp_case &c) {
        smb_flow_data *rec = frame_test::smb2_record(c.cmd0, c.cmd1);
        rec->is_response = c.is_response;
        rec->op = c.op;
        rec->tree_id = kTree;
        rec->file_id = kFile;
        return rec;
    }

    int run(host_flow_record &f, owned_slot &slot) {
        return process_smb_postprocess(&ctx_, &f, &slot.slot);
    }

    smb_plugin_ctx ctx_{};
};

class PostprocessCases : public Postprocess, public ::testing::WithParamInterface<pp_case> {};

TEST_P(PostprocessCases, CompleteTheRecord) {
    const pp_case &c = GetParam();
    fill_tables(c);
    host_flow_record f = flow(c.from_server);
    owned_slot slot(record(c));
    EXPECT_EQ(run(f, slot), 0);
    const smb_flow_data &r = *slot.rec();
    EXPECT_EQ(bytes_of(r.file_name), expected_name(c.file_name));
    EXPECT_EQ(bytes_of(r.tree_name), expected_name(c.tree_name));
    EXPECT_NE(r.file_name ? r.file_name : "", r.tree_name);  // each name its own buffer
    EXPECT_EQ(r.op, c.op_after);
    EXPECT_EQ(r.file_type, c.type_after);
    EXPECT_EQ(r.commands[0], c.cmd0_after);
    EXPECT_EQ(r.commands[1], c.cmd1_after);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Tables, PostprocessCases, ::testing::Values(
    pp_case{.what = "names, type and parked masks", .file = "a.txt", .file_masks = {kRead, kClose},
            .tree = "\\\\srv\\share", .tree_masks = {0, kTreeConnect}, .file_name = "a.txt",
            .tree_name = "\\\\srv\\share", .cmd0_after = kRead | 0xff,
            .cmd1_after = kClose | kTreeConnect | 0xff},
    pp_case{.what = "response first: client is the destination, masks swap", .file = "a.txt",
            .file_masks = {kRead, kClose}, .from_server = true, .is_response = 1,
            .file_name = "a.txt", .cmd0_after = kClose | 0xff, .cmd1_after = kRead | 0xff},
    pp_case{.what = "never set counts as a response", .file = "a.txt", .from_server = true,
            .is_response = 0xff, .file_name = "a.txt"},
    pp_case{.what = "request flag on a flow from the server misses", .file = "a.txt",
            .tree = "share", .from_server = true, .type_after = 0},
    pp_case{.what = "share root takes the tree name as file name", .file = "", .name_empty = 1,
            .file_type = 1, .tree = "share", .file_name = "share", .tree_name = "share",
            .type_after = 1},
    pp_case{.what = "share root flag wins over a file buffer", .file = "stale", .name_empty = 1,
            .tree = "share", .file_name = "share", .tree_name = "share"},
    pp_case{.what = "empty names give none", .file = "", .tree = ""},
    pp_case{.what = "CREATE takes the file's code", .file = "a.txt", .file_op = 0x02,
            .cmd0 = kCreate, .file_name = "a.txt", .op_after = 0x02, .cmd0_after = kCreate},
    pp_case{.what = "CREATE takes the file's delete bit", .file = "a.txt", .file_op = 0x41,
            .cmd0 = kCreate, .file_name = "a.txt", .op_after = 0x41, .cmd0_after = kCreate},
    pp_case{.what = "failure bit stays", .file = "a.txt", .file_op = 0x02, .op = 0xbf,
            .cmd0 = kCreate, .file_name = "a.txt", .op_after = 0x82, .cmd0_after = kCreate},
    pp_case{.what = "known code kept, delete added", .file = "a.txt", .file_op = 0x42, .op = 0x01,
            .cmd0 = kCreate, .file_name = "a.txt", .op_after = 0x41, .cmd0_after = kCreate},
    pp_case{.what = "parked CREATE bit counts", .file = "a.txt", .file_op = 0x02,
            .file_masks = {SMB_CMD_CREATE, 0}, .file_name = "a.txt", .op_after = 0x02,
            .cmd0_after = kCreate},
    pp_case{.what = "CREATE only in word 1 does not count", .file = "a.txt", .file_op = 0x02,
            .cmd1 = kCreate, .file_name = "a.txt", .cmd1_after = kCreate},
    pp_case{.what = "SET_INFO takes a succeeded delete", .file = "a.txt",
            .delete_flag = SMB_DELETE_SUCCEEDED, .op = 0x01, .cmd0 = kSetInfo,
            .file_name = "a.txt", .op_after = 0x41, .cmd0_after = kSetInfo},
    pp_case{.what = "a failed delete is not a delete", .file = "a.txt",
            .delete_flag = SMB_DELETE_FAILED, .op = 0x01, .cmd0 = kSetInfo, .file_name = "a.txt",
            .op_after = 0x01, .cmd0_after = kSetInfo}));
// clang-format on

TEST_F(Postprocess, ParkedMasksAndDeleteFlagReachOneRecordOnly) {
    const pp_case c{.what = "",
                    .file = "a.txt",
                    .file_masks = {kRead, kClose},
                    .delete_flag = SMB_DELETE_SUCCEEDED,
                    .tree = "share",
                    .tree_masks = {0, kTreeConnect},
                    .op = 0x01,
                    .cmd0 = kSetInfo};
    fill_tables(c);
    host_flow_record f = flow(false);
    owned_slot first(record(c)), second(record(c));
    run(f, first);
    run(f, second);
    EXPECT_EQ(first.rec()->op, 0x41);
    EXPECT_EQ(first.rec()->commands[1], kClose | kTreeConnect | 0xff);
    EXPECT_EQ(second.rec()->op, 0x01);
    EXPECT_EQ(second.rec()->commands[0], kSetInfo);
    EXPECT_EQ(second.rec()->commands[1], 0xffu);
    EXPECT_NE(second.rec()->file_name, nullptr);  // names are not one-shot
    EXPECT_NE(second.rec()->tree_name, nullptr);
}

// Records that need nothing leave the tables' one-shot state where it is.
TEST_F(Postprocess, RecordsThatNeedNothingTouchNoTable) {
    const std::pair<const char *, void (*)(smb_flow_data &)> cases[] = {
        {"SMB1", [](smb_flow_data &r) { r.version = SMB_VERSION_1; }},
        {"no version", [](smb_flow_data &r) { r.version = SMB_VERSION_NONE; }},
        {"encrypted", [](smb_flow_data &r) { r.commands[0] |= SMB_CMD_TRANSFORM; }},
        {"no ids", [](smb_flow_data &r) { r.tree_id = r.file_id = 0; }},
        {"both names known",
         [](smb_flow_data &r) {
             r.tree_name = frame_test::name_buffer("mine");
             r.file_name = frame_test::name_buffer("mine.txt");
         }},
        {"file name known, op has delete", [](smb_flow_data &r) {
             r.file_name = frame_test::name_buffer("mine.txt");
             r.tree_id = 0;
             r.op = 0x41;
         }}};
    const pp_case c{.what = "",
                    .file = "a.txt",
                    .file_masks = {kRead, kClose},
                    .delete_flag = SMB_DELETE_SUCCEEDED,
                    .tree = "share",
                    .tree_masks = {kRead, kClose},
                    .cmd0 = kSetInfo};
    for (const auto &[what, shape] : cases) {
        SCOPED_TRACE(what);
        fill_tables(c);
        host_flow_record f = flow(false);
        owned_slot slot(record(c));
        shape(*slot.rec());
        const smb_flow_data before = *slot.rec();
        EXPECT_EQ(run(f, slot), 0);
        EXPECT_EQ(memcmp(&before, slot.rec(), sizeof before), 0);
        uint32_t file_masks[2] = {}, tree_masks[2] = {};
        filetable_get_file(ctx_.filetable, kClient, kClientPort, kFile, nullptr, nullptr,
                           file_masks, nullptr);
        treetable_get_tree(ctx_.treetable, kClient, kClientPort, kTree, tree_masks);
        EXPECT_EQ(file_masks[0], kRead);
        EXPECT_EQ(tree_masks[1], kClose);
        EXPECT_EQ(filetable_get_delete_flag(ctx_.filetable, kClient, kClientPort, kFile, 0), 1);
        TearDown();
        SetUp();
    }
    host_flow_record f = flow(false);
    host_slot empty = nullptr;
    EXPECT_EQ(process_smb_postprocess(&ctx_, &f, &empty), 0);
}

// An IPv6 client is keyed by its last 32 bits; a name whose only non-zero byte is its second
// (U+4E00) is a name.
TEST_F(Postprocess, Ipv6ClientIsKeyedByItsLastThirtyTwoBits) {
    const uint8_t tail[4] = {0x0a, 0x00, 0x00, 0x01};
    uint32_t addr32;
    memcpy(&addr32, tail, 4);
    std::vector<uint8_t> name(SMB_NAME_SIZE, 0);
    name[1] = 0x4e;
    filetable_insert(ctx_.filetable, name.data(), 0, 2, 1, nullptr, 0, addr32, kClientPort, kFile);
    host_flow_record f = flow(false);
    f.ip_version = 6;
    inet_pton(AF_INET6, "2001:db8:1:2:3:4:a00:1", f.src_addr.v6);
    owned_slot slot(record(pp_case{}));
    run(f, slot);
    EXPECT_EQ(bytes_of(slot.rec()->file_name), name);
}

TEST_F(Postprocess, NamesAreCopiesThatOutliveTheTables) {
    fill_tables(pp_case{.file = "a.txt", .tree = "share"});
    host_flow_record f = flow(false);
    owned_slot slot(record(pp_case{}));
    run(f, slot);
    TearDown();  // frees the table records the names came from
    SetUp();
    EXPECT_EQ(bytes_of(slot.rec()->file_name), name_bytes("a.txt"));
    EXPECT_EQ(bytes_of(slot.rec()->tree_name), name_bytes("share"));
}

// With activity=1, what the connection's NEGOTIATE and SMB1 messages told (the dialect, the
// server's signing requirement, SMB1 seen) goes to every SMB2 record of the connection,
// whichever end the flow started from; an SMB1 record gets none of it.
TEST_F(Postprocess, ConnectionFactsReachEverySmb2RecordOfTheConnection) {
    ctx_.activity = 1;
    ctx_.port = 445;
    ctx_.conntable = conntable_create(1024);
    conntable_note(ctx_.conntable, kClient, kClientPort, 0x0311,
                   SMB_SEC_SIGNING_REQUIRED | SMB_SEC_SMB1);
    for (const bool from_server : {false, true}) {
        SCOPED_TRACE(from_server ? "flow from the server" : "flow from the client");
        host_flow_record f = flow(from_server);
        owned_slot slot(record(pp_case{.cmd0 = kRead | 0xff, .cmd1 = kRead | 0xff}));
        run(f, slot);
        EXPECT_EQ(slot.rec()->security, SMB_SEC_SIGNING_REQUIRED | SMB_SEC_SMB1);
        ASSERT_NE(slot.rec()->activity, nullptr);
        EXPECT_EQ(slot.rec()->activity->dialect, 0x0311);
    }
    host_flow_record f = flow(false);
    owned_slot smb1(record(pp_case{}));
    smb1.rec()->version = SMB_VERSION_1;
    run(f, smb1);
    EXPECT_EQ(smb1.rec()->security, 0);
    EXPECT_EQ(smb1.rec()->activity, nullptr);
    conntable_free(ctx_.conntable);
    ctx_.conntable = nullptr;
}

}  // namespace
