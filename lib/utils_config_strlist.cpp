// String lists and the small string helpers the parameter parser is built on.
#include <stdlib.h>
#include <string.h>

#include <string_view>
#include <vector>

#include "utils_alloc.h"
#include "utils_config.h"

namespace {

char *copy_of(std::string_view text) {
    auto *copy = static_cast<char *>(corvaneexp_malloc(text.size() + 1, 0));
    memcpy(copy, text.data(), text.size());
    return copy;  // zeroed, so terminated
}

}  // namespace

char **corvaneexp_char_split(const char *string, char separator) {
    std::vector<std::string_view> pieces;
    if (string) {
        std::string_view rest(string);
        while (!rest.empty()) {
            size_t cut = rest.find(separator);
            std::string_view piece = rest.substr(0, cut);
            if (!piece.empty()) pieces.push_back(piece);
            if (cut == std::string_view::npos) break;
            rest.remove_prefix(cut + 1);
        }
    }
    auto **list = static_cast<char **>(corvaneexp_malloc((pieces.size() + 1) * sizeof(char *), 0));
    for (size_t i = 0; i < pieces.size(); ++i)
        list[i] = copy_of(pieces[i]);
    return list;
}

void corvaneexp_char_free(char **list) {
    if (!list) return;
    for (char **item = list; *item; ++item)
        free(*item);
    free(list);
}

int corvaneexp_config_count_fields(char **list) {
    int count = 0;
    if (list)
        while (list[count])
            ++count;
    return count;
}

char *corvaneexp_char_copy(const char *string) {
    if (!string || !*string) return nullptr;
    return copy_of(string);
}

char *corvaneexp_char_add(char *string, const char *more) {
    if (!more) return string;
    if (!string) return copy_of(more);
    size_t have = strlen(string), add = strlen(more);
    string = static_cast<char *>(corvaneexp_realloc(string, have + add + 1));
    memcpy(string + have, more, add + 1);
    return string;
}

void corvaneexp_char_replace(char *string, char old_char, char new_char) {
    // A search for the terminator, or a replacement equal to the search, would never end.
    if (!string || old_char == '\0' || old_char == new_char) return;
    for (char *at = strchr(string, old_char); at; at = strchr(at, old_char))
        *at = new_char;
}
