#include "rotation.h"

#include <cerrno>
#include <cstring>
#include <ctime>

#include <fmt/format.h>

namespace smbflow {

RotatingOutput::RotatingOutput(std::string pattern, uint64_t interval_s, MakeWriter make,
                               Error error)
    : pattern_(std::move(pattern)),
      interval_s_(interval_s ? interval_s : 1),
      make_(std::move(make)),
      error_(std::move(error)) {}

RotatingOutput::~RotatingOutput() {
    finish();
}

std::string RotatingOutput::file_name(const std::string &pattern, uint64_t start_s) {
    const auto t = static_cast<time_t>(start_s);
    struct tm tm;
    gmtime_r(&t, &tm);
    // strftime gives 0 both for a name too long and for an empty one: grow until it fits.
    for (size_t size = 256; size <= 65536; size *= 4) {
        std::string out(size, '\0');
        const size_t n = strftime(out.data(), out.size(), pattern.c_str(), &tm);
        if (n > 0 || pattern.empty()) {
            out.resize(n);
            return out;
        }
    }
    return pattern;
}

bool RotatingOutput::close_current() {
    if (!open_) return true;
    open_ = false;
    writer_->finish();
    writer_.reset();
    const bool ok = !ferror(file_) && fclose(file_) == 0;
    file_ = nullptr;
    if (!ok) {
        error_(fmt::format("cannot write {}: {}", files_.back(), strerror(errno)));
        write_error_ = true;
    }
    return ok;
}

bool RotatingOutput::write(const Row &row, uint64_t end_ns) {
    const uint64_t slot = end_ns / 1'000'000'000ull / interval_s_;
    if (!open_ || slot > slot_) {
        if (open_ || failed_) {
            if (slot <= slot_) return !failed_;
            close_current();
        }
        slot_ = slot;
        failed_ = false;
        const std::string name = file_name(pattern_, slot * interval_s_);
        file_ = fopen(name.c_str(), "w");
        if (!file_) {
            error_(fmt::format("cannot write {}: {}", name, strerror(errno)));
            failed_ = write_error_ = true;
            return false;
        }
        files_.push_back(name);
        writer_ = make_(file_);
        open_ = true;
    }
    writer_->write(row);
    return true;
}

bool RotatingOutput::finish() {
    close_current();
    return !write_error_;
}

}  // namespace smbflow
