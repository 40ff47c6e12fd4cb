#include "stderr_lines.h"

#include <stdio.h>
#include <unistd.h>

#include <atomic>

namespace smbflow {

namespace {

// Whether the last byte written was a line break (the start counts as one).
std::atomic<bool> g_at_line_start{true};

ssize_t write_all(const char *p, size_t n) {
    for (size_t done = 0; done < n;) {
        const ssize_t w = write(STDERR_FILENO, p + done, n - done);
        if (w < 0) return -1;
        done += static_cast<size_t>(w);
    }
    return static_cast<ssize_t>(n);
}

ssize_t filtered_write(void *, const char *buf, size_t size) {
    // Runs of bytes between dropped line breaks go out in one write each.
    size_t start = 0;
    bool at_start = g_at_line_start.load();
    for (size_t i = 0; i < size; ++i) {
        if (buf[i] != '\n') {
            at_start = false;
            continue;
        }
        if (at_start) {  // a line break right after another: a blank line
            if (i > start && write_all(buf + start, i - start) < 0) return -1;
            start = i + 1;
        }
        at_start = true;
    }
    if (size > start && write_all(buf + start, size - start) < 0) return -1;
    g_at_line_start.store(at_start);
    return static_cast<ssize_t>(size);
}

}  // namespace

void drop_blank_lines_on_stderr() {
    cookie_io_functions_t io{};
    io.write = filtered_write;
    if (FILE *f = fopencookie(nullptr, "w", io)) {
        setvbuf(f, nullptr, _IONBF, 0);
        stderr = f;
    }
}

}  // namespace smbflow
