// Output files that follow capture time: -o names a strftime pattern and a new file begins
// with each interval of --rotate seconds, named by the interval's start (UTC). A record goes
// to the file of its end time, or to the newest file when that is later (records leave the
// flow cache after their end, and a file once closed is not opened again).
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "writers.h"

namespace smbflow {

class RotatingOutput {
  public:
    using MakeWriter = std::function<std::unique_ptr<RecordWriter>(FILE *)>;
    using Error = std::function<void(const std::string &)>;

    RotatingOutput(std::string pattern, uint64_t interval_s, MakeWriter make, Error error);
    ~RotatingOutput();

    // False when the record's file cannot be opened (said through `error`, once a file).
    bool write(const Row &row, uint64_t end_ns);
    // The same for a flow record as `formatter` renders it (the record's end time decides).
    bool write(const FlowFormatter &formatter, const corvane_host::ExportedFlow &flow,
               Row &scratch);
    // SIGHUP: the open file, once renamed away (logrotate), is closed, and the next record opens
    // its name again. write() and reopen() may be called from different threads.
    void reopen();
    // Closes the last file cleanly; false when a file could not be written.
    bool finish();

    const std::vector<std::string> &files() const { return files_; }

    // The name of the file of the interval that starts at `start_s` (seconds since 1970).
    static std::string file_name(const std::string &pattern, uint64_t start_s);

  private:
    // The file of a record that ends at `end_ns`, opened when it is not; false when it cannot be.
    bool file_for(uint64_t end_ns);

    bool close_current();

    std::string pattern_;
    uint64_t interval_s_;
    MakeWriter make_;
    Error error_;
    std::mutex mutex_;
    uint64_t slot_ = 0;
    bool started_ = false;  // a file has been opened (or tried)
    bool open_ = false, failed_ = false, write_error_ = false;
    FILE *file_ = nullptr;
    std::unique_ptr<RecordWriter> writer_;
    std::vector<std::string> files_;
};

}  // namespace smbflow
