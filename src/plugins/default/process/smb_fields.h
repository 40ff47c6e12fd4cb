// The six flow fields that the plug-in exports: their callbacks and their registration.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "smb.h"

// One exported field: what the host is told of it and its callbacks.
struct field_desc {
    const char *name;
    uint32_t type;
    uint32_t size;
    corvane_validity_fn validity;
    corvane_length_fn length;
    corvane_fill_fn fill;
    corvane_fill_fn fill_txt;
    const void *default_value;  // as wide as the field; null: the field has no default
};

// Registers `fields` in their order, then the defaults of those that have one.
void smb_register_field_descs(void *host, uint32_t plugin_id, smb_plugin_ctx *ctx,
                              const field_desc *fields, size_t count);

// Registers SMB_CMD_REQUEST, SMB_CMD_RESPONSE, SMB_TREE, SMB_FILE_TYPE, SMB_FILE_NAME and SMB_OP
// with the host, then the defaults of the four numeric fields.
void smb_register_fields(void *host, uint32_t plugin_id, smb_plugin_ctx *ctx);

// With activity=1: the fourteen activity fields from SMB_DIALECT to SMB_SECURITY after those,
// and the defaults of their numeric ones.
void smb_register_activity_fields(void *host, uint32_t plugin_id, smb_plugin_ctx *ctx);

// With activity=1, after those: SMB_USER, SMB_DOMAIN, SMB_WORKSTATION, SMB_RPC_INTERFACE,
// SMB_RPC_OPNUMS and SMB_RPC_CALLS.
void smb_register_who_fields(void *host, uint32_t plugin_id, smb_plugin_ctx *ctx);

int validity_cmd_request(void *unused, host_flow_record *flow, host_slot *slot);
int validity_cmd_response(void *unused, host_flow_record *flow, host_slot *slot);
int validity_tree(void *unused, host_flow_record *flow, host_slot *slot);
int validity_file_type(void *unused, host_flow_record *flow, host_slot *slot);
int validity_file_name(void *unused, host_flow_record *flow, host_slot *slot);
int validity_op(void *unused, host_flow_record *flow, host_slot *slot);

int cmd_length(void *unused, host_flow_record *flow, host_slot *slot);
int tree_length(void *unused, host_flow_record *flow, host_slot *slot);
int file_type_length(void *unused, host_flow_record *flow, host_slot *slot);
int file_name_length(void *unused, host_flow_record *flow, host_slot *slot);
int op_length(void *unused, host_flow_record *flow, host_slot *slot);

void value_fill_cmd_request(void *unused, host_flow_record *flow, host_slot *slot, void *output,
                            uint32_t a, uint32_t b);
void value_fill_cmd_request_txt(void *unused, host_flow_record *flow, host_slot *slot, void *output,
                                uint32_t a, uint32_t b);
void value_fill_cmd_response(void *unused, host_flow_record *flow, host_slot *slot, void *output,
                             uint32_t a, uint32_t b);
void value_fill_cmd_response_txt(void *unused, host_flow_record *flow, host_slot *slot,
                                 void *output, uint32_t a, uint32_t b);
void value_fill_tree(void *unused, host_flow_record *flow, host_slot *slot, void *output,
                     uint32_t a, uint32_t b);
void value_fill_tree_txt(void *unused, host_flow_record *flow, host_slot *slot, void *output,
                         uint32_t a, uint32_t b);
void value_fill_file_type(void *unused, host_flow_record *flow, host_slot *slot, void *output,
                          uint32_t a, uint32_t b);
void value_fill_file_type_txt(void *unused, host_flow_record *flow, host_slot *slot, void *output,
                              uint32_t a, uint32_t b);
void value_fill_file_name(void *unused, host_flow_record *flow, host_slot *slot, void *output,
                          uint32_t a, uint32_t b);
void value_fill_file_name_txt(void *unused, host_flow_record *flow, host_slot *slot, void *output,
                              uint32_t a, uint32_t b);
void value_fill_op(void *unused, host_flow_record *flow, host_slot *slot, void *output, uint32_t a,
                   uint32_t b);
void value_fill_op_txt(void *unused, host_flow_record *flow, host_slot *slot, void *output,
                       uint32_t a, uint32_t b);
