// Queue set-up: a private copy of the plug-in context with message tables of its own, the
// shared tables reached through the same handles, and the three queue hooks.
#include <gtest/gtest.h>

#include "mini_host.h"
#include "smb_message_table.h"
#include "smb_message_table2.h"

namespace {

TEST(Queue, CopiesTheContextAndOwnsItsMessageTables) {
    mini_host::reset();
    int host = 0;
    auto *ctx = static_cast<smb_plugin_ctx *>(process_smb_init(
        5, "port=139,filetable-size=1024,messagetable-size=3000,messagetable2-size=1000", &host,
        0));
    mini_host::reset();
    auto *q1 = static_cast<smb_queue_ctx *>(process_smb_init_queue(5, ctx, 1));
    auto *q2 = static_cast<smb_queue_ctx *>(process_smb_init_queue(5, ctx, 2));

    for (smb_queue_ctx *q : {q1, q2}) {
        EXPECT_EQ(reinterpret_cast<uintptr_t>(q) % 128, 0u);
        EXPECT_EQ(q->port, 139);
        EXPECT_EQ(q->treetable, ctx->treetable);
        EXPECT_EQ(q->filetable, ctx->filetable);
        EXPECT_EQ(q->datatable, ctx->datatable);
        EXPECT_EQ(q->messagetable_size, 3000u);
        ASSERT_NE(q->messagetable, nullptr);
        ASSERT_NE(q->messagetable2, nullptr);
        EXPECT_EQ(q->messagetable->size, 4096);
        EXPECT_EQ(q->messagetable2->size, 1024);
    }
    EXPECT_EQ(q1->queue_id, 1u);
    EXPECT_EQ(q2->queue_id, 2u);
    EXPECT_NE(q1->messagetable, q2->messagetable);
    EXPECT_NE(q1->messagetable2, q2->messagetable2);
    EXPECT_EQ(ctx->queue_id, 0u);  // the plug-in context itself is left alone
    EXPECT_EQ(ctx->messagetable, nullptr);

    const std::vector<std::string> calls = {
        "corvane_hook_queue_filter", "corvane_hook_queue_update", "corvane_hook_queue_release",
        "corvane_hook_queue_filter", "corvane_hook_queue_update", "corvane_hook_queue_release",
    };
    EXPECT_EQ(mini_host::host().calls, calls);
    const std::vector<void *> fns = {reinterpret_cast<void *>(&process_smb_filter),
                                     reinterpret_cast<void *>(&process_smb_update),
                                     reinterpret_cast<void *>(&process_smb_release)};
    for (size_t i = 0; i < 6; ++i) {
        const mini_host::hook &h = mini_host::host().hooks[i];
        EXPECT_EQ(h.ctx, i < 3 ? q1 : q2);
        EXPECT_EQ(h.plugin_id, 5u);
        EXPECT_EQ(h.fn, fns[i % 3]);
    }

    process_smb_shutdown_queue(q2);
    process_smb_shutdown_queue(q1);
    process_smb_shutdown(ctx);
}

}  // namespace
