#include "rotation.h"

#include <cerrno>
#include <cstring>
#include <ctime>

#include <fmt/format.h>

#include "output_file.h"

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
    std::lock_guard lock(mutex_);
    if (!file_for(end_ns)) return false;
    writer_->write(row);
    return true;
}

bool RotatingOutput::write(const FlowFormatter &formatter, const corvane_host::ExportedFlow &flow,
                           Row &scratch) {
    std::lock_guard lock(mutex_);
    if (!file_for(flow.rec.last_ns)) return false;
    writer_->write(formatter, flow, scratch);
    return true;
}

bool RotatingOutput::file_for(uint64_t end_ns) {
    uint64_t slot = end_ns / 1'000'000'000ull / interval_s_;
    if (started_ && slot < slot_) slot = slot_;  // a file once closed is not opened again
    if (!open_ || slot > slot_) {
        if (started_ && slot == slot_ && failed_) return false;
        close_current();
        // The same interval again: its file was closed by reopen(), and the name is opened
        // anew without emptying what may already be there.
        const bool again = started_ && slot == slot_;
        slot_ = slot;
        started_ = true;
        failed_ = false;
        const std::string name = file_name(pattern_, slot * interval_s_);
        file_ = open_output(name, !again);
        if (!file_) {
            error_(fmt::format("cannot write {}: {}", name, strerror(errno)));
            failed_ = write_error_ = true;
            return false;
        }
        if (!again || files_.empty() || files_.back() != name) files_.push_back(name);
        writer_ = make_(file_);
        open_ = true;
    }
    return true;
}

void RotatingOutput::reopen() {
    std::lock_guard lock(mutex_);
    if (open_ && !still_named(files_.back(), file_)) close_current();
}

bool RotatingOutput::finish() {
    std::lock_guard lock(mutex_);
    close_current();
    return !write_error_;
}

}  // namespace smbflow
