// The host side of the process plug-in interface: the packet descriptor and flow record fields
// that a plug-in reads and writes, the plug-in descriptor, and the signatures of every host
// function, hook and field callback. The host implements the functions; the plug-in library
// leaves them undefined and resolves them against whatever loads it.
#pragma once

#include <stdint.h>

#include "../../../../lib/export.h"

#define CORVANE_API_VERSION 8

// Packet and flow flag bits.
#define HOST_FLAG_DIRECTION 0x0001u  // the packet or flow goes the other way (counter block 1)
#define HOST_FLAG_SMB_RECORD 0x0010u
#define HOST_FLAG_SMB_PORT 0x8000u

typedef struct host_counters {
    uint64_t packets;
    uint64_t bytes;
} host_counters;

// An IPv4 address sits in `v4` (bytes as on the wire); an IPv6 address fills all 16 bytes.
typedef union host_addr {
    uint32_t v4;
    uint8_t v6[16];
} host_addr;

typedef struct host_packet {
    const uint8_t *data;
    uint16_t length;
    uint16_t payload_offset;
    uint64_t flow_hash;
    host_counters dir_counters[2];
    host_addr src_addr;
    host_addr dst_addr;
    uint16_t ipv4_aux16;  // this host: the IPv4 fragment field (MF flag and fragment offset)
    uint16_t src_port;
    uint16_t dst_port;
    uint8_t ip_version;
    uint8_t protocol;
    uint16_t flags;
    // Host-only fields.
    uint8_t tcp_flags;
    uint64_t timestamp_ns;
} host_packet;

typedef struct host_flow_record {
    host_counters dir_counters[2];
    host_addr src_addr;
    host_addr dst_addr;
    uint16_t src_port;
    uint16_t dst_port;
    uint8_t ip_version;
    uint8_t protocol;
    uint16_t flags;
    // Host-only fields.
    uint8_t tcp_flags[2];
    uint64_t first_ns;
    uint64_t last_ns;
} host_flow_record;

// A plug-in data slot: one pointer-sized cell per packet and per flow.
typedef void *host_slot;

// Lifecycle hooks of the descriptor.
typedef void *(*corvane_init_fn)(uint32_t plugin_id, const char *params, void *host,
                                 uint32_t unused);
typedef void *(*corvane_init_queue_fn)(uint32_t plugin_id, void *plugin_ctx, uint32_t queue_id);
typedef void (*corvane_shutdown_queue_fn)(void *queue_ctx);
typedef void (*corvane_shutdown_fn)(void *plugin_ctx);

// Queue and flow hooks.
typedef int (*corvane_filter_fn)(void *queue_ctx, host_packet *pkt, void *unused,
                                 host_slot *pkt_slot);
typedef void *(*corvane_update_fn)(void *queue_ctx, host_packet *pkt, host_flow_record *flow,
                                   host_slot *pkt_slot, host_slot *flow_slot);
typedef void (*corvane_release_fn)(void *unused1, void *unused2, host_slot *src, void *unused4,
                                   host_slot *dst, int copy);
typedef int (*corvane_postprocess_fn)(void *plugin_ctx, host_flow_record *flow,
                                      host_slot *flow_slot);
typedef void (*corvane_callback_fn)(void *unused, host_slot *slot);

// Field callbacks.
typedef int (*corvane_validity_fn)(void *unused, host_flow_record *flow, host_slot *flow_slot);
typedef int (*corvane_length_fn)(void *unused, host_flow_record *flow, host_slot *flow_slot);
typedef void (*corvane_fill_fn)(void *unused, host_flow_record *flow, host_slot *flow_slot,
                                void *output, uint32_t a, uint32_t b);

// Field type codes.
#define CORVANE_FIELD_NUMBER 1u
#define CORVANE_FIELD_STRING 8u
// A fixed number of octets (`size`), exported as they are (an identifier such as a UUID).
#define CORVANE_FIELD_OCTETS 16u

typedef struct corvane_plugin_desc {
    uintptr_t type;
    const char *name;
    const char *help;
    uintptr_t api_version;
    uintptr_t variant;
    corvane_init_fn init;
    corvane_init_queue_fn init_queue;
    corvane_shutdown_queue_fn shutdown_queue;
    corvane_shutdown_fn shutdown;
    void *reserved[13];
} corvane_plugin_desc;

// Exported by the plug-in.
typedef int (*corvane_module_init_fn)(void *a1, void *a2, void *a3, void *a4);

// Provided by the host.
// The descriptor, then every argument the host gave corvane_module_init, unchanged.
CV_EXTERN_C int corvane_plugin_add(void *descriptor, void *a1, void *a2, void *a3, void *a4);
CV_EXTERN_C void *corvane_getter_add(void *host, uint32_t plugin_id, uint32_t all_ones,
                                     const char *name, uint32_t type, uint32_t size, int zero,
                                     void *ctx, corvane_validity_fn validity,
                                     corvane_length_fn length, corvane_fill_fn fill,
                                     corvane_fill_fn fill_txt, int zero2);
CV_EXTERN_C void corvane_getter_set_default(void *field, const void *value, uint32_t size);
CV_EXTERN_C void corvane_hook_postprocess(void *ctx, uint32_t plugin_id,
                                          corvane_postprocess_fn hook);
CV_EXTERN_C void corvane_hook_callback(void *ctx, uint32_t plugin_id, corvane_callback_fn hook);
CV_EXTERN_C void corvane_hook_queue_filter(void *queue_ctx, uint32_t plugin_id,
                                           corvane_filter_fn hook);
CV_EXTERN_C void corvane_hook_queue_update(void *queue_ctx, uint32_t plugin_id,
                                           corvane_update_fn hook);
CV_EXTERN_C void corvane_hook_queue_release(void *queue_ctx, uint32_t plugin_id,
                                            corvane_release_fn hook);
CV_EXTERN_C void *corvane_hook_update_remove(host_flow_record *flow, uint32_t queue_id,
                                             corvane_update_fn hook);
CV_EXTERN_C int record_universal_get_num(void *output, const void *value, uint32_t size, uint32_t a,
                                         uint32_t b);
CV_EXTERN_C int record_universal_get_txt_num(void *output, const void *value, uint32_t size,
                                             uint32_t a, uint32_t b);
CV_EXTERN_C int record_universal_get_txt_string(void *output, const void *buffer, uint32_t size,
                                                uint32_t a, uint32_t b);
CV_EXTERN_C int record_universal_get_array(void *output, const void *buffer, uint32_t size,
                                           uint32_t a, uint32_t b);
