// Fresh record, deep copy and free of the per-packet and per-flow SMB record.
#include <string.h>
#include <stdlib.h>

#include "../../../../lib/utils_alloc.h"
#include "smb.h"
#include "smb_activity.h"
#include "smb_who.h"

const uint32_t smb_cmd_invalid = SMB_CMD_INVALID;
const uint8_t smb_type_invalid = SMB_TYPE_INVALID;
const uint8_t smb_op_invalid = SMB_OP_INVALID;

void smb_record_init(smb_flow_data *rec) {
    memset(rec, 0, sizeof *rec);
    rec->is_response = 0xff;
    rec->commands[0] = SMB_CMD_INVALID;
    rec->commands[1] = SMB_CMD_INVALID;
    rec->op = SMB_OP_INVALID;
}

smb_flow_data *smb_record_new(void) {
    auto *rec = static_cast<smb_flow_data *>(corvaneexp_malloc(sizeof(smb_flow_data), 0));
    smb_record_init(rec);
    return rec;
}

static char *copy_name(const char *name) {
    if (!name) return nullptr;
    auto *copy = static_cast<char *>(corvaneexp_malloc(SMB_NAME_SIZE, 0));
    memcpy(copy, name, SMB_NAME_SIZE);
    return copy;
}

smb_flow_data *smb_record_new_with_activity(void) {
    auto *block = static_cast<smb_record_block *>(corvaneexp_malloc(sizeof(smb_record_block), 0));
    smb_record_init(&block->rec);
    block->rec.activity = &block->activity;
    return &block->rec;
}

// A heap record holding `src` (moved: its names and counters change owner); inline counters
// stay inline.
smb_flow_data *smb_record_move_to_heap(const smb_flow_data *src) {
    if (!src->activity) {
        auto *rec = static_cast<smb_flow_data *>(corvaneexp_malloc(sizeof(smb_flow_data), 0));
        *rec = *src;
        return rec;
    }
    auto *block = static_cast<smb_record_block *>(corvaneexp_malloc(sizeof(smb_record_block), 0));
    block->rec = *src;
    block->activity = *src->activity;
    if (!smb_activity_is_inline(src)) free(src->activity);
    block->rec.activity = &block->activity;
    return &block->rec;
}

smb_flow_data *smb_record_copy(const smb_flow_data *src) {
    smb_flow_data *rec;
    if (src->activity) {
        rec = smb_record_new_with_activity();
        *rec = *src;
        rec->activity = &reinterpret_cast<smb_record_block *>(rec)->activity;
        smb_activity_copy_into(rec->activity, *src->activity);
    } else {
        rec = static_cast<smb_flow_data *>(corvaneexp_malloc(sizeof(smb_flow_data), 0));
        *rec = *src;
    }
    rec->file_name = copy_name(src->file_name);
    rec->tree_name = copy_name(src->tree_name);
    rec->who = smb_who_copy(src->who);
    return rec;
}

namespace {

// What a record owns. Inline counters own nothing but a rename target, mostly null.
inline void release_owned(smb_flow_data *rec) {
    free(rec->file_name);
    free(rec->tree_name);
    if (smb_activity *a = rec->activity; a && (a->rename_to || !smb_activity_is_inline(rec)))
        smb_activity_drop(rec);
    smb_who_free(rec->who);
}

}  // namespace

void smb_record_release(smb_flow_data *rec) {
    release_owned(rec);
    rec->file_name = nullptr;
    rec->tree_name = nullptr;
    rec->activity = nullptr;
    rec->who = nullptr;
}

void smb_record_free(host_slot *slot) {
    auto *rec = static_cast<smb_flow_data *>(*slot);
    if (!rec) return;
    release_owned(rec);
    free(rec);
    *slot = nullptr;
}
