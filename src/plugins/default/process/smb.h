// The smb process plug-in: per-flow SMB record, plug-in and queue contexts, and the codes
// that the record carries.
#pragma once

#include <stdint.h>

#include "host_interface.h"

// Opaque handles of the state tables (defined by the table modules).
typedef struct messagetable messagetable;
typedef struct messagetable2 messagetable2;
typedef struct treetable treetable;
typedef struct filetable filetable;
typedef struct datatable datatable;
typedef struct activitytable activitytable;
typedef struct conntable conntable;
typedef struct chaintable chaintable;
typedef struct smb_activity smb_activity;
typedef struct sessiontable sessiontable;
typedef struct pipetable pipetable;
typedef struct smb_who smb_who;

#define SMB_NAME_SIZE 128

// Command word: bits 0-7 the SMB1 command (0xff for SMB2), bit 8+n SMB2 command n, bit 31 an
// SMB3 transform header.
#define SMB_CMD_LOW_BYTE 0x000000ffu
#define SMB_CMD_BIT(n) (1u << (8 + (n)))
#define SMB_CMD_TRANSFORM 0x80000000u

enum smb2_command {
    SMB2_NEGOTIATE = 0,
    SMB2_SESSION_SETUP = 1,
    SMB2_LOGOFF = 2,
    SMB2_TREE_CONNECT = 3,
    SMB2_TREE_DISCONNECT = 4,
    SMB2_CREATE = 5,
    SMB2_CLOSE = 6,
    SMB2_FLUSH = 7,
    SMB2_READ = 8,
    SMB2_WRITE = 9,
    SMB2_LOCK = 10,
    SMB2_IOCTL = 11,
    SMB2_CANCEL = 12,
    SMB2_ECHO = 13,
    SMB2_QUERY_DIRECTORY = 14,
    SMB2_CHANGE_NOTIFY = 15,
    SMB2_QUERY_INFO = 16,
    SMB2_SET_INFO = 17,
    SMB2_OPLOCK_BREAK = 18,
    SMB2_COMMAND_MAX = 18,
};

#define SMB_CMD_CREATE SMB_CMD_BIT(SMB2_CREATE)      // 0x00002000
#define SMB_CMD_SET_INFO SMB_CMD_BIT(SMB2_SET_INFO)  // 0x02000000

// Operation byte: bits 0-5 the CREATE operation code, 0x40 delete, 0x80 failure.
#define SMB_OP_CODE_MASK 0x3fu
#define SMB_OP_DELETE 0x40u
#define SMB_OP_FAILED 0x80u

enum smb_op_code {
    SMB_OP_SUPERSEDE = 0,  // FILE_SUPERSEDE / FILE_SUPERSEDED
    SMB_OP_OPEN = 1,       // FILE_OPEN / FILE_OPENED
    SMB_OP_CREATE = 2,     // FILE_CREATE / FILE_CREATED
    SMB_OP_OPEN_IF = 3,    // request FILE_OPEN_IF; response FILE_OVERWRITTEN; failure overwrite
    SMB_OP_OVERWRITE = 4,  // request FILE_OVERWRITE; failure open-if
    SMB_OP_OVERWRITE_IF = 5,
    SMB_OP_UNKNOWN = 0x3f,
};

enum smb_file_type {
    SMB_FILE_TYPE_UNSET = 0,
    SMB_FILE_TYPE_DIRECTORY = 1,
    SMB_FILE_TYPE_FILE = 2,
    SMB_FILE_TYPE_UNKNOWN = 0xff,
};

enum smb_version {
    SMB_VERSION_NONE = 0,
    SMB_VERSION_1 = 1,
    SMB_VERSION_2 = 2,
};

typedef struct smb_flow_data {
    uint8_t version;
    uint8_t is_response;
    uint8_t security;  // SMB_SECURITY flags of the activity fields (activity=1 only)
    uint32_t commands[2];
    uint64_t message_id;
    uint8_t op;
    uint8_t file_type;
    uint32_t tree_id;
    char *tree_name;  // 128 bytes of UTF-16LE, owned, or null
    char *file_name;  // 128 bytes of UTF-16LE, owned, or null
    uint64_t file_id;
    // Counters of the opt-in activity fields (smb_activity.h): with activity=1 in the record's
    // own allocation behind it, or a block of their own; always null with activity=0, so that
    // the record keeps its size and work.
    smb_activity *activity;
    // The session of the record's last message that names one, and that message's capture
    // time (activity=1 only; 0 while none): the export resolves the session's identity.
    uint64_t session_id;
    uint64_t session_ns;
    // Remote calls and the resolved identity (smb_who.h), owned, or null.
    smb_who *who;
} smb_flow_data;

typedef struct smb_plugin_ctx {
    uint32_t queue_id;
    uint16_t port;
    struct treetable *treetable;
    struct filetable *filetable;
    struct messagetable *messagetable;
    struct messagetable2 *messagetable2;
    struct datatable *datatable;
    uint32_t treetable_size;
    uint32_t filetable_size;
    uint32_t messagetable_size;
    uint32_t messagetable2_size;
    uint32_t datatable_size;
    // Opt-in: a successful CREATE response with an 88-byte body (no create contexts, no
    // buffer byte) is read as if it had the 89 bytes its StructureSize names.
    uint32_t short_create;
    // Opt-in: a reassembled message leaves its packets' counters as the wire had them, so
    // that the records of a connection add up to the packets and bytes it carried.
    uint32_t wire_counts;
    // Opt-in activity fields (smb_activity.h): the per-queue table of pending requests and
    // the shared table of connection facts.
    uint32_t activity;
    uint32_t activitytable_size;
    uint32_t conntable_size;
    struct activitytable *activitytable;
    struct conntable *conntable;
    struct chaintable *chaintable;  // per queue: compound chains too long to buffer
    // With activity=1 too: the shared tables of session identities and of the interfaces
    // bound on named pipes (smb_session_table.h).
    uint32_t sessiontable_size;
    uint32_t pipetable_size;
    struct sessiontable *sessiontable;
    struct pipetable *pipetable;
    // Per queue with activity=1: the TCP bytes seen per direction (smb_tcp_seen.h), and
    // whether the packet being parsed brings none that were not seen before (a
    // retransmission, whose messages were counted already).
    struct tcp_seen_table *tcp_seen;
    uint8_t repeat_segment;
} smb_plugin_ctx;

// A queue's context has exactly the plug-in context's fields.
typedef smb_plugin_ctx smb_queue_ctx;

// Defaults exported for flows without a valid value.
CV_EXTERN_C const uint32_t smb_cmd_invalid;
CV_EXTERN_C const uint8_t smb_type_invalid;
CV_EXTERN_C const uint8_t smb_op_invalid;

#define SMB_CMD_INVALID 0x000000ffu
#define SMB_TYPE_INVALID 0xffu
#define SMB_OP_INVALID 0x3fu

// The plug-in descriptor and entry point.
CV_EXPORT_DATA const uint32_t corvane_api_version;
CV_EXPORT int corvane_module_init(void *a1, void *a2, void *a3, void *a4);
CV_EXTERN_C const corvane_plugin_desc plugin;
CV_EXTERN_C const char smb_plugin_help[];

// Records.
CV_EXTERN_C smb_flow_data *smb_record_new(void);
CV_EXTERN_C void smb_record_init(smb_flow_data *rec);
CV_EXTERN_C smb_flow_data *smb_record_copy(const smb_flow_data *src);
CV_EXTERN_C void smb_record_free(host_slot *slot);
// A fresh record with its activity counters in the same allocation (activity=1).
CV_EXTERN_C smb_flow_data *smb_record_new_with_activity(void);
// A heap record taking over everything `src` owns, for a record parsed on the stack.
CV_EXTERN_C smb_flow_data *smb_record_move_to_heap(const smb_flow_data *src);
// Frees what the record owns (names, counters), not the record itself.
CV_EXTERN_C void smb_record_release(smb_flow_data *rec);
// A name buffer of SMB_NAME_SIZE bytes, not initialised: the caller writes all of it. Such a
// buffer may also be released with free().
CV_EXTERN_C char *smb_name_new(void);
// Frees a name buffer (null is ignored).
CV_EXTERN_C void smb_name_free(char *name);

// Lifecycle hooks.
CV_EXPORT void *process_smb_init(uint32_t plugin_id, const char *params, void *host,
                                 uint32_t unused);
CV_EXPORT void process_smb_shutdown(void *plugin_ctx);
CV_EXPORT void *process_smb_init_queue(uint32_t plugin_id, void *plugin_ctx, uint32_t queue_id);
CV_EXPORT void process_smb_shutdown_queue(void *queue_ctx);

// Queue and flow hooks, registered with the host by the init and queue-init hooks.
CV_EXPORT int process_smb_filter(void *queue_ctx, host_packet *pkt, void *unused,
                                 host_slot *pkt_slot);
CV_EXPORT void *process_smb_update(void *queue_ctx, host_packet *pkt, host_flow_record *flow,
                                   host_slot *pkt_slot, host_slot *flow_slot);
CV_EXPORT void process_smb_release(void *unused1, void *unused2, host_slot *src, void *unused4,
                                   host_slot *dst, int copy);
CV_EXPORT int process_smb_postprocess(void *plugin_ctx, host_flow_record *flow,
                                      host_slot *flow_slot);
CV_EXPORT void process_smb_callback(void *unused, host_slot *slot);
