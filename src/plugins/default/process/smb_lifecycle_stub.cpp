// Placeholder lifecycle hooks until the plug-in frame lands.
#include "../../../../lib/utils_alloc.h"
#include "smb.h"

#include <stdlib.h>

void *process_smb_init(uint32_t, const char *, void *, uint32_t) {
    auto *ctx = static_cast<smb_plugin_ctx *>(corvaneexp_malloc(sizeof(smb_plugin_ctx), 0));
    ctx->port = 445;
    return ctx;
}

void process_smb_shutdown(void *ctx) { free(ctx); }

void *process_smb_init_queue(uint32_t, void *ctx, uint32_t queue_id) {
    auto *q = static_cast<smb_queue_ctx *>(corvaneexp_malloc(sizeof(smb_queue_ctx), 1));
    *q = *static_cast<smb_plugin_ctx *>(ctx);
    q->queue_id = queue_id;
    return q;
}

void process_smb_shutdown_queue(void *q) { free(q); }
