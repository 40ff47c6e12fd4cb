// Several queues parse at once over the shared tree, file and data tables, each with its own
// message tables. Built with ThreadSanitizer this checks that every shared-table call of the
// parser holds that table's lock; in every build, that whatever the interleaving every file a
// queue's parser took is still in the file table, intact, or was overwritten by another
// key on its slot, and that no record mixes the fields of two files.
#include <thread>

#include "tables/table_test_support.h"
#include "parser_harness.h"
#include "smb_session_table.h"
#include "smb_who.h"

namespace smb2test {
namespace {

uint16_t port_of(int queue, int round) {
    return uint16_t(40000 + queue * 64 + round % 64);
}

uint64_t file_of(int queue, int round) {
    return 0x1000 + uint64_t(queue) * 1000 + uint64_t(round);
}

TEST(Concurrency, QueuesShareTheTreeFileAndDataTables) {
    ParserHarness shared;
    constexpr int kQueues = 4;
    constexpr int kRounds = 300;
    std::vector<std::thread> threads;
    std::atomic<int> bad_results{0};
    // Per queue and round: whether the queue's parser took the CREATE request of the chain
    // before its response came (else another queue replaced the chain in the data table); the
    // response then puts the file in the file table.
    std::vector<std::vector<char>> taken(kQueues, std::vector<char>(kRounds, 0));
    const Bytes name = utf16(std::string_view("shared\\file.txt"));
    for (int t = 0; t < kQueues; ++t) {
        threads.emplace_back([&, t] {
            smb_queue_ctx q = shared.q();
            q.messagetable = messagetable_create(1024);
            q.messagetable2 = messagetable2_create(1024);
            for (int i = 0; i < kRounds; ++i) {
                // A connection belongs to one queue; different connections of different
                // queues still meet on data-table slots.
                Endpoints ends = shared.ends();
                ends.client_port = port_of(t, i);
                const uint64_t id = uint64_t(i) * 10;
                const uint64_t file = file_of(t, i);
                const Bytes chain = session(
                    compound({request(CREATE, id, 1, create_request_body(name, FILE_OPEN_IF)),
                              request(WRITE, id + 1, 1, write_request_body(file, Bytes(3000, 1)),
                                      kRelated)}));
                const Bytes single = session(
                    encode(request(WRITE, id + 2, 1, write_request_body(file, Bytes(3000, 2)))));
                std::vector<Bytes> payloads = split_even(chain, 3);
                for (Bytes &s : split_even(single, 3))
                    payloads.push_back(std::move(s));
                const size_t create_response = payloads.size();
                payloads.push_back(session(
                    encode(response(CREATE, id, 1, create_response_body(FILE_OPENED, 0, file)))));
                payloads.push_back(session(
                    encode(request(TREE_CONNECT, id + 3, 0, tree_connect_request_body(name)))));
                payloads.push_back(session(encode(response(TREE_CONNECT, id + 3, uint32_t(t + 1),
                                                           tree_connect_response_body()))));
                payloads.push_back(session(
                    encode(response(OPLOCK_BREAK, ~0ull, 0, response_body(OPLOCK_BREAK, file)))));
                for (size_t k = 0; k < payloads.size(); ++k) {
                    const Bytes &payload = payloads[k];
                    const bool response =
                        payload.size() > 20 && payload[4] == 0xFE && (payload[20] & kResponse);
                    Packet p(ends, response ? Dir::to_client : Dir::to_server, payload);
                    Record rec;
                    const int32_t r = smb_parse_packet(&p.pkt(), &rec.rec, &q, p.payload());
                    if (r < -1 || r == 4 || r > 5) ++bad_results;
                    if (k + 1 == create_response)
                        taken[t][i] = messagetable_get_name(q.messagetable, shared.client(),
                                                            ends.client_port, id, nullptr, nullptr,
                                                            nullptr, nullptr) != nullptr;
                }
            }
            messagetable2_free(q.messagetable2);
            messagetable_free(q.messagetable);
        });
    }
    for (auto &th : threads)
        th.join();
    EXPECT_EQ(bad_results.load(), 0);

    filetable *ft = shared.q().filetable;
    const uint32_t client = shared.client();
    // No torn record: each one is of a file that a queue opened, on that queue's port for the
    // round, and a named one carries the name and tree of that file's CREATE.
    int records = 0;
    for (int32_t s = 0; s < ft->size; ++s) {
        const file_record *r = ft->slots[s];
        if (!r) continue;
        ++records;
        const uint64_t n = r->key.file_id - 0x1000;
        const int t = int(n / 1000), i = int(n % 1000);
        ASSERT_TRUE(r->key.client_addr32 == client && t < kQueues && i < kRounds &&
                    r->key.client_port == port_of(t, i))
            << "slot " << s << " holds a key no queue made";
        if (r->name[0]) {
            EXPECT_EQ(Bytes(r->name, r->name + name.size()), name) << "slot " << s;
            EXPECT_EQ(r->tree_id, 1u) << "slot " << s;
        }
    }
    // Every file whose CREATE was taken is found with its tree, or another key holds its slot;
    // the counts add up.
    int found = 0, overwritten = 0, missing = 0, taken_files = 0;
    for (int t = 0; t < kQueues; ++t) {
        for (int i = 0; i < kRounds; ++i) {
            if (!taken[t][i]) continue;
            ++taken_files;
            const uint64_t file = file_of(t, i);
            const file_record *r = ft->slots[tables_test::slot_of(
                ft, tables_test::le({{file, 8}, {client, 4}, {port_of(t, i), 2}}))];
            if (r && r->key.file_id == file && r->key.client_port == port_of(t, i))
                found += filetable_get_tree_id(ft, client, port_of(t, i), file) == 1;
            else if (r)
                ++overwritten;
            else
                ++missing;
        }
    }
    EXPECT_EQ(missing, 0) << "files taken whose slot is empty";
    EXPECT_EQ(found + overwritten, taken_files);
    EXPECT_GT(taken_files, 0);
    RecordProperty("records", records);
    RecordProperty("taken", taken_files);
    RecordProperty("found", found);
    RecordProperty("overwritten", overwritten);
}

// Records exported on other threads take the session's names while the queue that saw the
// session authenticate again replaces them in the shared session table: every record reads
// whole names of one logon or the other, and the names go with their last holder (checked for
// races by the ThreadSanitizer build, for use after free by the AddressSanitizer build).
TEST(Concurrency, ExportsShareTheNamesASessionReplaces) {
    smb_plugin_ctx ctx{};
    ctx.sessiontable = sessiontable_create(1024);
    constexpr uint64_t kSession = 7;
    smb::ntlmssp::Identity logons[2] = {};
    memset(logons[0].user, 'a', SMB_NAME_SIZE);
    memset(logons[1].user, 'b', 6);
    auto authenticate = [&](int logon) {
        smb::SpinGuard guard(ctx.sessiontable->lock);
        sessiontable_put(ctx.sessiontable, 1, 2, kSession, 1, false, logons[logon]);
    };
    authenticate(0);
    constexpr int kRounds = 2000;
    std::atomic<int> bad{0};
    std::vector<std::thread> threads;
    threads.emplace_back([&] {
        for (int i = 0; i < kRounds; ++i)
            authenticate(i % 2);
    });
    for (int exporter = 0; exporter < 2; ++exporter)
        threads.emplace_back([&] {
            for (int i = 0; i < kRounds; ++i) {
                smb_flow_data rec;
                smb_record_init(&rec);
                rec.version = SMB_VERSION_2;
                rec.session_id = kSession;
                rec.session_ns = 5;
                smb_who_complete(&ctx, &rec, 1, 2);
                host_slot copy = smb_record_copy(&rec);
                smb_record_release(&rec);
                const smb_who *w = static_cast<smb_flow_data *>(copy)->who;
                uint8_t user[SMB_NAME_SIZE];
                if (w && w->identity) w->identity->expand(smb::ntlmssp::Name::user, user);
                if (!w || !w->identity ||
                    (memcmp(user, logons[0].user, SMB_NAME_SIZE) != 0 &&
                     memcmp(user, logons[1].user, SMB_NAME_SIZE) != 0))
                    ++bad;
                smb_record_free(&copy);
            }
        });
    for (auto &t : threads)
        t.join();
    EXPECT_EQ(bad.load(), 0);
    sessiontable_free(ctx.sessiontable);
}

}  // namespace
}  // namespace smb2test
