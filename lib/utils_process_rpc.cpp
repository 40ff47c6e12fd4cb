// Parses command strings of the form name:key=value,key=value.
#define CV_LOG_SOURCE "lib/utils"
#include <string.h>

#include <vector>

#include "cv_log.h"
#include "utils_process.h"

int corvaneexp_rpc_parse(const char *text, const char *name, const config_value_desc *table) {
    if (!text || !name) {
        CV_LOG(CVLOG_DEBUG, "rpc_parse: missing input string or function name");
        return -1;
    }
    size_t name_len = strlen(name);
    if (strncmp(text, name, name_len) != 0) {
        CV_LOG(CVLOG_DEBUG, "rpc_parse: wrong rpc name");
        return -1;
    }
    if (text[name_len] != ':') {
        CV_LOG(CVLOG_DEBUG, "rpc_parse: missing ':' in rpc");
        return -2;
    }
    if (!table || !table[0].key) {
        CV_LOG(CVLOG_DEBUG, "rpc_parse: no input rpc parameters provided");
        return -2;
    }

    // Every parameter of a command is required; the caller's table is left as it is and only
    // its targets receive values.
    std::vector<config_value_desc> required;
    for (const config_value_desc *d = table; d->key; ++d)
        required.push_back({d->key, d->target, d->value_type, CV_CONFIG_MANDATORY});
    required.push_back({nullptr, nullptr, 0, 0});

    if (corvaneexp_config_set_values(text + name_len + 1, required.data(),
                                     "corvaneexp rpc parse") == 0)
        return 0;
    CV_LOG(CVLOG_DEBUG, "rpc_parse: wrong rpc parameters");
    return -2;
}
