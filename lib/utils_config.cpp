// Turns a component's parameter text into typed values described by a descriptor table.
#define CV_LOG_SOURCE "lib/utils"
#include "utils_config.h"

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "cv_log.h"

namespace {

config_value_desc *find_descriptor(config_value_desc *table, const char *key) {
    for (config_value_desc *d = table; d->key; ++d)
        if (strcmp(d->key, key) == 0) return d;
    return nullptr;
}

}  // namespace

int corvaneexp_config_set_values(const char *text, config_value_desc *table, const char *owner) {
    if (text) {
        // A text that names a readable file is that file, whatever it looks like.
        cv::config::StrList items(access(text, R_OK) == 0 ? corvaneexp_read_config(text)
                                                          : corvaneexp_char_split(text, ','));
        if (!items) return -1;

        for (char **item = items.get(); *item; ++item) {
            cv::config::StrList pieces(corvaneexp_char_split(*item, '='));
            if (corvaneexp_config_count_fields(pieces.get()) != 2) {
                CV_LOG(CVLOG_WARN, "Cfgline problem: %s", *item);
                return -1;
            }
            const char *key = pieces.get()[0];
            const char *value = pieces.get()[1];
            CV_LOG(CVLOG_DEBUG, "Cfg processing: %s=%s", key, value);

            config_value_desc *desc = table ? find_descriptor(table, key) : nullptr;
            if (!desc) {
                CV_LOG(CVLOG_WARN, "Invalid config variable: %s with parameter: %s", key, value);
                continue;
            }
            CV_LOG(CVLOG_DEBUG, "Cfg found match: %s %s", key, value);

            switch (desc->value_type) {
                case CV_CONFIG_INT:
                    // Base 0: decimal, 0x hexadecimal, leading-0 octal; stops at the first
                    // character that does not fit. Kept as its low 32 bits, so -1 and
                    // 4294967295 are the same value.
                    *static_cast<int32_t *>(desc->target) = int32_t(strtol(value, nullptr, 0));
                    break;
                case CV_CONFIG_STRING:
                    *static_cast<char **>(desc->target) = corvaneexp_char_copy(value);
                    break;
                default:
                    CV_LOG(CVLOG_WARN, "INVALID config value type (programming error)");
                    return -1;
            }
            if (desc->flags & CV_CONFIG_MANDATORY) desc->flags |= CV_CONFIG_GIVEN;
        }
    }

    int result = 0;
    for (config_value_desc *d = table; d && d->key; ++d) {
        if ((d->flags & CV_CONFIG_MANDATORY) && !(d->flags & CV_CONFIG_GIVEN)) {
            CV_LOG(CVLOG_WARN, "Mandatory option: %s is missing, for: %s", d->key,
                   owner ? owner : "");
            result = -1;
        }
    }
    return result;
}
