// Reads a parameter file into a list of its usable lines.
#include <stdio.h>
#include <string.h>

#include <memory>
#include <vector>

#include "utils_alloc.h"
#include "utils_config.h"

namespace {

constexpr size_t kLineBuffer = 16384;
// fgets keeps room for the terminator: at most 16382 characters per read.
constexpr int kReadLimit = 16383;

struct FileClose {
    void operator()(FILE *f) const { fclose(f); }
};

// Cuts one CR or LF at the end, then one more, so that CR LF, LF and CR endings all go.
size_t trim_line_end(const char *line, size_t len) {
    for (int pass = 0; pass < 2 && len > 0; ++pass) {
        char last = line[len - 1];
        if (last != '\r' && last != '\n') break;
        --len;
    }
    return len;
}

}  // namespace

char **corvaneexp_read_config(const char *path) {
    std::unique_ptr<FILE, FileClose> file(path ? fopen(path, "r") : nullptr);
    if (!file) return nullptr;

    std::vector<char *> kept;
    std::vector<char> line(kLineBuffer);
    for (;;) {
        memset(line.data(), 0, line.size());
        // A line longer than the limit comes back in pieces, each treated as a line.
        if (!fgets(line.data(), kReadLimit, file.get())) break;
        size_t len = trim_line_end(line.data(), strlen(line.data()));
        line[len] = '\0';
        // A '#' anywhere discards the whole line, not only what follows it.
        if (memchr(line.data(), '#', len) || len <= 2) continue;
        auto *copy = static_cast<char *>(corvaneexp_malloc(len + 1, 0));
        memcpy(copy, line.data(), len);
        kept.push_back(copy);
    }

    auto **list = static_cast<char **>(corvaneexp_malloc((kept.size() + 1) * sizeof(char *), 0));
    for (size_t i = 0; i < kept.size(); ++i)
        list[i] = kept[i];
    return list;
}
