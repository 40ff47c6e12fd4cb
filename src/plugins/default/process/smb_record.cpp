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

smb_flow_data *smb_record_copy(const smb_flow_data *src) {
    auto *rec = static_cast<smb_flow_data *>(corvaneexp_malloc(sizeof(smb_flow_data), 0));
    *rec = *src;
    rec->file_name = copy_name(src->file_name);
    rec->tree_name = copy_name(src->tree_name);
    if (src->activity) rec->activity = smb_activity_copy(src->activity);
    rec->who = smb_who_copy(src->who);
    return rec;
}

void smb_record_free(host_slot *slot) {
    auto *rec = static_cast<smb_flow_data *>(*slot);
    if (!rec) return;
    free(rec->file_name);
    free(rec->tree_name);
    if (rec->activity) free(rec->activity);
    smb_who_free(rec->who);
    free(rec);
    *slot = nullptr;
}
