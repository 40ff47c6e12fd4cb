// Set-up and tear-down of one processing queue: its own context and message tables, and the
// hooks that run on its packets.
#define CV_LOG_SOURCE "src/plugins/default/process/smb"

#include <stdlib.h>

#include "cv_log.h"
#include "smb.h"
#include "smb_activity_table.h"
#include "smb_message_table.h"
#include "smb_message_table2.h"
#include "smb_tcp_seen.h"
#include "utils_alloc.h"

void *process_smb_init_queue(uint32_t plugin_id, void *plugin_ctx, uint32_t queue_id) {
    // Aligned so that queues running side by side never share a cache line of their contexts.
    auto *q = static_cast<smb_queue_ctx *>(corvaneexp_malloc(sizeof(smb_queue_ctx), 1));
    *q = *static_cast<const smb_plugin_ctx *>(plugin_ctx);
    q->queue_id = queue_id;
    q->messagetable = messagetable_create(static_cast<int32_t>(q->messagetable_size));
    q->messagetable2 = messagetable2_create(static_cast<int32_t>(q->messagetable2_size));
    if (q->activity) {
        q->activitytable = activitytable_create(static_cast<int32_t>(q->activitytable_size));
        // Zeroed by the system: their pages cost memory only once chains and connections land
        // on them (most queues follow few long chains).
        q->chaintable = static_cast<chaintable *>(cv::alloc::allocate_zeroed(sizeof(chaintable)));
        q->tcp_seen =
            static_cast<tcp_seen_table *>(cv::alloc::allocate_zeroed(sizeof(tcp_seen_table)));
    }

    corvane_hook_queue_filter(q, plugin_id, process_smb_filter);
    corvane_hook_queue_update(q, plugin_id, process_smb_update);
    corvane_hook_queue_release(q, plugin_id, process_smb_release);
    return q;
}

void process_smb_shutdown_queue(void *queue_ctx) {
    auto *q = static_cast<smb_queue_ctx *>(queue_ctx);
    messagetable2_free(q->messagetable2);
    messagetable_free(q->messagetable);
    if (q->activitytable) {
        if (q->activitytable->dropped)
            CV_LOG(CVLOG_NOTICE,
                   "SMB plugin: queue %u dropped %llu pending requests from the activity table",
                   q->queue_id, static_cast<unsigned long long>(q->activitytable->dropped));
        activitytable_free(q->activitytable);
    }
    if (q->chaintable) {
        if (q->chaintable->dropped)
            CV_LOG(CVLOG_NOTICE,
                   "SMB plugin: queue %u dropped %llu long compound chains before their end",
                   q->queue_id, static_cast<unsigned long long>(q->chaintable->dropped));
        free(q->chaintable);
    }
    free(q->tcp_seen);
    free(q);
}
