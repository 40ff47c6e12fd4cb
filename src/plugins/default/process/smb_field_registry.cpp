// Registration of the six exported fields with the host, in the order in which the host lists
// them, and of the defaults that the host exports for flows without a valid value.
#include <stddef.h>

#include <array>
#include <vector>

#include "smb_fields.h"

namespace {

constexpr uint32_t kAllQueues = 0xffffffffu;

const std::array<field_desc, 6> kFields = {{
    {"SMB_CMD_REQUEST", CORVANE_FIELD_NUMBER, 4, validity_cmd_request, cmd_length,
     value_fill_cmd_request, value_fill_cmd_request_txt, &smb_cmd_invalid},
    {"SMB_CMD_RESPONSE", CORVANE_FIELD_NUMBER, 4, validity_cmd_response, cmd_length,
     value_fill_cmd_response, value_fill_cmd_response_txt, &smb_cmd_invalid},
    {"SMB_TREE", CORVANE_FIELD_STRING, SMB_NAME_SIZE, validity_tree, tree_length, value_fill_tree,
     value_fill_tree_txt, nullptr},
    {"SMB_FILE_TYPE", CORVANE_FIELD_NUMBER, 1, validity_file_type, file_type_length,
     value_fill_file_type, value_fill_file_type_txt, &smb_type_invalid},
    {"SMB_FILE_NAME", CORVANE_FIELD_STRING, SMB_NAME_SIZE, validity_file_name, file_name_length,
     value_fill_file_name, value_fill_file_name_txt, nullptr},
    {"SMB_OP", CORVANE_FIELD_NUMBER, 1, validity_op, op_length, value_fill_op, value_fill_op_txt,
     &smb_op_invalid},
}};

}  // namespace

void smb_register_field_descs(void *host, uint32_t plugin_id, smb_plugin_ctx *ctx,
                              const field_desc *fields, size_t count) {
    std::vector<void *> handles(count);
    for (size_t i = 0; i < count; ++i) {
        const field_desc &f = fields[i];
        handles[i] = corvane_getter_add(host, plugin_id, kAllQueues, f.name, f.type, f.size, 0, ctx,
                                        f.validity, f.length, f.fill, f.fill_txt, 0);
    }
    // Defaults after every field is known, as the host lists them.
    for (size_t i = 0; i < count; ++i)
        if (fields[i].default_value)
            corvane_getter_set_default(handles[i], fields[i].default_value, fields[i].size);
}

void smb_register_fields(void *host, uint32_t plugin_id, smb_plugin_ctx *ctx) {
    smb_register_field_descs(host, plugin_id, ctx, kFields.data(), kFields.size());
    if (ctx && ctx->activity) {
        smb_register_activity_fields(host, plugin_id, ctx);
        smb_register_who_fields(host, plugin_id, ctx);
    }
}
