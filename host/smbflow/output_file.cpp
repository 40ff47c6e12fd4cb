#include "output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <fmt/format.h>

namespace smbflow {

FILE *open_output(const std::string &path, bool truncate) {
    const int fd = ::open(
        path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | (truncate ? O_TRUNC : 0), 0666);
    if (fd < 0) return nullptr;
    FILE *f = fdopen(fd, "a");
    if (!f) {
        const int err = errno;
        ::close(fd);
        errno = err;
    }
    return f;
}

bool still_named(const std::string &path, FILE *f) {
    struct stat named, open;
    return stat(path.c_str(), &named) == 0 && fstat(fileno(f), &open) == 0 &&
           named.st_dev == open.st_dev && named.st_ino == open.st_ino;
}

OutputFile::OutputFile(std::string path, MakeWriter make, Error error)
    : path_(std::move(path)), make_(std::move(make)), error_(std::move(error)) {}

OutputFile::~OutputFile() {
    finish();
}

bool OutputFile::open() {
    std::lock_guard lock(mutex_);
    file_ = open_output(path_, true);
    if (!file_) {
        error_(fmt::format("cannot write {}: {}", path_, strerror(errno)));
        return false;
    }
    writer_ = make_(file_);
    return true;
}

void OutputFile::write(const Row &row) {
    std::lock_guard lock(mutex_);
    if (writer_) writer_->write(row);
}

void OutputFile::write(const FlowFormatter &formatter, const corvane_host::ExportedFlow &flow,
                       Row &scratch) {
    std::lock_guard lock(mutex_);
    if (writer_) writer_->write(formatter, flow, scratch);
}

bool OutputFile::close_file() {
    if (!file_) return true;
    writer_->finish();
    writer_.reset();
    const bool ok = !ferror(file_) && fclose(file_) == 0;
    file_ = nullptr;
    if (!ok) {
        error_(fmt::format("cannot write {}: {}", path_, strerror(errno)));
        failed_ = true;
    }
    return ok;
}

bool OutputFile::reopen() {
    std::lock_guard lock(mutex_);
    if (file_ && still_named(path_, file_)) {
        writer_->flush();
        return true;
    }
    close_file();
    file_ = open_output(path_, false);
    if (!file_) {
        error_(fmt::format("cannot reopen {}: {}", path_, strerror(errno)));
        failed_ = true;
        return false;
    }
    writer_ = make_(file_);
    return true;
}

bool OutputFile::finish() {
    std::lock_guard lock(mutex_);
    close_file();
    return !failed_;
}

}  // namespace smbflow
