// Validity, length and fill callbacks of the six exported fields. Every callback reads the
// flow's record through the flow slot; an empty slot makes a field invalid, its length 0 and its
// fills write nothing.
#include "smb_fields.h"

namespace {

smb_flow_data *record_of(host_slot *slot) {
    return static_cast<smb_flow_data *>(*slot);
}

bool is_smb(const smb_flow_data *rec) {
    return rec->version == SMB_VERSION_1 || rec->version == SMB_VERSION_2;
}

// Of the flow's two endpoints, the one with the lower port is taken as the server. A two-way
// flow carries both command words; a one-way flow carries only the word of its direction bit,
// which is the request word when it runs towards the lower port and the response word when it
// runs away from it.
enum class cmd_role { request, response };

bool two_way(const host_flow_record *flow) {
    return flow->dir_counters[1].packets != 0;
}

int exported_word(const host_flow_record *flow, cmd_role role) {
    const bool towards_lower = flow->dst_port < flow->src_port;
    if (two_way(flow)) {
        const int request = towards_lower ? 0 : 1;
        return role == cmd_role::request ? request : 1 - request;
    }
    if (flow->dst_port == flow->src_port) return -1;
    const int own = flow->flags & HOST_FLAG_DIRECTION;
    if (role == cmd_role::request) return towards_lower ? own : -1;
    return towards_lower ? -1 : own;
}

int validity_cmd(const host_flow_record *flow, host_slot *slot, cmd_role role) {
    const smb_flow_data *rec = record_of(slot);
    if (!rec) return 0;
    if (!two_way(flow)) {
        if (role == cmd_role::request && flow->dst_port > flow->src_port) return 0;
        if (role == cmd_role::response && flow->dst_port < flow->src_port) return 0;
    }
    return is_smb(rec) ? 1 : 0;
}

// The word exported for role, or null when this flow exports none. An SMB2 word gets its low
// byte back to 0xff in the record itself, so exporting a record twice gives the same value.
uint32_t *word_to_export(const host_flow_record *flow, host_slot *slot, cmd_role role) {
    smb_flow_data *rec = record_of(slot);
    if (!rec) return nullptr;
    const int index = exported_word(flow, role);
    if (index < 0) return nullptr;
    if (rec->version == SMB_VERSION_2) rec->commands[index] |= SMB_CMD_LOW_BYTE;
    return &rec->commands[index];
}

void fill_cmd(const host_flow_record *flow, host_slot *slot, cmd_role role, void *output,
              uint32_t a, uint32_t b) {
    if (uint32_t *word = word_to_export(flow, slot, role))
        record_universal_get_num(output, word, sizeof *word, a, b);
}

void fill_cmd_txt(const host_flow_record *flow, host_slot *slot, cmd_role role, void *output,
                  uint32_t a, uint32_t b) {
    if (uint32_t *word = word_to_export(flow, slot, role))
        record_universal_get_txt_num(output, word, sizeof *word, a, b);
}

int length_if_record(host_slot *slot, int length) {
    return record_of(slot) ? length : 0;
}

bool op_is_exportable(uint8_t op) {
    return op <= 0x03 || (op >= 0x40 && op <= 0x43) || (op >= 0x7f && op <= 0x85) ||
           (op >= 0xc0 && op <= 0xc5);
}

void fill_byte(uint8_t *value, void *output, uint32_t a) {
    record_universal_get_num(output, value, 1, a, 1);
}

void fill_byte_txt(uint8_t *value, void *output, uint32_t a, uint32_t b) {
    record_universal_get_txt_num(output, value, 1, a, b);
}

void fill_name(const char *name, void *output, uint32_t a) {
    if (name) record_universal_get_array(output, name, SMB_NAME_SIZE, a, 0);
}

void fill_name_txt(const char *name, void *output, uint32_t a) {
    if (name) record_universal_get_txt_string(output, name, SMB_NAME_SIZE, a, 0);
}

}  // namespace

// Command words.

int validity_cmd_request(void *, host_flow_record *flow, host_slot *slot) {
    return validity_cmd(flow, slot, cmd_role::request);
}

int validity_cmd_response(void *, host_flow_record *flow, host_slot *slot) {
    return validity_cmd(flow, slot, cmd_role::response);
}

int cmd_length(void *, host_flow_record *, host_slot *slot) {
    return length_if_record(slot, sizeof(uint32_t));
}

void value_fill_cmd_request(void *, host_flow_record *flow, host_slot *slot, void *output,
                            uint32_t a, uint32_t b) {
    fill_cmd(flow, slot, cmd_role::request, output, a, b);
}

void value_fill_cmd_request_txt(void *, host_flow_record *flow, host_slot *slot, void *output,
                                uint32_t a, uint32_t b) {
    fill_cmd_txt(flow, slot, cmd_role::request, output, a, b);
}

void value_fill_cmd_response(void *, host_flow_record *flow, host_slot *slot, void *output,
                             uint32_t a, uint32_t b) {
    fill_cmd(flow, slot, cmd_role::response, output, a, b);
}

void value_fill_cmd_response_txt(void *, host_flow_record *flow, host_slot *slot, void *output,
                                 uint32_t a, uint32_t b) {
    fill_cmd_txt(flow, slot, cmd_role::response, output, a, b);
}

// Share and file names: only SMB2 carries them.

int validity_tree(void *, host_flow_record *, host_slot *slot) {
    const smb_flow_data *rec = record_of(slot);
    return rec && rec->version == SMB_VERSION_2 && rec->tree_name ? 1 : 0;
}

int validity_file_name(void *, host_flow_record *, host_slot *slot) {
    const smb_flow_data *rec = record_of(slot);
    return rec && rec->version == SMB_VERSION_2 && rec->file_name ? 1 : 0;
}

int tree_length(void *, host_flow_record *, host_slot *slot) {
    return length_if_record(slot, SMB_NAME_SIZE);
}

int file_name_length(void *, host_flow_record *, host_slot *slot) {
    return length_if_record(slot, SMB_NAME_SIZE);
}

void value_fill_tree(void *, host_flow_record *, host_slot *slot, void *output, uint32_t a,
                     uint32_t) {
    if (const smb_flow_data *rec = record_of(slot)) fill_name(rec->tree_name, output, a);
}

void value_fill_tree_txt(void *, host_flow_record *, host_slot *slot, void *output, uint32_t a,
                         uint32_t) {
    if (const smb_flow_data *rec = record_of(slot)) fill_name_txt(rec->tree_name, output, a);
}

void value_fill_file_name(void *, host_flow_record *, host_slot *slot, void *output, uint32_t a,
                          uint32_t) {
    if (const smb_flow_data *rec = record_of(slot)) fill_name(rec->file_name, output, a);
}

void value_fill_file_name_txt(void *, host_flow_record *, host_slot *slot, void *output, uint32_t a,
                              uint32_t) {
    if (const smb_flow_data *rec = record_of(slot)) fill_name_txt(rec->file_name, output, a);
}

// File type and operation: always valid with a record, after normalising the byte in place so
// that anything outside the known codes goes out as the invalid marker.

int validity_file_type(void *, host_flow_record *, host_slot *slot) {
    smb_flow_data *rec = record_of(slot);
    if (!rec) return 0;
    const bool known =
        rec->file_type == SMB_FILE_TYPE_DIRECTORY || rec->file_type == SMB_FILE_TYPE_FILE;
    if (rec->version != SMB_VERSION_2 || !known) rec->file_type = SMB_TYPE_INVALID;
    return 1;
}

int validity_op(void *, host_flow_record *, host_slot *slot) {
    smb_flow_data *rec = record_of(slot);
    if (!rec) return 0;
    if (rec->version != SMB_VERSION_2 || !op_is_exportable(rec->op)) rec->op = SMB_OP_INVALID;
    return 1;
}

int file_type_length(void *, host_flow_record *, host_slot *slot) {
    return length_if_record(slot, 1);
}

int op_length(void *, host_flow_record *, host_slot *slot) {
    return length_if_record(slot, 1);
}

void value_fill_file_type(void *, host_flow_record *, host_slot *slot, void *output, uint32_t a,
                          uint32_t) {
    if (smb_flow_data *rec = record_of(slot)) fill_byte(&rec->file_type, output, a);
}

void value_fill_file_type_txt(void *, host_flow_record *, host_slot *slot, void *output, uint32_t a,
                              uint32_t b) {
    if (smb_flow_data *rec = record_of(slot)) fill_byte_txt(&rec->file_type, output, a, b);
}

void value_fill_op(void *, host_flow_record *, host_slot *slot, void *output, uint32_t a,
                   uint32_t) {
    if (smb_flow_data *rec = record_of(slot)) fill_byte(&rec->op, output, a);
}

void value_fill_op_txt(void *, host_flow_record *, host_slot *slot, void *output, uint32_t a,
                       uint32_t b) {
    if (smb_flow_data *rec = record_of(slot)) fill_byte_txt(&rec->op, output, a, b);
}
