// The shared data table used from several threads at once, each call under its lock and never
// two locks at once, as the queues use it (the tree and file tables' use by the parser from
// several queues is tests/parser/concurrency_test.cpp's). Small tables make keys of different
// threads collide on slots all the time. Meant for the ThreadSanitizer build
// as well (ctest label "threads").
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <span>
#include <thread>
#include <vector>

#include "smb_data_table.h"
#include "smb_file_table.h"
#include "smb_tree_table.h"
#include "table_test_support.h"

using namespace tables_test;

namespace {

constexpr int kThreads = 4;
#if defined(__SANITIZE_THREAD__)
constexpr int kRounds = 4000;
#else
constexpr int kRounds = 20000;
#endif

// A small deterministic generator per thread.
struct Rng {
    uint64_t s;
    uint32_t next() {
        s = s * 6364136223846793005ull + 1442695040888963407ull;
        return uint32_t(s >> 33);
    }
};

template <typename Body>
void run_threads(Body body) {
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i)
        threads.emplace_back(body, i);
    for (auto &th : threads)
        th.join();
}

// Every thread sends compound messages on keys of its own through the one data table, several
// at a time, in segments, each segment handled by one datatable_continue under the lock. A
// completed message is parsed from the caller's copy after the lock is released, while taking
// the tree table's lock (never both). Keys of all threads land on the same slots and replace
// each other's entries: a replaced message is lost, never mixed with another. At the end every
// message still in flight is finished, so that each message started is either completed intact
// or counted lost, whatever the interleaving.
TEST(SharedTables, DataTableMessagesCompleteIntactOrAreLostToANewerEntry) {
    datatable *dt = datatable_create(1024);
    treetable *tt = treetable_create(1024);
    std::atomic<uint64_t> started{0}, completed{0}, lost{0}, bad{0};
    constexpr int kInFlight = 16;
    struct Pending {
        uint16_t port = 0;
        uint8_t dir = 0;
        uint32_t pos = 0;
        std::vector<uint8_t> sent;  // empty when no message is in flight
    };
    run_threads([&](int thread) {
        Rng rng{uint64_t(thread) * 7919 + 3};
        std::array<uint8_t, kDataMessageMax> message;
        std::array<Pending, kInFlight> pending;
        // No other thread ever writes a key with this address.
        const uint32_t addr = 0xac100000 + uint32_t(thread);
        // Hands the next n bytes of m to the table; the message's outcome once it has one.
        auto segment = [&](Pending &m, uint32_t n) {
            const uint32_t total = uint32_t(m.sent.size());
            datatable_continuation c;
            {
                smb::SpinGuard g(dt->lock);
                c = datatable_continue(dt, addr, m.port, m.dir, std::span(m.sent).subspan(m.pos, n),
                                       n, message);
            }
            m.pos += n;
            if (c.result == 1 && m.pos < total) return;
            if (c.result == -1) {
                ++lost;
            } else if (c.result == 2) {
                ++completed;
                if (c.total_length != total ||
                    !std::equal(m.sent.begin(), m.sent.end(), message.begin()))
                    ++bad;
                // The parse that follows may take another table's lock.
                smb::SpinGuard g(tt->lock);
                treetable_insert(tt, message.data() + 4, nullptr, addr, m.port, total);
            } else {
                ++bad;  // no entry without buffer is made for these keys; all bytes were sent
            }
            m.sent.clear();
        };
        for (int round = 0; round < kRounds; ++round) {
            const uint32_t pick = rng.next() % (kInFlight + 2);
            if (pick >= kInFlight) {  // a single message's ids, on ports no message uses
                smb::SpinGuard g(dt->lock);
                datatable_insert(dt, 1, 2, addr, uint16_t(60000 + rng.next() % 1000), pick & 1);
                continue;
            }
            Pending &m = pending[pick];
            if (m.sent.empty()) {
                m.port = uint16_t(1024 + pick * 64 + rng.next() % 64);
                m.dir = uint8_t(rng.next() % 2);
                m.sent.resize(68 + rng.next() % (kDataMessageMax - 67));
                for (auto &b : m.sent)
                    b = uint8_t(rng.next());
                const uint32_t total = uint32_t(m.sent.size());
                m.pos = std::min<uint32_t>(total - 1, 64 + rng.next() % 1400);
                ++started;
                smb::SpinGuard g(dt->lock);
                datatable_save_data(dt, addr, m.port, m.dir, total, m.sent.data(), m.pos, m.pos);
                continue;
            }
            segment(m, std::min<uint32_t>(uint32_t(m.sent.size()) - m.pos, 1 + rng.next() % 1460));
        }
        for (Pending &m : pending)
            while (!m.sent.empty())
                segment(m, std::min<uint32_t>(uint32_t(m.sent.size()) - m.pos, 1460));
    });
    EXPECT_EQ(completed.load() + lost.load(), started.load());
    EXPECT_GT(completed.load(), 0u);
    EXPECT_GT(lost.load(), 0u);
    EXPECT_EQ(bad.load(), 0u);
    RecordProperty("completed", int(completed.load()));
    RecordProperty("lost", int(lost.load()));
    datatable_free(dt);
    treetable_free(tt);
}

}  // namespace
