// Queue set-up: a private copy of the plug-in context with message tables of its own, the
// shared tables reached through the same handles, and the three queue hooks.
#include <gtest/gtest.h>

#include "mini_host.h"
#include "smb_message_table.h"
#include "smb_message_table2.h"

namespace {

TEST(Queue, CopiesTheContextAndOwnsItsMessageTables) {
    mini_host::reset();
    auto *ctx = static_cast<smb_plugin_ctx *>(process_smb_init(
        5, "port=139,filetable-size=1024,messagetable-size=3000,messagetable2-size=1000", nullptr,
        0));
    mini_host::reset();
    smb_queue_ctx *q[2];
    for (uint32_t id : {0u, 1u})
        q[id] = static_cast<smb_queue_ctx *>(process_smb_init_queue(5, ctx, id + 1));
    const void *hooks[] = {reinterpret_cast<void *>(&process_smb_filter),
                           reinterpret_cast<void *>(&process_smb_update),
                           reinterpret_cast<void *>(&process_smb_release)};
    ASSERT_EQ(mini_host::host().hooks.size(), 6u);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(reinterpret_cast<uintptr_t>(q[i]) % 128, 0u);
        EXPECT_EQ(q[i]->queue_id, i + 1u);
        EXPECT_EQ(q[i]->port, 139);
        EXPECT_EQ(q[i]->treetable, ctx->treetable);
        EXPECT_EQ(q[i]->filetable, ctx->filetable);
        EXPECT_EQ(q[i]->datatable, ctx->datatable);
        ASSERT_NE(q[i]->messagetable, nullptr);
        ASSERT_NE(q[i]->messagetable2, nullptr);
        EXPECT_EQ(q[i]->messagetable->size, 4096);
        EXPECT_EQ(q[i]->messagetable2->size, 1024);
        for (int k = 0; k < 3; ++k) {  // filter, update, release, in this order
            const mini_host::hook &h = mini_host::host().hooks[3 * i + k];
            EXPECT_EQ(h.ctx, q[i]);
            EXPECT_EQ(h.plugin_id, 5u);
            EXPECT_EQ(h.fn, hooks[k]);
        }
    }
    EXPECT_NE(q[0]->messagetable, q[1]->messagetable);
    EXPECT_NE(q[0]->messagetable2, q[1]->messagetable2);
    EXPECT_EQ(ctx->queue_id, 0u);  // the plug-in context itself is left alone
    EXPECT_EQ(ctx->messagetable, nullptr);
    process_smb_shutdown_queue(q[1]);
    process_smb_shutdown_queue(q[0]);
    process_smb_shutdown(ctx);
}

}  // namespace
