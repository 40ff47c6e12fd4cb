// IPFIX export of smbflow's flow records to one destination (a file, a UDP or a TCP
// collector), built on libfixbuf. Each destination runs on its own thread, so that a slow or
// absent collector never holds up packet processing: the export thread hands records over
// and goes on. A TCP collector that is away is reconnected with backoff; records wait for it
// up to a bound and beyond that are dropped and counted.
#pragma once

#include <fixbuf/public.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "exporter.h"
#include "flow_format.h"
#include "ipfix_extra.h"
#include "ipfix_url.h"

namespace smbflow {

struct IpfixSettings {
    uint32_t pen = 32473;
    uint32_t observation_domain = 1;
    // UDP only: templates go out again after this many seconds (0: with every message) or
    // after this many data messages (0: by time alone), whichever comes first, so that a
    // collector started or restarted late decodes records within seconds.
    double template_refresh_s = 30;
    uint64_t template_refresh_messages = 100;
    bool uniflow = false;          // each direction its own record, for collectors without
                                   // RFC 5103
    size_t held_records = 100000;  // waiting for a TCP collector that is away
    double first_retry_s = 0.25;   // reconnect backoff: doubles up to max_retry_s
    double max_retry_s = 30;
    double connect_timeout_s = 5;  // TCP: longest wait for a connection, and for the
                                   // collector's acknowledgement of the last records at the end
    // Set (from a signal handler) when the run must end now: connecting and waiting stop, and
    // what is not delivered is counted as dropped.
    const std::atomic<bool> *abandon = nullptr;
    ipfix::ExtraLayout extras;  // the plug-in's fields beyond the six, if it registered any
};

struct IpfixCounters {
    uint64_t records_exported = 0;  // data records in messages written out
    uint64_t messages_sent = 0;
    uint64_t records_dropped = 0;  // held beyond the bound, or left unsent at the end
    uint64_t connections = 0;      // TCP connections made (1 without outage)
    uint64_t send_failures = 0;    // connects and writes that failed
    std::string failure;           // the first write error, for the summary
};

// A flow record's values as IPFIX carries them, taken on the export thread.
struct IpfixFlow {
    host_flow_record rec{};
    corvane_host::ExportReason reason = corvane_host::ExportReason::End;
    bool smb = false;
    uint32_t cmd_request = 0, cmd_response = 0;
    uint8_t file_type = 0, op = 0;
    // The record's variable part in one block (a part of a chunk that blocks of other records
    // share), shared by the copies for each destination and never changed once made: the extra
    // elements' packed values (ipfix::pack_extras, the layout's size), their text, the tree and the
    // file name. Null when all are empty, so that such records move without touching the heap.
    std::shared_ptr<const uint8_t[]> data;
    uint32_t extras_size = 0, extras_text_size = 0, tree_size = 0, file_name_size = 0;

    std::string_view tree() const { return text_at(extras_size + extras_text_size, tree_size); }
    std::string_view file_name() const {
        return text_at(extras_size + extras_text_size + tree_size, file_name_size);
    }
    std::string_view extras_text() const { return text_at(extras_size, extras_text_size); }
    const uint8_t *extras() const { return extras_size ? data.get() : nullptr; }

  private:
    std::string_view text_at(size_t offset, size_t size) const {
        return size ? std::string_view(reinterpret_cast<const char *>(data.get()) + offset, size)
                    : std::string_view();
    }
};

// The IPFIX form of an exported flow record (the SMB values as the text writers show them,
// the extra elements of `extras`). A flow with a value of an extra element goes with the SMB
// template even without SMB values.
void to_ipfix(const corvane_host::ExportedFlow &flow, const FlowFormatter &formatter,
              IpfixFlow &out, const ipfix::ExtraLayout &extras = {});

// Checks what can be checked before a run: the file can be created, the host name resolves
// (with `name_may_wait`, a service's live capture: or may yet resolve). A message when not.
std::optional<std::string> check_destination(const IpfixUrl &url, bool name_may_wait = false);
// Whether a getaddrinfo error may go away by itself (the name is not known yet, the resolver
// cannot be reached), so that the name is worth trying again.
bool resolution_may_pass(int gai_error);

class IpfixDestination {
  public:
    using Clock = std::function<std::chrono::steady_clock::time_point()>;

    // `warn` receives messages for the user (connection lost and regained, one line each).
    IpfixDestination(IpfixUrl url, IpfixSettings settings,
                     std::function<void(const std::string &)> warn, Clock clock = {});
    ~IpfixDestination();
    IpfixDestination(const IpfixDestination &) = delete;
    IpfixDestination &operator=(const IpfixDestination &) = delete;

    void write(IpfixFlow &&flow);
    // Sends what has been handed over and waits until it has been written out or is held
    // for a collector that is away.
    void flush();
    // Sends what is left (one more connection attempt if the collector is away) and stops.
    void finish();
    // SIGHUP: a file: destination that was renamed away is begun again under its name.
    void reopen();

    IpfixCounters counters() const;
    const IpfixUrl &url() const { return url_; }

  private:
    struct Session;
    void run();
    bool connect_session();
    void drop_session();
    void reopen_file();
    bool send_batch(std::vector<IpfixFlow> &batch);
    bool emit();
    bool export_templates();
    bool templates_due() const;
    void hold_front(std::vector<IpfixFlow> &records);
    void down(const std::string &why);
    bool settle();
    std::vector<IpfixFlow> take_unacknowledged();

    IpfixUrl url_;
    IpfixSettings settings_;
    std::function<void(const std::string &)> warn_;
    Clock clock_;
    fbInfoModel_t *model_ = nullptr;

    mutable std::mutex mutex_;
    std::condition_variable wake_;      // the sender: records, flush or finish
    std::condition_variable progress_;  // producers: room, or a flush done
    std::deque<IpfixFlow> queue_;
    bool connected_ = true;  // until a connection fails; producers then drop beyond the bound
    bool dead_ = false;      // a file that could not be written
    bool finishing_ = false;
    bool reopen_requested_ = false;
    bool stopped_ = false;  // the sender has ended
    uint64_t flush_requested_ = 0, flush_done_ = 0;
    IpfixCounters counters_;

    // The sender thread's own.
    std::unique_ptr<Session> session_;
    std::vector<IpfixFlow> in_message_;  // appended since the last message went out
    std::vector<uint8_t> record_buf_;    // a record with extra elements, as appended
    size_t records_in_message_ = 0;      // data records in it (two a flow with --ipfix-uniflow)
    uint64_t data_messages_since_templates_ = 0;
    std::chrono::steady_clock::time_point next_retry_{}, last_templates_{};
    double retry_s_ = 0;
    bool outage_reported_ = false;
    bool ever_connected_ = false;
    std::thread thread_;
};

}  // namespace smbflow
