// Activity counters where a real capture does not reach: responses cut after their fixed
// part, failed messages in the middle of a chain, responses whose request was never seen,
// interim responses, and SET_INFO buffers whose offsets lie.
#include <set>

#include "parser_harness.h"
#include "smb_activity.h"
#include "smb_activity_table.h"

namespace smb2test {
namespace {

constexpr uint32_t kTree = 5;
constexpr uint64_t kFile = 0xF1;
constexpr uint32_t kStatusBufferOverflow = 0x80000005;
constexpr uint32_t kStatusMoreProcessing = 0xC0000016;
constexpr uint64_t kMs = 1000000;  // nanoseconds

// The parser harness with activity=1 and its tables.
class ActivityHarness : public ParserHarness {
  public:
    ActivityHarness() {
        q().activity = 1;
        q().activitytable = activitytable_create(1024);
        q().conntable = conntable_create(1024);
        q().chaintable = static_cast<chaintable *>(calloc(1, sizeof(chaintable)));
    }
    ~ActivityHarness() {
        activitytable_free(q().activitytable);
        conntable_free(q().conntable);
        free(q().chaintable);
    }
    // Sends a message or chain at capture time `ns`.
    int32_t send_at(uint64_t ns, const Bytes &smb2) {
        const bool response = smb2.size() > 16 && (smb2[16] & kResponse);
        Packet p = response ? to_client(session(smb2)) : to_server(session(smb2));
        p.pkt().timestamp_ns = ns;
        return parse(p);
    }
    int32_t send_at(uint64_t ns, const Message &m) { return send_at(ns, encode(m)); }
    // The last packet's counters (all zero when it counted nothing).
    smb_activity counters() { return rec()->activity ? *rec()->activity : smb_activity{}; }
    // The last packet's rename target (empty when it has none).
    Name rename_to() {
        const smb_activity a = counters();
        return a.rename_to ? name_of(a.rename_to) : Name{};
    }
    const conn_record *connection() {
        return conntable_find(q().conntable, client(), client_port());
    }
};

Bytes rename_buffer(const Bytes &name, uint32_t claimed_length) {
    Bytes b(20 + name.size(), 0);
    for (int i = 0; i < 4; ++i)
        b[16 + i] = uint8_t(claimed_length >> (8 * i));
    std::copy(name.begin(), name.end(), b.begin() + 20);
    return b;
}

Bytes with_buffer_offset(Bytes body, uint16_t offset) {
    body[8] = uint8_t(offset);
    body[9] = uint8_t(offset >> 8);
    return body;
}

// One request and its final response; the expected counters of the response's record.
struct Exchange {
    const char *name;
    Message request;
    Message response;
    uint32_t reads, writes, errors, last_error, renames, deletes;
    uint64_t bytes_read, bytes_written;
};

const Bytes kNewName = utf16(std::string_view("dir\\renamed.txt"));

const Exchange kExchanges[] = {
    {"read", request(READ, 7, kTree, request_body(READ, kFile)),
     response(READ, 7, kTree, read_response_body(Bytes(100, 0x41))), 1, 0, 0, 0, 0, 0, 100, 0},
    // A named pipe's partial read is neither a read nor an error.
    {"read_overflow", request(READ, 7, kTree, request_body(READ, kFile)),
     response(READ, 7, kTree, read_response_body(Bytes(10, 0)), kStatusBufferOverflow), 0, 0, 0, 0,
     0, 0, 0, 0},
    {"write", request(WRITE, 8, kTree, write_request_body(kFile, Bytes(33, 1))),
     response(WRITE, 8, kTree,
              [] {
                  Bytes b = response_body(WRITE);
                  b[4] = 33;
                  return b;
              }()),
     0, 1, 0, 0, 0, 0, 0, 33},
    {"access_denied", request(CREATE, 9, kTree, create_request_body(kNewName, FILE_OPEN)),
     response(CREATE, 9, kTree, response_body(ECHO), kStatusAccessDenied), 0, 0, 1,
     kStatusAccessDenied, 0, 0, 0, 0},
    {"more_processing", request(SESSION_SETUP, 2, 0, request_body(SESSION_SETUP)),
     response(SESSION_SETUP, 2, 0, response_body(SESSION_SETUP), kStatusMoreProcessing), 0, 0, 0, 0,
     0, 0, 0, 0},
    {"rename",
     request(
         SET_INFO, 10, kTree,
         set_info_request_body(kFile, 1, 10, rename_buffer(kNewName, uint32_t(kNewName.size())))),
     response(SET_INFO, 10, kTree, response_body(SET_INFO)), 0, 0, 0, 0, 1, 0, 0, 0},
    {"rename_failed",
     request(
         SET_INFO, 10, kTree,
         set_info_request_body(kFile, 1, 10, rename_buffer(kNewName, uint32_t(kNewName.size())))),
     response(SET_INFO, 10, kTree, response_body(ECHO), kStatusAccessDenied), 0, 0, 1,
     kStatusAccessDenied, 0, 0, 0, 0},
    {"delete", request(SET_INFO, 11, kTree, set_disposition_body(kFile, true)),
     response(SET_INFO, 11, kTree, response_body(SET_INFO)), 0, 0, 0, 0, 0, 1, 0, 0},
    {"undelete", request(SET_INFO, 11, kTree, set_disposition_body(kFile, false)),
     response(SET_INFO, 11, kTree, response_body(SET_INFO)), 0, 0, 0, 0, 0, 0, 0, 0},
    {"delete_ex", request(SET_INFO, 12, kTree, set_info_request_body(kFile, 1, 64, {1, 0, 0, 0})),
     response(SET_INFO, 12, kTree, response_body(SET_INFO)), 0, 0, 0, 0, 0, 1, 0, 0},
    {"delete_ex_without_delete_flag",
     request(SET_INFO, 12, kTree, set_info_request_body(kFile, 1, 64, {2, 0, 0, 0})),
     response(SET_INFO, 12, kTree, response_body(SET_INFO)), 0, 0, 0, 0, 0, 0, 0, 0},
    // A BufferOffset behind the message, or inside the header, names no buffer.
    {"delete_offset_past_end",
     request(SET_INFO, 13, kTree, with_buffer_offset(set_disposition_body(kFile, true), 0xfff0)),
     response(SET_INFO, 13, kTree, response_body(SET_INFO)), 0, 0, 0, 0, 0, 0, 0, 0},
    {"delete_offset_in_header",
     request(SET_INFO, 13, kTree, with_buffer_offset(set_disposition_body(kFile, true), 8)),
     response(SET_INFO, 13, kTree, response_body(SET_INFO)), 0, 0, 0, 0, 0, 0, 0, 0},
};

class Exchanges : public testing::TestWithParam<Exchange> {};

TEST_P(Exchanges, CountOnTheResponseWithItsLatency) {
    const Exchange &e = GetParam();
    ActivityHarness h;
    h.send_at(1 * kMs, e.request);
    h.send_at(4 * kMs + 250000, e.response);
    const smb_activity a = h.counters();
    EXPECT_EQ(a.reads, e.reads);
    EXPECT_EQ(a.bytes_read, e.bytes_read);
    EXPECT_EQ(a.writes, e.writes);
    EXPECT_EQ(a.bytes_written, e.bytes_written);
    EXPECT_EQ(a.errors, e.errors);
    EXPECT_EQ(a.last_error, e.last_error);
    EXPECT_EQ(a.renames, e.renames);
    EXPECT_EQ(a.deletes, e.deletes);
    EXPECT_EQ(a.rename_to != nullptr, e.renames != 0);
    EXPECT_EQ(h.rename_to(), testnames::utf16_name(e.renames ? "dir\\renamed.txt" : ""));
    EXPECT_EQ(a.latency_count, 1u);
    EXPECT_EQ(a.latency_sum_us, 3250u);
    EXPECT_EQ(a.latency_max_us, 3250u);
}

INSTANTIATE_TEST_SUITE_P(Activity, Exchanges, testing::ValuesIn(kExchanges),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(Activity, RenameNameLongerThanItsBufferIsCountedWithoutAName) {
    ActivityHarness h;
    h.send_at(0, request(SET_INFO, 10, kTree,
                         set_info_request_body(kFile, 1, 10, rename_buffer(kNewName, 4000))));
    h.send_at(1, response(SET_INFO, 10, kTree, response_body(SET_INFO)));
    EXPECT_EQ(h.counters().renames, 1u);
    EXPECT_NE(h.counters().rename_to, nullptr);
    EXPECT_EQ(h.rename_to(), Name{});
}

TEST(Activity, ReadCutAfterItsFixedPartCountsTheWholeDataLength) {
    ActivityHarness h;
    constexpr uint32_t k8MiB = 8u << 20;
    h.send_at(0, request(READ, 7, kTree, request_body(READ, kFile)));
    // The first segment ends right behind the 16-byte fixed part; the data follows later.
    Bytes body = read_response_body({});
    for (int i = 0; i < 4; ++i)
        body[4 + i] = uint8_t(k8MiB >> (8 * i));
    const Bytes first = encode(response(READ, 7, kTree, body));
    Packet p = h.to_client(session_with_word(first, uint32_t(first.size()) + k8MiB));
    EXPECT_EQ(h.parse(p), SMB_PARSE_CONTINUED);
    EXPECT_EQ(h.counters().reads, 1u);
    EXPECT_EQ(h.counters().bytes_read, k8MiB);
    // A later segment carries no header and counts nothing more.
    EXPECT_EQ(h.parse_to_client(Bytes(1400, 0x55)), SMB_PARSE_OK);
    EXPECT_EQ(h.counters().reads, 0u);
}

TEST(Activity, ReadResponseCutInsideItsFixedPartIsNotCounted) {
    ActivityHarness h;
    Bytes body = read_response_body({});
    body.resize(6);
    const Bytes first = encode(response(READ, 7, kTree, body));
    Packet p = h.to_client(session_with_word(first, uint32_t(first.size()) + 100000));
    h.parse(p);
    EXPECT_EQ(h.counters().reads, 0u);
}

TEST(Activity, InterimResponseCountsNothingAndTheFinalOneIsTimedFromTheRequest) {
    ActivityHarness h;
    h.send_at(1 * kMs, request(CREATE, 20, kTree, create_request_body(kNewName, FILE_OPEN)));
    h.send_at(2 * kMs, async_response(CREATE, 20, 0x77, response_body(ECHO), kStatusPending));
    EXPECT_EQ(h.counters().latency_count, 0u);
    h.send_at(9 * kMs, async_response(CREATE, 20, 0x77, response_body(ECHO), kStatusAccessDenied));
    EXPECT_EQ(h.counters().latency_count, 1u);
    EXPECT_EQ(h.counters().latency_sum_us, 8000u);
    EXPECT_EQ(h.counters().errors, 1u);
    // A second final response to the same request is not timed again.
    h.send_at(10 * kMs, response(CREATE, 20, kTree, response_body(ECHO), kStatusAccessDenied));
    EXPECT_EQ(h.counters().latency_count, 0u);
}

TEST(Activity, CaptureStartingMidStreamCountsResponsesButDoesNotTimeThem) {
    ActivityHarness h;
    h.send_at(5 * kMs, response(READ, 300, kTree, read_response_body(Bytes(64, 0))));
    EXPECT_EQ(h.counters().reads, 1u);
    EXPECT_EQ(h.counters().bytes_read, 64u);
    EXPECT_EQ(h.counters().latency_count, 0u);
    EXPECT_EQ(h.counters().dialect, 0u);
    EXPECT_EQ(h.connection(), nullptr);
}

TEST(Activity, ChainWithAFailedMiddleMessageCountsEveryMessage) {
    ActivityHarness h;
    const Bytes name = utf16(std::string_view("a.txt"));
    auto related = [](Message m) {
        m.header.flags |= kRelated;
        return m;
    };
    h.send_at(1 * kMs, compound({request(CREATE, 10, kTree, create_request_body(name, FILE_OPEN)),
                                 related(request(READ, 11, kTree, request_body(READ, ~0ull))),
                                 related(request(CLOSE, 12, kTree, request_body(CLOSE, ~0ull)))}));
    h.send_at(
        2 * kMs,
        compound({response(CREATE, 10, kTree,
                           create_response_body(FILE_OPENED, kAttributeArchive, kFile)),
                  related(response(READ, 11, kTree, response_body(ECHO), kStatusAccessDenied)),
                  related(response(CLOSE, 12, kTree, response_body(CLOSE)))}));
    const smb_activity a = h.counters();
    EXPECT_EQ(a.errors, 1u);
    EXPECT_EQ(a.last_error, kStatusAccessDenied);
    EXPECT_EQ(a.reads, 0u);
    EXPECT_EQ(a.latency_count, 3u);
    EXPECT_EQ(a.latency_sum_us, 3000u);
}

// Three reads in flight, answered in one chain after 3, 8 and 3 ms: the record keeps the
// longest time, not the last one counted (whichever order the chain's messages are taken in).
TEST(Activity, RecordKeepsItsLongestResponseTimeNotItsLast) {
    ActivityHarness h;
    h.send_at(1 * kMs, request(READ, 31, kTree, request_body(READ, kFile)));
    h.send_at(6 * kMs, request(READ, 30, kTree, request_body(READ, kFile)));
    h.send_at(6 * kMs, request(READ, 32, kTree, request_body(READ, kFile)));
    h.send_at(9 * kMs, compound({response(READ, 30, kTree, read_response_body(Bytes(8, 0))),
                                 response(READ, 31, kTree, read_response_body(Bytes(8, 0))),
                                 response(READ, 32, kTree, read_response_body(Bytes(8, 0)))}));
    const smb_activity a = h.counters();
    EXPECT_EQ(a.latency_count, 3u);
    EXPECT_EQ(a.latency_sum_us, 14000u);
    EXPECT_EQ(a.latency_max_us, 8000u);
}

// A response chain too long to buffer (a 10000-byte READ, an IOCTL that failed, a CLOSE),
// cut into segments in different places: every message counts once its header and fixed part
// are in, whichever segment completes them; a missing segment ends the count.
struct LongChainCut {
    const char *name;
    std::vector<size_t> sizes;  // of the segments; the rest of the chain follows in one
    std::set<size_t> lost;      // segments that never arrive
    uint32_t timed, errors;
    uint32_t ioctl_next_command = 72;  // as the chain is built
};

// The chain's messages start at 4 (READ), 10084 (IOCTL) and 10156 (CLOSE) of the payload.
std::vector<size_t> bytes_then_ones(size_t first, size_t ones) {
    std::vector<size_t> sizes{first};
    sizes.insert(sizes.end(), ones, 1);
    return sizes;
}

const LongChainCut kLongChainCuts[] = {
    {"ioctl_header_straddles", {1400, 8700}, {}, 3, 1},
    {"close_fixed_part_straddles", {1400, 8822}, {}, 3, 1},
    {"ioctl_starts_in_first_segment", {10100}, {}, 3, 1},
    {"ioctl_whole_in_first_segment", {10160}, {}, 3, 1},
    {"one_byte_segments", bytes_then_ones(10000, 300), {}, 3, 1},
    {"lost_segment", {1400, 1400, 1400}, {1}, 1, 0},
    {"next_command_inside_the_header", {1400, 8700}, {}, 1, 0, 8},
};

class LongChains : public testing::TestWithParam<LongChainCut> {};

TEST_P(LongChains, CountEveryMessageAcrossTheSegments) {
    const LongChainCut &cut = GetParam();
    ActivityHarness h;
    h.send_at(1 * kMs, request(READ, 30, kTree, request_body(READ, kFile)));
    h.send_at(1 * kMs, request(IOCTL, 31, kTree, request_body(IOCTL, kFile)));
    h.send_at(1 * kMs, request(CLOSE, 32, kTree, request_body(CLOSE, kFile)));
    Bytes chain =
        session(compound({response(READ, 30, kTree, read_response_body(Bytes(10000, 0x5a))),
                          response(IOCTL, 31, kTree, response_body(ECHO), kStatusAccessDenied),
                          response(CLOSE, 32, kTree, response_body(CLOSE))}));
    ASSERT_EQ(chain.size(), 10280u);
    for (int i = 0; i < 4; ++i)
        chain[10084 + 20 + i] = uint8_t(cut.ioctl_next_command >> (8 * i));
    smb_activity sum{};
    const auto segments = split(chain, cut.sizes);
    for (size_t i = 0; i < segments.size(); ++i) {
        if (cut.lost.count(i)) continue;
        Packet p = h.to_client(segments[i]);
        p.pkt().timestamp_ns = 3 * kMs;
        h.parse(p);
        smb_activity a = h.counters();
        a.rename_to = nullptr;
        smb_activity_merge(&sum, &a);
    }
    EXPECT_EQ(sum.reads, 1u);
    EXPECT_EQ(sum.bytes_read, 10000u);
    EXPECT_EQ(sum.latency_count, cut.timed);
    EXPECT_EQ(sum.latency_sum_us, 2000u * cut.timed);
    EXPECT_EQ(sum.errors, cut.errors);
}

INSTANTIATE_TEST_SUITE_P(Activity, LongChains, testing::ValuesIn(kLongChainCuts),
                         [](const auto &info) { return std::string(info.param.name); });

struct Negotiation {
    const char *name;
    uint16_t dialect_on_wire;
    uint16_t security_mode;
    uint16_t dialect;
    uint8_t security;
};

class Negotiations : public testing::TestWithParam<Negotiation> {};

TEST_P(Negotiations, GiveTheConnectionItsDialectAndSigning) {
    const Negotiation &n = GetParam();
    ActivityHarness h;
    Bytes body = response_body(NEGOTIATE);
    body.resize(std::max<size_t>(body.size(), 8));
    body[2] = uint8_t(n.security_mode);
    body[4] = uint8_t(n.dialect_on_wire);
    body[5] = uint8_t(n.dialect_on_wire >> 8);
    h.send_at(0, response(NEGOTIATE, 0, 0, body));
    EXPECT_EQ(h.counters().dialect, n.dialect);
    ASSERT_NE(h.connection(), nullptr);
    EXPECT_EQ(h.connection()->dialect, n.dialect);
    EXPECT_EQ(h.connection()->security, n.security);
}

INSTANTIATE_TEST_SUITE_P(Activity, Negotiations,
                         testing::Values(Negotiation{"smb311_signing", 0x0311, 0x3, 0x0311, 1},
                                         Negotiation{"smb21_enabled", 0x0210, 0x1, 0x0210, 0},
                                         Negotiation{"wildcard", 0x02FF, 0x1, 0, 0}),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(Activity, SecurityFlagsOfSignedEncryptedGuestAndSmb1Messages) {
    ActivityHarness h;
    h.send_at(0, request(ECHO, 3, 0, request_body(ECHO), 0x8));
    EXPECT_EQ(h.rec()->security, SMB_SEC_SIGNED);
    Bytes setup = response_body(SESSION_SETUP);
    setup[2] = 0x1;  // SMB2_SESSION_FLAG_IS_GUEST
    h.send_at(0, response(SESSION_SETUP, 1, 0, setup));
    EXPECT_EQ(h.rec()->security, SMB_SEC_GUEST_OR_NULL);
    h.parse_to_client(transform_message(100));
    EXPECT_EQ(h.rec()->security, SMB_SEC_ENCRYPTED);
    h.parse_to_server(smb1_message(0x72));
    EXPECT_EQ(h.rec()->security, SMB_SEC_SMB1);
    ASSERT_NE(h.connection(), nullptr);
    EXPECT_EQ(h.connection()->security, SMB_SEC_SMB1);
}

TEST(Activity, OffByDefault) {
    ParserHarness h;
    h.send(request(READ, 7, kTree, request_body(READ, kFile)));
    h.send(response(READ, 7, kTree, read_response_body(Bytes(100, 0))));
    EXPECT_EQ(h.rec()->activity, nullptr);
}

}  // namespace
}  // namespace smb2test
