// The -o file of a run without rotation, and what both it and the rotated files need to be
// reopened: logrotate renames a log away (or copies and truncates it) and then sends SIGHUP,
// after which the records should go to a file under the configured name again.
#pragma once

#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "writers.h"

namespace smbflow {

// Opens `path` for writing in append mode, emptied first when `truncate`: appending keeps the
// file whole when it is truncated under the writer (logrotate's copytruncate). Null with errno.
FILE *open_output(const std::string &path, bool truncate);

// Whether `path` still names the file open as `f` (false once it was renamed or removed).
bool still_named(const std::string &path, FILE *f);

class OutputFile {
  public:
    using MakeWriter = std::function<std::unique_ptr<RecordWriter>(FILE *)>;
    using Error = std::function<void(const std::string &)>;

    OutputFile(std::string path, MakeWriter make, Error error);
    ~OutputFile();
    OutputFile(const OutputFile &) = delete;
    OutputFile &operator=(const OutputFile &) = delete;

    // Creates or empties the file; false (said through `error`) when it cannot.
    bool open();
    // write() and reopen() may be called from different threads.
    void write(const Row &row);
    void write(const FlowFormatter &formatter, const corvane_host::ExportedFlow &flow,
               Row &scratch);
    // When the name no longer leads to the open file, closes it and opens the name anew (a
    // file that logrotate created in its place is appended to). False when that fails; the
    // records that follow are then lost, and the end of the run says so.
    bool reopen();
    // Closes the file; false when a part of the output could not be written.
    bool finish();

  private:
    bool close_file();

    std::string path_;
    MakeWriter make_;
    Error error_;
    std::mutex mutex_;
    FILE *file_ = nullptr;
    std::unique_ptr<RecordWriter> writer_;
    bool failed_ = false;
};

}  // namespace smbflow
