// Floods that a hostile or broken network can send at the plug-in: CREATE requests that are
// never answered, files opened and never closed, connections that start a compound message and
// never finish it, one TREE_CONNECT per connection from ever new clients. Each flood must fill
// its table, and the heap must stop growing once the tables are full.
#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <functional>
#include <tuple>
#include <string>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// The sanitizers replace malloc and keep their own count (sanitizer/allocator_interface.h,
// which not every compiler installs).
extern "C" size_t __sanitizer_get_current_allocated_bytes(void);
#endif

#include "mini_host.h"
#include "smb.h"
#include "smb_data_table.h"
#include "smb_file_table.h"
#include "smb_message_table.h"
#include "smb_message_table2.h"
#include "smb_parser.h"
#include "smb_synth.h"
#include "smb_tree_table.h"
#include "packet_decoder.h"

namespace {

size_t heap_in_use() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return __sanitizer_get_current_allocated_bytes();
#else
    return mallinfo2().uordblks;
#endif
}

template <typename Table>
int64_t occupied(const Table *t) {
    int64_t n = 0;
    for (int32_t i = 0; i < t->size; ++i)
        n += t->slots[i] != nullptr;
    return n;
}

// The plug-in with one queue; frames go through the filter hook as a host would hand them.
class plugin_under_flood {
  public:
    explicit plugin_under_flood(const char *params) : plugin_(params) {}
    synth::frame_sink sink() {
        return [this](std::span<const uint8_t> frame) { packet(frame); };
    }
    smb_queue_ctx *queue() const { return plugin_.queue; }

  private:
    void packet(std::span<const uint8_t> frame) {
        corvane_host::DecodedPacket decoded;
        ASSERT_EQ(corvane_host::decode_frame(corvane_host::kLinkEthernet, frame.data(),
                                             frame.size(), decoded),
                  corvane_host::DecodeStatus::Ok);
        host_packet &pkt = decoded.pkt;
        const int d = pkt.src_port == synth::kSmbPort ? 1 : 0;
        pkt.flags = static_cast<uint16_t>(d);
        pkt.dir_counters[d] = {1, frame.size()};
        host_slot slot = nullptr;
        process_smb_filter(plugin_.queue, &pkt, nullptr, &slot);
        process_smb_callback(nullptr, &slot);
    }

    mini_host::plugin plugin_;
};

struct flood {
    std::string name;
    const char *params;
    // Sends `n` units of the flood (requests, files or connections).
    std::function<void(const synth::frame_sink &, uint64_t n)> send;
    uint64_t small, large;  // the tables are full after `small` units
    // Occupied slots and slot count of the table the flood fills.
    std::function<std::pair<int64_t, int64_t>(const smb_queue_ctx *)> table;
};

void PrintTo(const flood &f, std::ostream *os) {
    *os << f.name;
}

class Flood : public testing::TestWithParam<flood> {};

// The most heap that the records of all five tables may hold: per occupied slot one record
// and the allocator's overhead, and for the data table a buffer of the largest message that is
// ever saved.
size_t heap_bound(const smb_queue_ctx *q) {
    constexpr size_t kOverhead = 32;
    return occupied(q->messagetable) * (sizeof(message_record) + kOverhead) +
           occupied(q->messagetable2) * (sizeof(message2_record) + kOverhead) +
           occupied(q->treetable) * (sizeof(tree_record) + kOverhead) +
           occupied(q->filetable) * (sizeof(file_record) + kOverhead) +
           occupied(q->datatable) * (sizeof(data_record) + SMB_REASSEMBLY_MAX + 2 * kOverhead);
}

TEST_P(Flood, TablesStayWithinTheirSizesAndMemoryStaysFlat) {
    const flood &f = GetParam();
    constexpr size_t kSlack = 64 * 1024;
    int64_t used[2], slots = 0;
    size_t grown[2], bound[2];
    for (int run = 0; run < 2; ++run) {
        plugin_under_flood p(f.params);
        const size_t before = heap_in_use();
        f.send(p.sink(), run == 0 ? f.small : f.large);
        std::tie(used[run], slots) = f.table(p.queue());
        grown[run] = heap_in_use() - before;
        bound[run] = heap_bound(p.queue());
        // The flood must reach the table it is aimed at and fill most of it, or the memory
        // bounds below hold for want of records.
        EXPECT_GE(used[run] * 4, slots * 3) << used[run] << " of " << slots << " slots";
        EXPECT_LE(grown[run], bound[run] + kSlack);
    }
    // Four times the traffic costs memory only for the slots that it newly occupied: every
    // other record was overwritten in place.
    EXPECT_LE(grown[1], grown[0] + (bound[1] - bound[0]) + kSlack)
        << f.small << " units: " << used[0] << " of " << slots << " slots, " << grown[0]
        << " bytes; " << f.large << " units: " << used[1] << " slots, " << grown[1] << " bytes";
}

template <auto table>
std::pair<int64_t, int64_t> slots_of(const smb_queue_ctx *q) {
    return {occupied(q->*table), (q->*table)->size};
}

INSTANTIATE_TEST_SUITE_P(
    Hostile, Flood,
    testing::Values(
        flood{"unanswered_creates", nullptr,
              [](const synth::frame_sink &s, uint64_t n) { synth::open_files(s, n, 200, false); },
              10000, 40000, slots_of<&smb_queue_ctx::messagetable>},
        flood{"files_never_closed", "filetable-size=4096",
              [](const synth::frame_sink &s, uint64_t n) { synth::open_files(s, n, 200, true); },
              12000, 48000, slots_of<&smb_queue_ctx::filetable>},
        flood{"half_open_compounds", nullptr,
              [](const synth::frame_sink &s, uint64_t n) { synth::half_open(s, n); }, 3000, 12000,
              slots_of<&smb_queue_ctx::datatable>},
        flood{"new_client_every_connection", nullptr,
              [](const synth::frame_sink &s, uint64_t n) {
                  synth::open_files(s, n, static_cast<uint32_t>(n), true);
              },
              5000, 20000, slots_of<&smb_queue_ctx::treetable>}),
    [](const testing::TestParamInfo<flood> &info) { return info.param.name; });

}  // namespace
