// The plug-in's start and end: parameters, field and hook registration, and the tables that
// all queues share.
#define CV_LOG_SOURCE "src/plugins/default/process/smb"

#include <stdlib.h>

#include <array>

#include "cv_log.h"
#include "smb.h"
#include "smb_fields.h"
#include "smb_data_table.h"
#include "smb_file_table.h"
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
}

int parse_params(smb_plugin_ctx *ctx, const char *params) {
    uint32_t port = kUnset, short_create = kUnset, wire_counts = kUnset;
    std::array<uint32_t, kSizeParams.size()> sizes;
    sizes.fill(kUnset);

    // "short-create" and "wire-counts" come last, after the six keys of the help text, which
    // they are not part of: they are opt-ins beyond the documented parameters.
    std::array<config_value_desc, 4 + kSizeParams.size()> table{};
    table[0] = {"port", &port, CV_CONFIG_INT, 0};
    for (size_t i = 0; i < kSizeParams.size(); ++i)
        table[1 + i] = {kSizeParams[i].key, &sizes[i], CV_CONFIG_INT, 0};
    table[1 + kSizeParams.size()] = {"short-create", &short_create, CV_CONFIG_INT, 0};
    table[2 + kSizeParams.size()] = {"wire-counts", &wire_counts, CV_CONFIG_INT, 0};
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
    return ctx;
}

void process_smb_shutdown(void *plugin_ctx) {
    auto *ctx = static_cast<smb_plugin_ctx *>(plugin_ctx);
    treetable_free(ctx->treetable);
    filetable_free(ctx->filetable);
    datatable_free(ctx->datatable);
    free(ctx);
    CV_LOG(CVLOG_INFO, "smb process plugin shutdown");
}
