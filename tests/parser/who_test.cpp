// Identity and remote calls (activity=1): NTLMSSP names raw and in SPNEGO, DCE/RPC PDUs as pipes
// carry them, and what the parser and post-processing make of them on records. Every wire
// offset and length that lies must give no name, never a read outside the message.
#include "parser_harness.h"
#include "rpc_builder.h"
#include "smb_activity.h"
#include "smb_activity_table.h"
#include "smb_dcerpc.h"
#include "smb_ntlmssp.h"
#include "smb_session_table.h"
#include "smb_who.h"

#include <string>

namespace smb2test {
namespace {

using smb::ByteReader;
namespace ntlmssp = smb::ntlmssp;
namespace dcerpc = smb::dcerpc;

constexpr const char *kSrvsvc = "4b324fc8-1670-01d3-1278-5a47bf6ee188";
constexpr const char *kSvcctl = "367abb81-9844-35f1-ad32-98f038001003";
constexpr uint64_t kSession = 0x0000400000000001;  // the builder's default SessionId
constexpr uint64_t kPipe = 0x77;

ByteReader reader(const Bytes &b) {
    return ByteReader(b.data(), b.size());
}

// The ASCII text of a UTF-16LE name buffer, up to its first zero unit.
std::string text(const uint8_t *name) {
    std::string out;
    for (size_t i = 0; i + 1 < SMB_NAME_SIZE && (name[i] || name[i + 1]); i += 2)
        out += static_cast<char>(name[i]);
    return out;
}

// The ASCII text of one of a shared identity's names.
std::string text(const ntlmssp::SharedIdentity *id, ntlmssp::Name name) {
    uint8_t buffer[SMB_NAME_SIZE];
    id->expand(name, buffer);
    return text(buffer);
}

std::string uuid_string(const dcerpc::Uuid &u) {
    char out[37];
    dcerpc::uuid_text(u, out);
    return out;
}

// Little-endian patch of a built message.
void patch32(Bytes &b, size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i)
        b[at + i] = uint8_t(v >> (8 * i));
}

const Bytes kAuth = ntlm_authenticate({"alice", "CORP", "WS01"});

struct NtlmCase {
    const char *name;
    Bytes buffer;
    ntlmssp::Result result;
    const char *user, *domain, *workstation;
};

const NtlmCase kNtlmCases[] = {
    {"raw", kAuth, ntlmssp::Result::named, "alice", "CORP", "WS01"},
    {"spnego_targ", spnego_targ(kAuth), ntlmssp::Result::named, "alice", "CORP", "WS01"},
    {"spnego_init", spnego_init(kAuth), ntlmssp::Result::named, "alice", "CORP", "WS01"},
    {"oem", ntlm_authenticate({"bob", "LAB", "PC7", false}), ntlmssp::Result::named, "bob", "LAB",
     "PC7"},
    {"anonymous", spnego_targ(ntlm_authenticate({"", "", "WS01"})), ntlmssp::Result::anonymous, "",
     "", ""},
    // The user's offset points past the message: no user, the others still read.
    {"user_offset_lies",
     [] {
         Bytes b = kAuth;
         patch32(b, 40, 0xFFFF0000u);
         return b;
     }(),
     ntlmssp::Result::named, "", "CORP", "WS01"},
    // The domain claims more bytes than the message has.
    {"domain_too_long",
     [] {
         Bytes b = kAuth;
         b[28] = 0xF0;
         b[29] = 0x7F;
         return b;
     }(),
     ntlmssp::Result::named, "alice", "", "WS01"},
    // An odd Unicode length: the last byte is half a code unit, not part of the name.
    {"domain_odd_length",
     [] {
         Bytes b = kAuth;
         ++b[28];
         return b;
     }(),
     ntlmssp::Result::named, "alice", "CORP", "WS01"},
    {"cut_fixed_part", Bytes(kAuth.begin(), kAuth.begin() + 60), ntlmssp::Result::none, "", "", ""},
    {"negotiate_message",
     [] {
         Bytes b = kAuth;
         b[8] = 1;
         return b;
     }(),
     ntlmssp::Result::none, "", "", ""},
    // A Kerberos AP-REQ in SPNEGO: no NTLMSSP token anywhere.
    {"kerberos", spnego_init(Bytes{0x60, 0x03, 0x06, 0x01, 0x2a}), ntlmssp::Result::none, "", "",
     ""},
    // The SPNEGO wrapper claims a longer token than the buffer holds.
    {"der_length_lies",
     [] {
         Bytes b = spnego_targ(kAuth);
         b[2] = 0x7F;
         return b;
     }(),
     ntlmssp::Result::none, "", "", ""},
    {"long_form_too_wide", Bytes{0xA1, 0x85, 1, 2, 3, 4, 5}, ntlmssp::Result::none, "", "", ""},
    {"empty", Bytes{}, ntlmssp::Result::none, "", "", ""},
};

TEST(Ntlmssp, NamesFromAuthenticateRawOrInSpnego) {
    for (const NtlmCase &c : kNtlmCases) {
        SCOPED_TRACE(c.name);
        ntlmssp::Identity id;
        memset(&id, 0xAA, sizeof id);
        EXPECT_EQ(ntlmssp::identity_of(reader(c.buffer), id), c.result);
        EXPECT_EQ(text(id.user), c.user);
        EXPECT_EQ(text(id.domain), c.domain);
        EXPECT_EQ(text(id.workstation), c.workstation);
    }
}

TEST(Ntlmssp, LongNameKeepsItsBeginningAndEndsInZeros) {
    const std::string user(100, 'u');
    ntlmssp::Identity id;
    ASSERT_EQ(ntlmssp::identity_of(reader(ntlm_authenticate({user, "D", "W"})), id),
              ntlmssp::Result::named);
    EXPECT_EQ(text(id.user), std::string(63, 'u'));
    EXPECT_EQ(id.user[126], 0);
    EXPECT_EQ(id.user[127], 0);
}

// What a scan reported, as text.
struct Recorder final : dcerpc::Visitor {
    std::vector<std::string> events;
    void context(uint16_t id, const dcerpc::Uuid &u) override {
        events.push_back("ctx " + std::to_string(id) + " " + uuid_string(u));
    }
    void request(uint16_t id, uint16_t opnum, bool first) override {
        events.push_back("req " + std::to_string(id) + " " + std::to_string(opnum) +
                         (first ? "" : " more"));
    }
};

struct RpcCase {
    const char *name;
    Bytes data;
    std::vector<std::string> events;
};

const std::string kSrvsvcText = kSrvsvc;
const Bytes kBind = dcerpc_bind({{0, kSrvsvc}, {1, kSvcctl, 2}});

const RpcCase kRpcCases[] = {
    {"bind", kBind, {"ctx 0 " + kSrvsvcText, std::string("ctx 1 ") + kSvcctl}},
    {"bind_big_endian", dcerpc_bind({{5, kSrvsvc}}, false), {"ctx 5 " + kSrvsvcText}},
    {"alter_context", dcerpc_bind({{2, kSvcctl}}, true, 14), {std::string("ctx 2 ") + kSvcctl}},
    {"request", dcerpc_request(1, 15), {"req 1 15"}},
    {"request_big_endian", dcerpc_request(1, 300, 8, true, false), {"req 1 300"}},
    {"later_fragment", dcerpc_request(1, 15, 8, false), {"req 1 15 more"}},
    {"two_pdus",
     [] {
         Bytes b = dcerpc_bind({{0, kSrvsvc}});
         Bytes r = dcerpc_request(0, 12);
         b.insert(b.end(), r.begin(), r.end());
         return b;
     }(),
     {"ctx 0 " + kSrvsvcText, "req 0 12"}},
    // Cut inside the second context: the first is whole and counts.
    {"bind_cut", Bytes(kBind.begin(), kBind.begin() + 28 + 44 + 10), {"ctx 0 " + kSrvsvcText}},
    // The context count claims more than the PDU holds.
    {"context_count_lies",
     [] {
         Bytes b = kBind;
         b[24] = 255;
         return b;
     }(),
     {"ctx 0 " + kSrvsvcText, std::string("ctx 1 ") + kSvcctl}},
    {"request_cut_before_opnum",
     [] {
         Bytes b = dcerpc_request(1, 15);
         b.resize(22);
         return b;
     }(),
     {}},
    {"fragment_shorter_than_header",
     [] {
         Bytes b = dcerpc_request(1, 15);
         b[8] = 8;
         b[9] = 0;
         return b;
     }(),
     {}},
    {"version_4",
     [] {
         Bytes b = dcerpc_request(1, 15);
         b[0] = 4;
         return b;
     }(),
     {}},
    {"file_data", Bytes(64, 0x41), {}},
};

TEST(Dcerpc, ContextsAndRequestsOfPdus) {
    for (const RpcCase &c : kRpcCases) {
        SCOPED_TRACE(c.name);
        Recorder r;
        dcerpc::scan(reader(c.data), r);
        EXPECT_EQ(r.events, c.events);
    }
}

TEST(IpcShare, LastComponentIsIpcInAnyCase) {
    const struct {
        const char *path;
        bool ipc;
    } cases[] = {{"\\\\srv\\IPC$", true},
                 {"\\\\srv\\ipc$", true},
                 {"IPC$", true},
                 {"\\\\srv\\IPC$x", false},
                 {"\\\\srv\\xIPC$", false},
                 {"\\\\srv\\share", false},
                 {"", false}};
    for (const auto &c : cases) {
        uint8_t name[SMB_NAME_SIZE] = {};
        const Bytes u = utf16(std::string_view(c.path));
        std::copy(u.begin(), u.end(), name);
        EXPECT_EQ(smb_is_ipc_share(name), c.ipc) << c.path;
    }
    EXPECT_FALSE(smb_is_ipc_share(nullptr));
}

// The parser with activity=1 and every table it writes.
class WhoHarness : public ParserHarness {
  public:
    WhoHarness() {
        q().activity = 1;
        q().activitytable = activitytable_create(1024);
        q().conntable = conntable_create(1024);
        q().chaintable = static_cast<chaintable *>(calloc(1, sizeof(chaintable)));
        q().sessiontable = sessiontable_create(1024);
        q().pipetable = pipetable_create(1024);
    }
    ~WhoHarness() {
        activitytable_free(q().activitytable);
        conntable_free(q().conntable);
        free(q().chaintable);
        sessiontable_free(q().sessiontable);
        pipetable_free(q().pipetable);
    }
    int32_t send_at(uint64_t ns, const Message &m) {
        const Bytes smb2 = encode(m);
        Packet p =
            (m.header.flags & kResponse) ? to_client(session(smb2)) : to_server(session(smb2));
        p.pkt().timestamp_ns = ns;
        return parse(p);
    }
    // Post-processing of the last record, as if it were on `tree`.
    const smb_who *complete(const char *tree) {
        if (tree) {
            auto *name = static_cast<char *>(calloc(SMB_NAME_SIZE, 1));
            const Bytes u = utf16(std::string_view(tree));
            std::copy(u.begin(), u.end(), name);
            rec()->tree_name = name;
        }
        smb_who_complete(&q(), &rec().rec, client(), client_port());
        return rec()->who;
    }
};

Message authenticate(const Bytes &security, uint64_t session_id = kSession) {
    Message m = request(SESSION_SETUP, 2, 0, session_setup_request_body(security));
    m.header.session_id = session_id;
    return m;
}

TEST(WhoParser, IdentityAppliesFromTheAuthenticateRequestOn) {
    WhoHarness h;
    Message before = request(ECHO, 1, 0, request_body(ECHO));
    const struct {
        const char *name;
        uint64_t ns;
        bool named;
    } cases[] = {{"before", 50, false}, {"the_request_itself", 100, true}, {"after", 150, true}};
    ASSERT_EQ(h.send_at(100, authenticate(spnego_targ(kAuth))), SMB_PARSE_OK);
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        h.send_at(c.ns, before);
        EXPECT_EQ(h.rec()->session_id, kSession);
        const smb_who *w = h.complete(nullptr);
        ASSERT_EQ(w != nullptr && w->identity != nullptr, c.named);
        if (c.named) {
            EXPECT_EQ(text(w->identity, ntlmssp::Name::user), "alice");
            EXPECT_EQ(text(w->identity, ntlmssp::Name::domain), "CORP");
            EXPECT_EQ(text(w->identity, ntlmssp::Name::workstation), "WS01");
        }
    }
}

// A record exported (copied out) before the session authenticates again keeps the names it was
// given; the records after it get the new ones. The session table drops its hold on the first
// names while the exported record still reads them.
TEST(WhoParser, ExportedNamesOutliveTheSessionsNextAuthenticate) {
    WhoHarness h;
    ASSERT_EQ(h.send_at(100, authenticate(spnego_targ(kAuth))), SMB_PARSE_OK);
    h.send_at(150, request(ECHO, 3, 0, request_body(ECHO)));
    h.complete(nullptr);
    host_slot exported = smb_record_copy(&h.rec().rec);
    ASSERT_EQ(h.send_at(200, authenticate(spnego_targ(ntlm_authenticate({"bob", "LAB", "WS02"})))),
              SMB_PARSE_OK);
    h.send_at(250, request(ECHO, 5, 0, request_body(ECHO)));
    const smb_who *now = h.complete(nullptr);
    ASSERT_TRUE(now != nullptr && now->identity != nullptr);
    EXPECT_EQ(text(now->identity, ntlmssp::Name::user), "bob");
    EXPECT_EQ(text(now->identity, ntlmssp::Name::domain), "LAB");
    const smb_who *before = static_cast<smb_flow_data *>(exported)->who;
    ASSERT_TRUE(before != nullptr && before->identity != nullptr);
    EXPECT_EQ(text(before->identity, ntlmssp::Name::user), "alice");
    EXPECT_EQ(text(before->identity, ntlmssp::Name::workstation), "WS01");
    smb_record_free(&exported);
}

TEST(WhoParser, NoIdentityForAnonymousKerberosOrAnotherSession) {
    const struct {
        const char *name;
        Bytes security;
        uint64_t record_session;
    } cases[] = {
        {"anonymous", spnego_targ(ntlm_authenticate({"", "", "WS01"})), kSession},
        {"kerberos", spnego_init(Bytes{0x60, 0x03, 0x06, 0x01, 0x2a}), kSession},
        {"other_session", spnego_targ(kAuth), kSession + 1},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        WhoHarness h;
        h.send_at(100, authenticate(c.security));
        Message m = request(ECHO, 3, 0, request_body(ECHO));
        m.header.session_id = c.record_session;
        h.send_at(200, m);
        const smb_who *w = h.complete(nullptr);
        EXPECT_TRUE(w == nullptr || !w->identity);
    }
}

TEST(WhoParser, RelatedChainSessionIdKeepsTheRecordsSession) {
    WhoHarness h;
    Message first = request(CREATE, 5, 1, create_request_body(utf16(std::string_view("a")), 1));
    Message later = request(CLOSE, 6, 1, request_body(CLOSE), kRelated);
    later.header.session_id = ~uint64_t{0};
    Packet p = h.to_server(session(compound({first, later})));
    p.pkt().timestamp_ns = 10;
    h.parse(p);
    EXPECT_EQ(h.rec()->session_id, kSession);
}

// A pipe: BIND over WRITE, then calls over WRITE and FSCTL_PIPE_TRANSCEIVE.
TEST(WhoParser, PipeCallsCountOpnumsAndResolveTheirInterface) {
    WhoHarness h;
    h.send_at(1, request(WRITE, 10, 3, pipe_write_body(kPipe, kBind)));
    ASSERT_NE(h.rec()->who, nullptr);
    EXPECT_EQ(h.rec()->who->calls, 0u);
    EXPECT_EQ(uuid_string(*smb_who_interface(h.rec()->who)), kSvcctl);  // the last bound

    const struct {
        const char *name;
        Message msg;
        uint32_t calls;
        uint64_t opnums;
        const char *interface;  // null: none
    } cases[] = {
        {"write_request", request(WRITE, 11, 3, pipe_write_body(kPipe, dcerpc_request(0, 15))), 1,
         1ull << 15, kSrvsvc},
        {"transceive", request(IOCTL, 12, 3, pipe_transceive_body(kPipe, dcerpc_request(1, 12))), 1,
         1ull << 12, kSvcctl},
        {"opnum_63_and_above",
         request(IOCTL, 13, 3, pipe_transceive_body(kPipe, dcerpc_request(1, 70))), 1, 1ull << 63,
         kSvcctl},
        {"later_fragment",
         request(WRITE, 14, 3, pipe_write_body(kPipe, dcerpc_request(1, 9, 8, false))), 0, 0,
         nullptr},
        {"unbound_context", request(WRITE, 15, 3, pipe_write_body(kPipe, dcerpc_request(9, 2))), 1,
         1ull << 2, nullptr},
        {"other_fsctl",
         request(IOCTL, 16, 3, pipe_transceive_body(kPipe, dcerpc_request(1, 12), 0x00140204)), 0,
         0, nullptr},
        {"other_file", request(WRITE, 17, 3, pipe_write_body(kPipe + 1, dcerpc_request(0, 15))), 1,
         1ull << 15, nullptr},
        // DataOffset points into the header: nothing is read there.
        {"offset_into_header",
         [] {
             Message m = request(WRITE, 18, 3, pipe_write_body(kPipe, dcerpc_request(0, 1)));
             m.body[2] = 8;
             return m;
         }(),
         0, 0, nullptr},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        h.send_at(2, c.msg);
        const smb_who *w = h.rec()->who;
        EXPECT_EQ(w ? w->calls : 0, c.calls);
        EXPECT_EQ(w ? w->opnums : 0, c.opnums);
        const dcerpc::Uuid *u = w && w->calls ? smb_who_interface(w) : nullptr;
        EXPECT_EQ(u ? uuid_string(*u) : "", c.interface ? c.interface : "");
    }
}

TEST(WhoParser, CallsStayOnlyOnIpcTrees) {
    for (const char *tree :
         {"\\\\srv\\IPC$", "\\\\srv\\data", static_cast<const char *>(nullptr)}) {
        SCOPED_TRACE(tree ? tree : "(no tree)");
        WhoHarness h;
        h.send_at(1, request(WRITE, 10, 3, pipe_write_body(kPipe, dcerpc_request(0, 15))));
        const smb_who *w = h.complete(tree);
        ASSERT_NE(w, nullptr);
        const bool ipc = tree && std::string(tree).ends_with("IPC$");
        EXPECT_EQ(w->calls, ipc ? 1u : 0u);
        EXPECT_EQ(w->opnums, ipc ? 1ull << 15 : 0u);
    }
}

TEST(WhoMerge, LaterSessionAndInterfaceWinCallsAddUp) {
    smb_flow_data flow{}, pkt{};
    flow.session_id = 1;
    flow.session_ns = 10;
    smb_who *f = smb_who_of(&flow);
    f->calls = 2;
    f->opnums = 1 << 3;
    f->request_interface = {{1}};
    f->has_request_interface = 1;
    pkt.session_id = 2;
    pkt.session_ns = 20;
    smb_who *p = smb_who_of(&pkt);
    p->calls = 1;
    p->opnums = 1 << 5;
    p->bound_interface = {{9}};
    p->has_bound_interface = 1;
    smb_who_take(&flow, &pkt);
    EXPECT_EQ(pkt.who, nullptr);
    EXPECT_EQ(flow.session_id, 2u);
    EXPECT_EQ(flow.session_ns, 20u);
    EXPECT_EQ(flow.who->calls, 3u);
    EXPECT_EQ(flow.who->opnums, (1u << 3) | (1u << 5));
    EXPECT_EQ(smb_who_interface(flow.who)->bytes[0], 1);  // a REQUEST's outranks a bind
    // A packet without a session keeps the flow's.
    smb_flow_data none{};
    smb_who_take(&flow, &none);
    EXPECT_EQ(flow.session_id, 2u);
    smb_who_free(flow.who);
}

// Records of activity=1 keep their smb_who in their own block's room. The room goes with its
// record: a flow's record that takes a packet's smb_who, a heap record made from one parsed on
// the stack and a copy for the host each hold one of their own, with its own identity reference.
TEST(WhoRoom, GoesWithItsRecordAndIsCopiedNotShared) {
    enum class Made { block, plain, on_stack };
    ntlmssp::Identity names{};
    names.user[0] = 'u';
    ntlmssp::SharedIdentity *id = ntlmssp::SharedIdentity::make(names);
    for (const Made flow_made : {Made::block, Made::plain}) {
        for (const bool flow_has_who : {false, true}) {
            for (const Made pkt_made : {Made::block, Made::plain, Made::on_stack}) {
                SCOPED_TRACE(testing::Message() << int(flow_made) << flow_has_who << int(pkt_made));
                smb_flow_data *flow =
                    flow_made == Made::block ? smb_record_new_with_activity() : smb_record_new();
                if (flow_has_who) smb_who_of(flow)->calls = 2;
                smb_flow_data *pkt;
                smb_record_block local;
                if (pkt_made == Made::on_stack) {
                    smb_record_init(&local.rec);
                    local.activity = smb_activity{};
                    local.rec.activity = &local.activity;
                    pkt = &local.rec;
                } else {
                    pkt =
                        pkt_made == Made::block ? smb_record_new_with_activity() : smb_record_new();
                }
                smb_who *w = smb_who_of(pkt);
                w->calls = 1;
                w->identity = id;
                id->ref();
                if (pkt_made == Made::on_stack) {
                    pkt = smb_record_move_to_heap(&local.rec);
                    memset(&local, 0x5a, sizeof local);  // the stack's room is gone
                }
                smb_who_take(flow, pkt);
                EXPECT_EQ(pkt->who, nullptr);
                host_slot pkt_slot = pkt;
                smb_record_free(&pkt_slot);
                // The freed blocks come back first: a room still in use would be overwritten.
                smb_flow_data *scribble = smb_record_new_with_activity();
                smb_who_of(scribble)->calls = 99;
                smb_flow_data *scribble_plain = smb_record_new();
                smb_who_of(scribble_plain)->calls = 99;
                ASSERT_NE(flow->who, nullptr);
                EXPECT_EQ(flow->who->calls, flow_has_who ? 3u : 1u);
                // Merged into an smb_who of its own, the packet's identity is dropped.
                EXPECT_EQ(flow->who->identity, flow_has_who ? nullptr : id);
                smb_flow_data *copy = smb_record_copy(flow);
                ASSERT_NE(copy->who, nullptr);
                EXPECT_NE(copy->who, flow->who);
                flow->who->calls = 7;
                EXPECT_EQ(copy->who->calls, flow_has_who ? 3u : 1u);
                EXPECT_EQ(copy->who->identity, flow->who->identity);
                for (smb_flow_data *r : {copy, flow, scribble, scribble_plain}) {
                    host_slot slot = r;
                    smb_record_free(&slot);
                }
            }
        }
    }
    ntlmssp::SharedIdentity::unref(id);
}

}  // namespace
}  // namespace smb2test
