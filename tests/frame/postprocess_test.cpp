// Post-processing: names, type, operation, delete state and parked command bits from the
// shared tree and file tables, looked up under the flow's client end.
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include "frame_util.h"
#include "smb_file_table.h"
#include "smb_tree_table.h"

namespace {

using frame_test::name_bytes;
using frame_test::owned_slot;

constexpr uint32_t kClient = 0x0a000001;
constexpr uint32_t kServer = 0x0a000002;
constexpr uint16_t kClientPort = 50000;
constexpr uint32_t kTree = 5;
constexpr uint64_t kFile = 0xf00d;
constexpr uint32_t kTreeConnect = SMB_CMD_BIT(SMB2_TREE_CONNECT);
constexpr uint32_t kRead = SMB_CMD_BIT(SMB2_READ);
constexpr uint32_t kClose = SMB_CMD_BIT(SMB2_CLOSE);

std::vector<uint8_t> bytes_of(const char *name) {
    return name ? std::vector<uint8_t>(name, name + SMB_NAME_SIZE) : std::vector<uint8_t>{};
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
    // Table-driven cases start each from empty tables: an insert never replaces its own key.
    void reset_tables() {
        TearDown();
        SetUp();
    }

    // A flow from the client to the server unless the server sent its first packet.
    static host_flow_record flow(bool from_server = false) {
        host_flow_record f{};
        f.ip_version = 4;
        f.src_addr.v4 = from_server ? kServer : kClient;
        f.dst_addr.v4 = from_server ? kClient : kServer;
        f.src_port = from_server ? 445 : kClientPort;
        f.dst_port = from_server ? kClientPort : 445;
        f.dir_counters[0].packets = f.dir_counters[1].packets = 1;
        return f;
    }

    static smb_flow_data *record(uint8_t is_response, uint32_t cmd0 = 0xff, uint32_t cmd1 = 0xff) {
        smb_flow_data *rec = frame_test::smb2_record(cmd0, cmd1);
        rec->is_response = is_response;
        rec->tree_id = kTree;
        rec->file_id = kFile;
        return rec;
    }

    void add_file(const std::string &name, uint8_t name_empty, uint8_t type, uint8_t op,
                  const uint32_t *masks = nullptr) {
        std::vector<uint8_t> bytes = name_bytes(name);
        filetable_insert(ctx_.filetable, bytes.data(), name_empty, type, op, masks, kTree, kClient,
                         kClientPort, kFile);
    }

    void add_tree(const std::string &name, const uint32_t *masks = nullptr) {
        std::vector<uint8_t> bytes = name_bytes(name);
        treetable_insert(ctx_.treetable, bytes.data(), masks, kClient, kClientPort, kTree);
    }

    int run(host_flow_record &f, owned_slot &slot) {
        return process_smb_postprocess(&ctx_, &f, &slot.slot);
    }

    // The masks still parked for the tree and the file (taking them out).
    std::pair<uint32_t, uint32_t> parked_file_masks() {
        uint32_t masks[2] = {0, 0};
        filetable_get_file(ctx_.filetable, kClient, kClientPort, kFile, nullptr, nullptr, masks,
                           nullptr);
        return {masks[0], masks[1]};
    }
    std::pair<uint32_t, uint32_t> parked_tree_masks() {
        uint32_t masks[2] = {0, 0};
        treetable_get_tree(ctx_.treetable, kClient, kClientPort, kTree, masks);
        return {masks[0], masks[1]};
    }

    smb_plugin_ctx ctx_{};
};

TEST_F(Postprocess, CompletesNamesTypeAndCommandsFromTheTables) {
    const uint32_t file_masks[2] = {kRead, kClose};
    const uint32_t tree_masks[2] = {0, kTreeConnect};
    add_file("a.txt", 0, 2, 0x01, file_masks);
    add_tree("\\\\srv\\share", tree_masks);
    host_flow_record f = flow();
    owned_slot slot(record(0));

    EXPECT_EQ(run(f, slot), 0);
    const smb_flow_data &r = *slot.rec();
    EXPECT_EQ(bytes_of(r.file_name), name_bytes("a.txt"));
    EXPECT_EQ(bytes_of(r.tree_name), name_bytes("\\\\srv\\share"));
    EXPECT_EQ(r.file_type, 2);
    EXPECT_EQ(r.op, 0x3f);  // no CREATE in this flow: the operation is not taken over
    EXPECT_EQ(r.commands[0], kRead | 0xff);
    EXPECT_EQ(r.commands[1], kClose | kTreeConnect | 0xff);
}

TEST_F(Postprocess, ParkedMasksReachOneRecordOnly) {
    const uint32_t file_masks[2] = {kRead, kClose};
    const uint32_t tree_masks[2] = {0, kTreeConnect};
    add_file("a.txt", 0, 2, 0x01, file_masks);
    add_tree("share", tree_masks);
    host_flow_record f = flow();
    owned_slot first(record(0)), second(record(0));
    run(f, first);
    run(f, second);
    EXPECT_EQ(second.rec()->commands[0], 0xffu);
    EXPECT_EQ(second.rec()->commands[1], 0xffu);
    EXPECT_NE(second.rec()->file_name, nullptr);  // names are not one-shot
    EXPECT_NE(second.rec()->tree_name, nullptr);
}

TEST_F(Postprocess, ClientEndFollowsTheFirstRecordsDirection) {
    struct client_case {
        const char *what;
        bool flow_from_server;
        uint8_t is_response;
        bool found;
        uint32_t read_in_word;  // the word that receives the client's READ mask
    };
    const client_case cases[] = {
        {"request first, client is the source", false, 0, true, 0},
        {"response first, client is the destination", true, 1, true, 1},
        {"never set counts as a response", true, 0xff, true, 1},
        {"request flag on a flow from the server", true, 0, false, 0},
        {"response flag on a flow from the client", false, 1, false, 0},
    };
    for (const client_case &c : cases) {
        SCOPED_TRACE(c.what);
        const uint32_t masks[2] = {kRead, 0};
        add_file("a.txt", 0, 2, 0x01, masks);
        host_flow_record f = flow(c.flow_from_server);
        owned_slot slot(record(c.is_response));
        run(f, slot);
        EXPECT_EQ(slot.rec()->file_name != nullptr, c.found);
        if (c.found) {
            EXPECT_EQ(slot.rec()->commands[c.read_in_word], kRead | 0xff);
        }
        reset_tables();
    }
}

TEST_F(Postprocess, Ipv6ClientIsKeyedByItsLastThirtyTwoBits) {
    const uint8_t tail[4] = {0x0a, 0x00, 0x00, 0x01};
    uint32_t addr32;
    memcpy(&addr32, tail, 4);
    std::vector<uint8_t> name = name_bytes("v6.txt");
    filetable_insert(ctx_.filetable, name.data(), 0, 2, 1, nullptr, 0, addr32, kClientPort, kFile);
    host_flow_record f = flow();
    f.ip_version = 6;
    inet_pton(AF_INET6, "2001:db8:1:2:3:4:a00:1", f.src_addr.v6);
    owned_slot slot(record(0));
    run(f, slot);
    EXPECT_EQ(bytes_of(slot.rec()->file_name), name);
}

TEST_F(Postprocess, ShareRootCreateNamesTheShareAsFile) {
    add_file("", 1, 1, 0x01);
    add_tree("share");
    host_flow_record f = flow();
    owned_slot slot(record(0));
    run(f, slot);
    EXPECT_EQ(bytes_of(slot.rec()->tree_name), name_bytes("share"));
    EXPECT_EQ(bytes_of(slot.rec()->file_name), name_bytes("share"));
    EXPECT_NE(slot.rec()->tree_name, slot.rec()->file_name);  // two buffers, each owned
    EXPECT_EQ(slot.rec()->file_type, 1);
}

TEST_F(Postprocess, ShareRootFlagTakesTheTreeNameOverTheFileBuffer) {
    add_file("stale", 1, 1, 0x01);
    add_tree("share");
    host_flow_record f = flow();
    owned_slot slot(record(0));
    run(f, slot);
    EXPECT_EQ(bytes_of(slot.rec()->file_name), name_bytes("share"));
}

TEST_F(Postprocess, EmptyNamesGiveNoName) {
    add_file("", 0, 2, 0x01);  // known file, name not captured
    add_tree("");
    host_flow_record f = flow();
    owned_slot slot(record(0));
    run(f, slot);
    EXPECT_EQ(slot.rec()->file_name, nullptr);
    EXPECT_EQ(slot.rec()->tree_name, nullptr);
    EXPECT_EQ(slot.rec()->file_type, 2);
}

TEST_F(Postprocess, SecondNameByteAloneIsAName) {
    std::vector<uint8_t> name(SMB_NAME_SIZE, 0);
    name[1] = 0x4e;  // U+4E00, one CJK character
    filetable_insert(ctx_.filetable, name.data(), 0, 2, 1, nullptr, 0, kClient, kClientPort, kFile);
    host_flow_record f = flow();
    owned_slot slot(record(0));
    run(f, slot);
    EXPECT_EQ(bytes_of(slot.rec()->file_name), name);
}

TEST_F(Postprocess, CreateTakesTheFilesOperation) {
    struct op_case {
        const char *what;
        uint8_t record_op;
        uint8_t file_op;
        uint32_t cmd0, cmd1;
        uint8_t is_response;
        uint8_t expected;
    };
    const uint32_t create = SMB_CMD_CREATE | 0xff;
    const op_case cases[] = {
        {"unknown code takes the file's", 0x3f, 0x02, create, 0xff, 0, 0x02},
        {"file's delete bit comes along", 0x3f, 0x41, create, 0xff, 0, 0x41},
        {"failure bit of the record stays", 0xbf, 0x02, create, 0xff, 0, 0x82},
        {"known code is kept, delete added", 0x01, 0x42, create, 0xff, 0, 0x41},
        {"record's own delete ends the file part", 0x7f, 0x02, create, 0xff, 0, 0x42},
        {"without CREATE nothing is taken", 0x3f, 0x42, 0xff, 0xff, 0, 0x3f},
        {"flow seen from the server, CREATE in word 0", 0x3f, 0x02, create, 0xff, 1, 0x02},
        {"CREATE only in word 1 does not count", 0x3f, 0x02, 0xff, create, 0, 0x3f},
    };
    for (const op_case &c : cases) {
        SCOPED_TRACE(c.what);
        add_file("a.txt", 0, 2, c.file_op);
        host_flow_record f = flow(c.is_response == 1);
        owned_slot slot(record(c.is_response, c.cmd0, c.cmd1));
        slot.rec()->op = c.record_op;
        run(f, slot);
        EXPECT_EQ(slot.rec()->op, c.expected);
        reset_tables();
    }
}

TEST_F(Postprocess, ParkedCreateBitCountsForTheOperation) {
    const uint32_t masks[2] = {SMB_CMD_CREATE, 0};
    add_file("a.txt", 0, 2, 0x02, masks);
    host_flow_record f = flow();
    owned_slot slot(record(0));
    run(f, slot);
    EXPECT_EQ(slot.rec()->op, 0x02);
}

TEST_F(Postprocess, SetInfoAsksForTheDeleteFlagOnce) {
    add_file("a.txt", 0, 2, 0x01);
    filetable_set_delete_flag(ctx_.filetable, kClient, kClientPort, kFile, SMB_DELETE_SUCCEEDED);
    host_flow_record f = flow();
    owned_slot first(record(0, SMB_CMD_SET_INFO | 0xff)),
        second(record(0, SMB_CMD_SET_INFO | 0xff));
    first.rec()->op = 0x01;
    second.rec()->op = 0x01;
    run(f, first);
    run(f, second);
    EXPECT_EQ(first.rec()->op, 0x41);
    EXPECT_EQ(second.rec()->op, 0x01);
}

TEST_F(Postprocess, RecordThatAlreadyDeletesLeavesTheDeleteFlag) {
    add_file("a.txt", 0, 2, 0x01);
    filetable_set_delete_flag(ctx_.filetable, kClient, kClientPort, kFile, SMB_DELETE_SUCCEEDED);
    host_flow_record f = flow();
    owned_slot slot(record(0, SMB_CMD_SET_INFO | 0xff));
    slot.rec()->op = 0x41;
    run(f, slot);
    EXPECT_EQ(filetable_get_delete_flag(ctx_.filetable, kClient, kClientPort, kFile, 0), 1);
}

TEST_F(Postprocess, RecordsThatNeedNothingTouchNoTable) {
    struct skip_case {
        const char *what;
        void (*shape)(smb_flow_data &);
    };
    const skip_case cases[] = {
        {"SMB1", [](smb_flow_data &r) { r.version = SMB_VERSION_1; }},
        {"no version", [](smb_flow_data &r) { r.version = SMB_VERSION_NONE; }},
        {"encrypted", [](smb_flow_data &r) { r.commands[0] |= SMB_CMD_TRANSFORM; }},
        {"no ids",
         [](smb_flow_data &r) {
             r.tree_id = 0;
             r.file_id = 0;
         }},
        {"both names known",
         [](smb_flow_data &r) {
             r.tree_name = frame_test::name_buffer("mine");
             r.file_name = frame_test::name_buffer("mine.txt");
         }},
    };
    for (const skip_case &c : cases) {
        SCOPED_TRACE(c.what);
        const uint32_t masks[2] = {kRead, kClose};
        add_file("a.txt", 0, 2, 0x01, masks);
        add_tree("share", masks);
        host_flow_record f = flow();
        owned_slot slot(record(0));
        c.shape(*slot.rec());
        const smb_flow_data before = *slot.rec();
        EXPECT_EQ(run(f, slot), 0);
        EXPECT_EQ(memcmp(&before, slot.rec(), sizeof before), 0);
        EXPECT_EQ(parked_file_masks(), std::make_pair(kRead, kClose));
        EXPECT_EQ(parked_tree_masks(), std::make_pair(kRead, kClose));
        reset_tables();
    }
    host_flow_record f = flow();
    host_slot empty = nullptr;
    EXPECT_EQ(process_smb_postprocess(&ctx_, &f, &empty), 0);
}

TEST_F(Postprocess, KnownFileNameSkipsOnlyTheFilePart) {
    const uint32_t masks[2] = {kRead, kClose};
    add_file("a.txt", 0, 2, 0x01, masks);
    add_tree("share");
    host_flow_record f = flow();
    owned_slot slot(record(0));
    slot.rec()->file_name = frame_test::name_buffer("mine.txt");
    run(f, slot);
    EXPECT_EQ(bytes_of(slot.rec()->file_name), name_bytes("mine.txt"));
    EXPECT_EQ(bytes_of(slot.rec()->tree_name), name_bytes("share"));
    EXPECT_EQ(parked_file_masks(), std::make_pair(kRead, kClose));
}

TEST_F(Postprocess, NamesAreCopiesThatOutliveTheTables) {
    add_file("a.txt", 0, 2, 0x01);
    add_tree("share");
    host_flow_record f = flow();
    owned_slot slot(record(0));
    run(f, slot);
    reset_tables();  // frees the records the names came from
    EXPECT_EQ(bytes_of(slot.rec()->file_name), name_bytes("a.txt"));
    EXPECT_EQ(bytes_of(slot.rec()->tree_name), name_bytes("share"));
}

}  // namespace
