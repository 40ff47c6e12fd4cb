// Parameter-string and configuration-file parsing, and the string lists it is built on.
#pragma once

#include <stdint.h>

#include "export.h"

// Value types of a descriptor.
enum {
    CV_CONFIG_INT = 0,     // stored as a 32-bit integer; decimal, 0x hexadecimal or 0 octal
    CV_CONFIG_STRING = 1,  // a new heap copy of the text is stored as a char *; the caller owns it
};

// Descriptor flags.
enum {
    CV_CONFIG_MANDATORY = 0x1,  // the option must be given
    CV_CONFIG_GIVEN = 0x2,      // set by the parser when a mandatory option was given
};

// One parameter; a table of them ends with an entry whose key is null.
typedef struct config_value_desc {
    const char *key;
    void *target;
    uint32_t value_type;
    uint32_t flags;
} config_value_desc;

// Parses "key=value,key=value" (or, when text names a readable file, one key=value per line)
// into the targets of table. owner names the component in the messages. Returns 0, or -1 on a
// malformed item, a missing mandatory option or a file that cannot be opened.
CV_EXPORT int corvaneexp_config_set_values(const char *text, config_value_desc *table,
                                           const char *owner);

// The accepted lines of a file as a string list (see corvaneexp_char_split), or null when the
// file cannot be opened. Lines containing '#' and lines of 2 characters or fewer are dropped.
CV_EXPORT char **corvaneexp_read_config(const char *path);

// String list: a heap array of heap strings ended by a null pointer.
CV_EXPORT char **corvaneexp_char_split(const char *string, char separator);
CV_EXPORT void corvaneexp_char_free(char **list);
CV_EXPORT int corvaneexp_config_count_fields(char **list);
CV_EXPORT char *corvaneexp_char_copy(const char *string);
CV_EXPORT char *corvaneexp_char_add(char *string, const char *more);
CV_EXPORT void corvaneexp_char_replace(char *string, char old_char, char new_char);

#ifdef __cplusplus
#include <memory>

namespace cv::config {
struct StrListFree {
    void operator()(char **list) const { corvaneexp_char_free(list); }
};
// Owns a string list for the length of a scope.
using StrList = std::unique_ptr<char *, StrListFree>;
}  // namespace cv::config
#endif
