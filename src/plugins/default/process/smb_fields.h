// The six flow fields that the plug-in exports: their callbacks and their registration.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <string.h>

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

// The bytes of a 128-byte UTF-16LE name buffer before its first zero unit: what the host's text
// writer converts of it anyway, so that the opt-in fields hand over only those (the host then
// makes room for the text and scans it once, not for a whole zero-filled buffer). Eight bytes
// at a time while none of their four units is zero.
inline uint32_t smb_name_text_bytes(const void *name) {
    const auto *bytes = static_cast<const uint8_t *>(name);
    uint32_t at = 0;
    for (; at + 8 <= SMB_NAME_SIZE; at += 8) {
        uint64_t x;
        memcpy(&x, bytes + at, 8);
        // A unit of zero has no bit set: OR each unit's two bytes into its low byte and look
        // for a zero there.
        const uint64_t units = (x | (x >> 8)) & 0x00ff00ff00ff00ffull;
        if (((units - 0x0001000100010001ull) & ~units & 0x0080008000800080ull) != 0) break;
    }
    for (; at + 2 <= SMB_NAME_SIZE; at += 2)
        if (bytes[at] == 0 && bytes[at + 1] == 0) break;
    return at;
}

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
