// Completion of a flow's record from the shared tree and file tables just before export.
//
// TREE_CONNECT and CREATE often travel in other flow records than the packets that use the tree
// or file later, because the flow hash is split by tree and file id. The shared tables carry
// the names across; this hook copies them into the record together with the file's type,
// operation and delete state and the command bits parked for this tree and file. Every parked
// mask and delete flag is handed out by its table once, so it reaches one exported record.
#include <string.h>

#include "smb.h"
#include "smb_activity.h"
#include "smb_activity_table.h"
#include "smb_file_table.h"
#include "smb_parser.h"
#include "smb_tree_table.h"
#include "smb_who.h"

namespace {

// The connection key under which the parser filed the tree and file ids.
struct client_end {
    uint32_t addr32;
    uint16_t port;
};

// The flow's first SMB record says which end is the client: a first record from the server
// (or none that set the flag, 0xff) puts the client at the flow's destination.
client_end client_of(const host_flow_record *flow, const smb_flow_data *rec) {
    if (rec->is_response)
        return {smb_client_addr32(&flow->dst_addr, flow->ip_version), flow->dst_port};
    return {smb_client_addr32(&flow->src_addr, flow->ip_version), flow->src_port};
}

bool names_something(const uint8_t *name) {
    return name && (name[0] || name[1]);
}

char *copy_name(const uint8_t *name) {
    char *copy = smb_name_new();
    memcpy(copy, name, SMB_NAME_SIZE);
    return copy;
}

// Masks come as (client to server, server to client); the record's words are ordered by the
// direction of the flow's first SMB record.
void fold_masks(smb_flow_data *rec, const uint32_t masks[2]) {
    const int to_server = rec->is_response ? 1 : 0;
    rec->commands[to_server] |= masks[0];
    rec->commands[1 - to_server] |= masks[1];
}

// Counters parked with the connection join the record (activity=1).
void add_parked(smb_flow_data *rec, smb_activity *counters) {
    if (!counters) return;
    smb_activity_merge(smb_activity_of(rec), counters);
    rec->security |= counters->security;
    smb_activity_free(counters);
}

// What the file part learned that the tree part still needs.
struct file_outcome {
    bool names_share_root = false;  // the CREATE opened the share itself
};

file_outcome complete_file(smb_plugin_ctx *ctx, smb_flow_data *rec, client_end client) {
    file_outcome outcome;
    uint32_t masks[2] = {0, 0};
    uint8_t file_op = SMB_OP_INVALID;
    uint8_t name_empty = 0;
    {
        smb::SpinGuard guard(ctx->filetable->lock);
        const uint8_t *name =
            filetable_get_file(ctx->filetable, client.addr32, client.port, rec->file_id,
                               &rec->file_type, &file_op, masks, &name_empty);
        // The buffer belongs to the table and may be overwritten once the lock is released.
        if (names_something(name) && name_empty == 0) rec->file_name = copy_name(name);
    }
    outcome.names_share_root = name_empty == 1;
    fold_masks(rec, masks);

    if (rec->commands[0] & SMB_CMD_CREATE) {
        if ((rec->op & SMB_OP_CODE_MASK) == SMB_OP_UNKNOWN)
            rec->op = (rec->op & ~SMB_OP_CODE_MASK) | (file_op & SMB_OP_CODE_MASK);
        if (rec->op & SMB_OP_DELETE) return outcome;
        rec->op |= file_op & SMB_OP_DELETE;
    }
    if ((rec->commands[0] & SMB_CMD_SET_INFO) && !(rec->op & SMB_OP_DELETE)) {
        smb::SpinGuard guard(ctx->filetable->lock);
        if (filetable_get_delete_flag(ctx->filetable, client.addr32, client.port, rec->file_id, 0))
            rec->op |= SMB_OP_DELETE;
    }
    return outcome;
}

void complete_tree(smb_plugin_ctx *ctx, smb_flow_data *rec, client_end client, file_outcome file) {
    uint32_t masks[2] = {0, 0};
    {
        smb::SpinGuard guard(ctx->treetable->lock);
        const uint8_t *name =
            treetable_get_tree(ctx->treetable, client.addr32, client.port, rec->tree_id, masks);
        if (names_something(name)) {
            rec->tree_name = copy_name(name);
            // A CREATE of the share root names the share as its file.
            if (file.names_share_root && !rec->file_name) rec->file_name = copy_name(name);
        }
    }
    fold_masks(rec, masks);
}

// The client end of the connection: the one away from the SMB port (with port filtering off,
// the one that the first record names).
client_end connection_client(const smb_plugin_ctx *ctx, const host_flow_record *flow,
                             const smb_flow_data *rec) {
    if (ctx->port != 0) {
        if (flow->dst_port == ctx->port)
            return {smb_client_addr32(&flow->src_addr, flow->ip_version), flow->src_port};
        if (flow->src_port == ctx->port)
            return {smb_client_addr32(&flow->dst_addr, flow->ip_version), flow->dst_port};
    }
    return client_of(flow, rec);
}

// The connection's dialect and security facts go to every SMB2 record of the connection.
void complete_connection(smb_plugin_ctx *ctx, smb_flow_data *rec, client_end client) {
    uint16_t dialect = 0;
    uint8_t security = 0;
    smb_activity *parked = nullptr;
    {
        smb::SpinGuard guard(ctx->conntable->lock);
        conn_record *conn = conntable_find(ctx->conntable, client.addr32, client.port);
        if (!conn) return;
        dialect = conn->dialect;
        security = conn->security;
        parked = conn->parked;
        conn->parked = nullptr;
    }
    rec->security |= security;
    if (dialect == 0 && !parked) return;
    smb_activity *a = smb_activity_of(rec);
    add_parked(rec, parked);
    if (dialect) a->dialect = dialect;
}

}  // namespace

int process_smb_postprocess(void *plugin_ctx, host_flow_record *flow, host_slot *flow_slot) {
    auto *rec = static_cast<smb_flow_data *>(*flow_slot);
    // SMB1 keeps no tables.
    if (!rec || rec->version != SMB_VERSION_2) return 0;
    auto *ctx = static_cast<smb_plugin_ctx *>(plugin_ctx);
    // With activity=1: the connection's facts first, the identity and remote calls once the
    // record knows its tree.
    client_end connection{};
    if (ctx->activity) {
        connection = connection_client(ctx, flow, rec);
        complete_connection(ctx, rec, connection);
    }
    // Encrypted traffic names nothing but its session.
    if (!(rec->commands[0] & SMB_CMD_TRANSFORM)) {
        const client_end client = client_of(flow, rec);
        file_outcome file;
        if (rec->file_id != 0 && !rec->file_name) file = complete_file(ctx, rec, client);
        if (rec->tree_id != 0 && !rec->tree_name) complete_tree(ctx, rec, client, file);
    }
    if (ctx->activity) smb_who_complete(ctx, rec, connection.addr32, connection.port);
    return 0;
}
