// The plug-in's start and end: parameters, field and hook registration, and the tables that
// all queues share.
#define CV_LOG_SOURCE "src/plugins/default/process/smb"

#include <stdlib.h>

#include <array>

#include "cv_log.h"
#include "smb.h"
#include "smb_fields.h"
#include "smb_activity_table.h"
#include "smb_data_table.h"
#include "smb_file_table.h"
#include "smb_session_table.h"
#include "smb_tree_table.h"
#include "utils_alloc.h"
#include "utils_config.h"

namespace {

constexpr uint16_t kDefaultPort = 445;
constexpr uint32_t kMaxPort = 65535;

// A parameter cell that still holds this after parsing was not given; so "-1" (and
// "4294967295") also mean "not given".
constexpr uint32_t kUnset = 0xffffffffu;

// The table sizes, in the order in which they follow "port" in the parameter table.
struct size_param {
    const char *key;
    uint32_t smb_plugin_ctx::*field;
};
constexpr std::array<size_param, 5> kSizeParams = {{
    {"treetable-size", &smb_plugin_ctx::treetable_size},
    {"filetable-size", &smb_plugin_ctx::filetable_size},
    {"messagetable-size", &smb_plugin_ctx::messagetable_size},
    {"messagetable2-size", &smb_plugin_ctx::messagetable2_size},
    {"datatable-size", &smb_plugin_ctx::datatable_size},
}};

void set_defaults(smb_plugin_ctx *ctx) {
    ctx->port = kDefaultPort;
    ctx->treetable_size = 2048;
    ctx->filetable_size = 1048576;
    ctx->messagetable_size = 1024;
    ctx->messagetable2_size = 65536;
    ctx->datatable_size = 1024;
    ctx->activitytable_size = 32768;
    ctx->conntable_size = 4096;
    ctx->sessiontable_size = 4096;
    ctx->pipetable_size = 4096;
}

// The opt-in activity fields: "activity" (0 or 1) and the sizes of their tables. They follow
// "short-create" in the parameter table.
struct activity_params {
    uint32_t activity = kUnset;
    uint32_t activitytable_size = kUnset;
    uint32_t conntable_size = kUnset;
    uint32_t sessiontable_size = kUnset;
    uint32_t pipetable_size = kUnset;
};

constexpr size_t kActivityParamCount = 5;

void add_activity_params(config_value_desc *cells, activity_params &p) {
    cells[0] = {"activity", &p.activity, CV_CONFIG_INT, 0};
    cells[1] = {"activitytable-size", &p.activitytable_size, CV_CONFIG_INT, 0};
    cells[2] = {"conntable-size", &p.conntable_size, CV_CONFIG_INT, 0};
    cells[3] = {"sessiontable-size", &p.sessiontable_size, CV_CONFIG_INT, 0};
    cells[4] = {"pipetable-size", &p.pipetable_size, CV_CONFIG_INT, 0};
}

int apply_activity_params(smb_plugin_ctx *ctx, const activity_params &p) {
    if (p.activity != kUnset) {
        if (p.activity > 1) {
            CV_LOG(CVLOG_WARN, "Parameter error: activity must be 0 or 1\n");
            return -1;
        }
        ctx->activity = p.activity;
    }
    if (p.activitytable_size != kUnset) ctx->activitytable_size = p.activitytable_size;
    if (p.conntable_size != kUnset) ctx->conntable_size = p.conntable_size;
    if (p.sessiontable_size != kUnset) ctx->sessiontable_size = p.sessiontable_size;
    if (p.pipetable_size != kUnset) ctx->pipetable_size = p.pipetable_size;
    return 0;
}

int parse_params(smb_plugin_ctx *ctx, const char *params) {
    uint32_t port = kUnset, short_create = kUnset, wire_counts = kUnset;
    std::array<uint32_t, kSizeParams.size()> sizes;
    sizes.fill(kUnset);

    // "short-create", "wire-counts" and the activity keys come last, after the six keys of the
    // help text, which they are not part of: they are opt-ins beyond the documented parameters.
    activity_params activity;
    std::array<config_value_desc, 4 + kSizeParams.size() + kActivityParamCount> table{};
    table[0] = {"port", &port, CV_CONFIG_INT, 0};
    for (size_t i = 0; i < kSizeParams.size(); ++i)
        table[1 + i] = {kSizeParams[i].key, &sizes[i], CV_CONFIG_INT, 0};
    table[1 + kSizeParams.size()] = {"short-create", &short_create, CV_CONFIG_INT, 0};
    table[2 + kSizeParams.size()] = {"wire-counts", &wire_counts, CV_CONFIG_INT, 0};
    add_activity_params(&table[3 + kSizeParams.size()], activity);
    table.back() = {nullptr, nullptr, 0, 0};

    if (corvaneexp_config_set_values(params, table.data(), "smb plugin") != 0) {
        CV_LOG(CVLOG_WARN, "Unable to decode parameters\n");
        return -1;
    }
    if (port != kUnset) {
        if (port > kMaxPort) {
            CV_LOG(CVLOG_WARN, "Parameter error: port number is not valid\n");
            return -1;
        }
        ctx->port = static_cast<uint16_t>(port);
    }
    // The tables round and bound the sizes themselves.
    for (size_t i = 0; i < kSizeParams.size(); ++i)
        if (sizes[i] != kUnset) ctx->*kSizeParams[i].field = sizes[i];
    if (short_create != kUnset) ctx->short_create = short_create != 0;
    if (wire_counts != kUnset) ctx->wire_counts = wire_counts != 0;
    if (apply_activity_params(ctx, activity) != 0) return -1;
    if (port == 0) CV_LOG(CVLOG_INFO, "SMB plugin: Port filtering disabled.");
    return 0;
}

}  // namespace

void *process_smb_init(uint32_t plugin_id, const char *params, void *host, uint32_t) {
    auto *ctx = static_cast<smb_plugin_ctx *>(corvaneexp_malloc(sizeof(smb_plugin_ctx), 0));
    set_defaults(ctx);
    if (parse_params(ctx, params) != 0) {
        // The plug-in never runs with a configuration it could not read.
        CV_LOG(CVLOG_ERROR, "Parsing smb parameters failed.");
        exit(-1);
    }

    smb_register_fields(host, plugin_id, ctx);
    corvane_hook_postprocess(ctx, plugin_id, process_smb_postprocess);
    corvane_hook_callback(ctx, plugin_id, process_smb_callback);

    // The message tables belong to the queues and are made per queue.
    ctx->treetable = treetable_create(static_cast<int32_t>(ctx->treetable_size));
    ctx->filetable = filetable_create(static_cast<int32_t>(ctx->filetable_size));
    ctx->datatable = datatable_create(static_cast<int32_t>(ctx->datatable_size));
    if (ctx->activity) {
        ctx->conntable = conntable_create(static_cast<int32_t>(ctx->conntable_size));
        ctx->sessiontable = sessiontable_create(static_cast<int32_t>(ctx->sessiontable_size));
        ctx->pipetable = pipetable_create(static_cast<int32_t>(ctx->pipetable_size));
    }
    return ctx;
}

void process_smb_shutdown(void *plugin_ctx) {
    auto *ctx = static_cast<smb_plugin_ctx *>(plugin_ctx);
    treetable_free(ctx->treetable);
    filetable_free(ctx->filetable);
    datatable_free(ctx->datatable);
    if (ctx->conntable) {
        if (ctx->conntable->dropped)
            CV_LOG(CVLOG_NOTICE, "SMB plugin: %llu connections dropped from the connection table",
                   static_cast<unsigned long long>(ctx->conntable->dropped));
        conntable_free(ctx->conntable);
    }
    if (ctx->sessiontable) {
        if (ctx->sessiontable->evicted)
            CV_LOG(CVLOG_NOTICE, "SMB plugin: %llu sessions evicted from the session table",
                   static_cast<unsigned long long>(ctx->sessiontable->evicted));
        sessiontable_free(ctx->sessiontable);
    }
    if (ctx->pipetable) {
        if (ctx->pipetable->evicted)
            CV_LOG(CVLOG_NOTICE, "SMB plugin: %llu pipe contexts evicted from the pipe table",
                   static_cast<unsigned long long>(ctx->pipetable->evicted));
        pipetable_free(ctx->pipetable);
    }
    free(ctx);
    CV_LOG(CVLOG_INFO, "smb process plugin shutdown");
}
