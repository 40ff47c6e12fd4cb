// Fresh record, deep copy and free of the per-packet and per-flow SMB record, and the
// per-thread reuse of their memory.
#include <string.h>
#include <pthread.h>
#include <stdlib.h>

#include <atomic>

#include "../../../../lib/utils_alloc.h"
#include "smb.h"
#include "smb_activity.h"
#include "smb_who.h"

const uint32_t smb_cmd_invalid = SMB_CMD_INVALID;
const uint8_t smb_type_invalid = SMB_TYPE_INVALID;
const uint8_t smb_op_invalid = SMB_OP_INVALID;

namespace {

// Every parsed packet makes a record and almost every one is freed a moment later, when the
// update hook has merged it into its flow's record; names and the blocks of smb_who come and go
// with the exported records. Freed blocks of each size stay with the thread that freed them
// and serve its next allocation of that size without the allocator. The stacks are per thread
// because the hooks of a queue and the export may run on different threads, and bounded
// because one thread may free far more than it allocates. They are deep enough for a whole
// batch of exported flows (the host hands up to 512 back at once to the queue's thread, each
// with a record, names and a block): shallower stacks overflow on each batch, and the
// allocations between two batches then miss them.
// Separate blocks of counters (activity=1) come and go with the counters parked for a connection
// until its flow is exported, a few thousand of them in a large capture.
enum Kind { kPlainRecord, kBlockRecord, kName, kWho, kActivity, kKinds };
constexpr size_t kSizes[kKinds] = {sizeof(smb_flow_data), sizeof(smb_record_block), SMB_NAME_SIZE,
                                   sizeof(smb_who), sizeof(smb_activity)};
#if defined(__SANITIZE_ADDRESS__)
constexpr int kDepth = 0;  // every block goes back at once, so that a use after free is seen
#else
constexpr int kDepth = 1024;
#endif

struct Stacks {
    void *items[kKinds][kDepth > 0 ? kDepth : 1];
    int count[kKinds];
};

// The thread's stacks, made on its first allocation or free of a record. Only the pointer is
// thread-local, and in the initial-exec model (eight bytes of the static TLS that the C
// library keeps for modules loaded later), so that reaching it is a load rather than a call
// into the dynamic linker. `retired` is set once the thread's stacks were released at its end:
// blocks freed after that go straight back to the allocator.
__attribute__((tls_model("initial-exec"))) thread_local Stacks *thread_stacks;
__attribute__((tls_model("initial-exec"))) thread_local bool retired;

pthread_key_t exit_key;
pthread_once_t exit_key_once = PTHREAD_ONCE_INIT;
std::atomic<bool> exit_key_made{false};

void release_stacks(void *p) {
    auto *s = static_cast<Stacks *>(p);
    for (int k = 0; k < kKinds; ++k)
        while (s->count[k] > 0)
            free(s->items[k][--s->count[k]]);
    free(s);
    thread_stacks = nullptr;
    retired = true;
}

// Null when caching is off or the thread is ending.
[[gnu::noinline]] Stacks *attach_stacks() {
    if (kDepth == 0 || retired) return nullptr;
    pthread_once(&exit_key_once,
                 [] { exit_key_made = pthread_key_create(&exit_key, release_stacks) == 0; });
    if (!exit_key_made.load(std::memory_order_acquire)) return nullptr;
    auto *s = static_cast<Stacks *>(calloc(1, sizeof(Stacks)));
    if (!s) return nullptr;
    if (pthread_setspecific(exit_key, s) != 0) {
        free(s);
        return nullptr;
    }
    thread_stacks = s;
    return s;
}

// When the module is unloaded (or the process ends), threads that end later must not call
// into it: the key goes, and with it the release of their stacks (a bounded leak for each
// thread still running then), and threads without stacks get none from now on. The calling
// thread's stacks are released here.
[[gnu::destructor]] void forget_threads() {
    if (exit_key_made.exchange(false)) pthread_key_delete(exit_key);
    if (thread_stacks) release_stacks(thread_stacks);
}

inline Stacks *stacks() {
    Stacks *s = thread_stacks;
    return s ? s : attach_stacks();
}

// Uninitialised memory of the kind's size.
[[gnu::always_inline]] inline void *take(Stacks *s, Kind kind) {
    if (s && s->count[kind] > 0) [[likely]]
        return s->items[kind][--s->count[kind]];
    return cv::alloc::allocate_uninitialised(kSizes[kind]);
}

[[gnu::always_inline]] inline void *take(Kind kind) {
    return take(stacks(), kind);
}

// `p` is not null.
[[gnu::always_inline]] inline void give_back(Stacks *s, Kind kind, void *p) {
    if (s && s->count[kind] < kDepth) [[likely]] {
        s->items[kind][s->count[kind]++] = p;
        return;
    }
    free(p);
}

}  // namespace

char *smb_name_new(void) {
    return static_cast<char *>(take(kName));
}

void smb_name_free(char *name) {
    if (name) give_back(stacks(), kName, name);
}

smb_who *smb_who_block_new(void) {
    void *w = take(kWho);
    memset(w, 0, sizeof(smb_who));
    return static_cast<smb_who *>(w);
}

void smb_who_block_free(smb_who *w) {
    give_back(stacks(), kWho, w);
}

smb_activity *smb_activity_block_new(void) {
    void *a = take(kActivity);
    memset(a, 0, sizeof(smb_activity));
    return static_cast<smb_activity *>(a);
}

void smb_activity_block_free(smb_activity *a) {
    if (a) give_back(stacks(), kActivity, a);
}

void smb_record_init(smb_flow_data *rec) {
    // One copy of a constant rather than a memset and four stores: this runs for every packet.
    static constexpr smb_flow_data kFresh = [] {
        smb_flow_data r{};
        r.is_response = 0xff;
        r.commands[0] = SMB_CMD_INVALID;
        r.commands[1] = SMB_CMD_INVALID;
        r.op = SMB_OP_INVALID;
        return r;
    }();
    // Word by word: g++ turns `*rec = kFresh` into a `rep stos` over the zero bytes and a few
    // stores, and the string instruction's start-up costs more than the eleven words.
    static_assert(sizeof(smb_flow_data) % 8 == 0);
    uint64_t words[sizeof(smb_flow_data) / 8];
    memcpy(words, &kFresh, sizeof words);
    for (size_t i = 0; i < sizeof words / 8; ++i)
        memcpy(reinterpret_cast<char *>(rec) + 8 * i, &words[i], 8);
}

smb_flow_data *smb_record_new(void) {
    auto *rec = static_cast<smb_flow_data *>(take(kPlainRecord));
    smb_record_init(rec);
    return rec;
}

static char *copy_name(const char *name) {
    if (!name) return nullptr;
    char *copy = smb_name_new();
    memcpy(copy, name, SMB_NAME_SIZE);
    return copy;
}

smb_flow_data *smb_record_new_with_activity(void) {
    auto *block = static_cast<smb_record_block *>(take(kBlockRecord));
    smb_record_init(&block->rec);
    block->activity = smb_activity{};
    block->rec.activity = &block->activity;
    return &block->rec;
}

namespace {

// A record with counters (activity=1), out of line so that a plain record's move needs no frame.
[[gnu::noinline]] smb_flow_data *move_block_to_heap(const smb_flow_data *src) {
    const bool who_in_room = smb_who_is_inline(src);
    auto *block = static_cast<smb_record_block *>(take(kBlockRecord));
    block->rec = *src;
    block->activity = *src->activity;
    if (!smb_activity_is_inline(src)) smb_activity_block_free(src->activity);
    block->rec.activity = &block->activity;
    if (who_in_room) {
        block->who = *src->who;
        block->rec.who = &block->who;
    }
    return &block->rec;
}

}  // namespace

// A heap record holding `src` (moved: its names and counters change owner); inline counters
// stay inline.
smb_flow_data *smb_record_move_to_heap(const smb_flow_data *src) {
    if (src->activity) return move_block_to_heap(src);
    auto *rec = static_cast<smb_flow_data *>(take(kPlainRecord));
    *rec = *src;
    return rec;
}

smb_flow_data *smb_record_copy(const smb_flow_data *src) {
    smb_flow_data *rec;
    if (src->activity) {
        auto *block = static_cast<smb_record_block *>(take(kBlockRecord));
        block->rec = *src;
        block->rec.activity = &block->activity;
        smb_activity_copy_into(&block->activity, *src->activity);
        rec = &block->rec;
    } else {
        rec = static_cast<smb_flow_data *>(take(kPlainRecord));
        *rec = *src;
    }
    rec->file_name = copy_name(src->file_name);
    rec->tree_name = copy_name(src->tree_name);
    rec->who = nullptr;
    if (src->who) {
        smb_who *room = smb_who_room(rec);
        if (!room) {
            rec->who = smb_who_copy(src->who);
        } else {
            *room = *src->who;
            if (room->identity) room->identity->ref();
            rec->who = room;
        }
    }
    return rec;
}

namespace {

// What a record owns besides its names. Inline counters own nothing but a rename target,
// mostly null; an smb_who in the block's room nothing but its identity reference. The room is
// told before the counters are dropped (which ends the record's look of a block).
inline void release_counters(smb_flow_data *rec) {
    if (rec->who) {
        if (smb_who_is_inline(rec))
            smb::ntlmssp::SharedIdentity::unref(rec->who->identity);
        else
            smb_who_free(rec->who);
    }
    if (smb_activity *a = rec->activity; a && (a->rename_to || !smb_activity_is_inline(rec)))
        smb_activity_drop(rec);
}

}  // namespace

void smb_record_release(smb_flow_data *rec) {
    smb_name_free(rec->file_name);
    smb_name_free(rec->tree_name);
    release_counters(rec);
    rec->file_name = nullptr;
    rec->tree_name = nullptr;
    rec->activity = nullptr;
    rec->who = nullptr;
}

// Runs for almost every packet (the host frees the records merged into their flows): one
// look-up of the thread's stacks serves the names and the record.
void smb_record_free(host_slot *slot) {
    auto *rec = static_cast<smb_flow_data *>(*slot);
    if (!rec) return;
    // Decided before the release: a separate block of counters is dropped with it.
    const Kind kind = rec->activity && smb_activity_is_inline(rec) ? kBlockRecord : kPlainRecord;
    Stacks *s = stacks();
    if (rec->file_name) give_back(s, kName, rec->file_name);
    if (rec->tree_name) give_back(s, kName, rec->tree_name);
    release_counters(rec);
    give_back(s, kind, rec);
    *slot = nullptr;
}
