// Several queues parse at once over the shared tree, file and data tables, each with its own
// message tables. Built with ThreadSanitizer this checks that every shared-table call of the
// parser holds that table's lock; in every build, that reassembly survives other queues
// replacing entries on the same data-table slots.
#include <thread>

#include "parser_harness.h"

namespace smb2test {
namespace {

uint16_t port_of(int queue, int round) {
    return uint16_t(40000 + queue * 64 + round % 64);
}

TEST(Concurrency, QueuesShareTheTreeFileAndDataTables) {
    ParserHarness shared;
    constexpr int kQueues = 4;
    constexpr int kRounds = 300;
    std::vector<std::thread> threads;
    std::atomic<int> bad_results{0};
    for (int t = 0; t < kQueues; ++t) {
        threads.emplace_back([&, t] {
            smb_queue_ctx q = shared.q();
            q.messagetable = messagetable_create(1024);
            q.messagetable2 = messagetable2_create(1024);
            const Bytes name = utf16(std::string_view("shared\\file.txt"));
            for (int i = 0; i < kRounds; ++i) {
                // A connection belongs to one queue; different connections of different
                // queues still meet on data-table slots.
                Endpoints ends = shared.ends();
                ends.client_port = port_of(t, i);
                const uint64_t id = uint64_t(i) * 10;
                const uint64_t file = 0x1000 + uint64_t(t) * 1000 + i;
                const Bytes chain = session(
                    compound({request(CREATE, id, 1, create_request_body(name, FILE_OPEN_IF)),
                              request(WRITE, id + 1, 1, write_request_body(file, Bytes(3000, 1)),
                                      kRelated)}));
                const Bytes single = session(
                    encode(request(WRITE, id + 2, 1, write_request_body(file, Bytes(3000, 2)))));
                std::vector<Bytes> payloads = split_even(chain, 3);
                for (Bytes &s : split_even(single, 3))
                    payloads.push_back(std::move(s));
                payloads.push_back(session(
                    encode(response(CREATE, id, 1, create_response_body(FILE_OPENED, 0, file)))));
                payloads.push_back(session(
                    encode(request(TREE_CONNECT, id + 3, 0, tree_connect_request_body(name)))));
                payloads.push_back(session(encode(response(TREE_CONNECT, id + 3, uint32_t(t + 1),
                                                           tree_connect_response_body()))));
                payloads.push_back(session(
                    encode(response(OPLOCK_BREAK, ~0ull, 0, response_body(OPLOCK_BREAK, file)))));
                for (const Bytes &payload : payloads) {
                    const bool response =
                        payload.size() > 20 && payload[4] == 0xFE && (payload[20] & kResponse);
                    Packet p(ends, response ? Dir::to_client : Dir::to_server, payload);
                    Record rec;
                    const int32_t r = smb_parse_packet(&p.pkt(), &rec.rec, &q, p.payload());
                    if (r < -1 || r == 4 || r > 5) ++bad_results;
                }
            }
            messagetable2_free(q.messagetable2);
            messagetable_free(q.messagetable);
        });
    }
    for (auto &th : threads)
        th.join();
    EXPECT_EQ(bad_results.load(), 0);
    // Every queue's files reached the shared file table, their names through reassembled chains.
    for (int t = 0; t < kQueues; ++t) {
        smb::SpinGuard g(shared.q().filetable->lock);
        int found = 0;
        for (int i = 0; i < kRounds; ++i) {
            found += filetable_get_tree_id(shared.q().filetable, shared.client(), port_of(t, i),
                                           0x1000 + uint64_t(t) * 1000 + i) != 0;
        }
        // How many survive depends on the interleaving: other queues' files overwrite file-table
        // slots and their chains replace pending data-table entries. Some must arrive.
        EXPECT_GT(found, 0) << t;
    }
}

}  // namespace
}  // namespace smb2test
