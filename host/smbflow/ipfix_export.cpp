#include "ipfix_export.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <pthread.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <endian.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>

#include <fmt/format.h>

#include "ipfix_record.h"
#include "tcp_connect.h"

namespace smbflow {

using namespace ipfix;
using namespace std::chrono;

namespace {

// How long a message may wait for more records before it goes out: records of a quiet live
// capture reach the collector within this time.
constexpr auto kMessageLinger = milliseconds(500);

std::string take_error(GError *&err) {
    std::string text = err ? err->message : "unknown error";
    g_clear_error(&err);
    return text;
}

bool is_end_of_message(const GError *err) {
    return err && g_error_matches(err, FB_ERROR_DOMAIN, FB_ERROR_EOM);
}

// The record's numbers are in network byte order: the external templates take them as they
// are (wire_order_templates).
void fill(FlowRecord &r, const IpfixFlow &f, bool reverse_side) {
    const host_flow_record &rec = f.rec;
    r = {};
    r.flowStartMilliseconds = htobe64(rec.first_ns / 1'000'000);
    r.flowEndMilliseconds = htobe64(rec.last_ns / 1'000'000);
    const int fwd = reverse_side ? 1 : 0;
    r.packetDeltaCount = htobe64(rec.dir_counters[fwd].packets);
    r.octetDeltaCount = htobe64(rec.dir_counters[fwd].bytes);
    r.reversePacketDeltaCount = htobe64(rec.dir_counters[1 - fwd].packets);
    r.reverseOctetDeltaCount = htobe64(rec.dir_counters[1 - fwd].bytes);
    const host_addr &src = reverse_side ? rec.dst_addr : rec.src_addr;
    const host_addr &dst = reverse_side ? rec.src_addr : rec.dst_addr;
    if (rec.ip_version == 4) {
        r.sourceIPv4Address = src.v4;  // network byte order already
        r.destinationIPv4Address = dst.v4;
    } else {
        memcpy(r.sourceIPv6Address, src.v6, 16);
        memcpy(r.destinationIPv6Address, dst.v6, 16);
    }
    r.sourceTransportPort = htons(reverse_side ? rec.dst_port : rec.src_port);
    r.destinationTransportPort = htons(reverse_side ? rec.src_port : rec.dst_port);
    if (rec.protocol == 6) {
        r.tcpControlBits = htons(rec.tcp_flags[fwd]);
        r.reverseTcpControlBits = htons(rec.tcp_flags[1 - fwd]);
    }
    r.protocolIdentifier = rec.protocol;
    r.flowEndReason = flow_end_reason(f.reason);
    if (f.smb) {
        r.smbCommandRequest = htonl(f.cmd_request);
        r.smbCommandResponse = htonl(f.cmd_response);
        const std::string_view tree = f.tree(), file_name = f.file_name();
        r.smbTree = {tree.size(), reinterpret_cast<uint8_t *>(const_cast<char *>(tree.data()))};
        r.smbFileName = {file_name.size(),
                         reinterpret_cast<uint8_t *>(const_cast<char *>(file_name.data()))};
        r.smbFileType = f.file_type;
        r.smbOperation = f.op;
    }
}

// libfixbuf encodes a number element by copying it and then, for an element marked as
// host-ordered (FB_IE_F_ENDIAN), turning its bytes around one at a time: much of the cost
// of a record. The records this class appends hold their numbers in network byte
// order already, so the external templates' elements lose the mark and are copied as they
// are; the bytes on the wire are the same. Only the templates made here are changed: the
// information model, and whoever decodes with it, keeps the marks.
void wire_order_templates(fbTemplate_t *t) {
    for (uint32_t i = 0, n = fbTemplateCountElements(t); i < n; ++i)
        fbTemplateGetIndexedIE(t, i)->flags &= ~uint32_t{FB_IE_F_ENDIAN};
}

// libfixbuf reports some conditions through GLib's log (a UDP collector that refuses, once
// per run): they read as smbflow's own messages.
void route_library_messages() {
    static std::once_flag once;
    std::call_once(once, [] {
        g_log_set_default_handler(
            [](const gchar *, GLogLevelFlags, const gchar *message, gpointer) {
                fprintf(stderr, "smbflow: ipfix: %s\n", message);
            },
            nullptr);
    });
}

}  // namespace

void to_ipfix(const corvane_host::ExportedFlow &flow, const FlowFormatter &formatter,
              IpfixFlow &out, const ipfix::ExtraLayout &extras) {
    out.rec = flow.rec;
    out.reason = flow.reason;
    SmbValues smb;
    out.smb = formatter.smb_values(flow, smb);
    // The extras are packed here first (reused for every record of this thread), then copied
    // into the record's block with the texts.
    thread_local std::vector<uint8_t> extra_bytes;
    thread_local std::string extra_text;
    extra_bytes.clear();
    extra_text.clear();
    // A flow with a value of an extra element goes with the SMB template.
    if (!extras.empty() && pack_extras(flow, extras, extra_bytes, extra_text)) out.smb = true;
    // Absent values travel as the fields' invalid markers: the template has no way to leave
    // out one element of a record.
    out.cmd_request = smb.cmd_request ? static_cast<uint32_t>(smb.cmd_request->number()) : 0xff;
    out.cmd_response = smb.cmd_response ? static_cast<uint32_t>(smb.cmd_response->number()) : 0xff;
    const std::string_view tree = smb.tree ? smb.tree->text.view() : std::string_view();
    const std::string_view file_name =
        smb.file_name ? smb.file_name->text.view() : std::string_view();
    out.file_type = smb.file_type ? static_cast<uint8_t>(smb.file_type->number()) : 0;
    out.op = smb.op ? static_cast<uint8_t>(smb.op->number()) : 0x3f;

    out.extras_size = static_cast<uint32_t>(extra_bytes.size());
    out.extras_text_size = static_cast<uint32_t>(extra_text.size());
    out.tree_size = static_cast<uint32_t>(tree.size());
    out.file_name_size = static_cast<uint32_t>(file_name.size());
    const size_t total = extra_bytes.size() + extra_text.size() + tree.size() + file_name.size();
    if (total == 0) {
        out.data.reset();
        return;
    }
    // Each record's block is a new part of a larger chunk (the destinations may still hold
    // the last ones): the block shares the chunk's ownership, so that a record costs no
    // allocation of its own and the chunk goes with the last of its records. Parts once
    // handed out are not written again.
    struct Chunk {
        std::shared_ptr<uint8_t[]> bytes;
        size_t size = 0, used = 0;
    };
    thread_local Chunk chunk;
    if (chunk.size - chunk.used < total) {
        constexpr size_t kChunkSize = 64 * 1024;
        chunk.size = std::max(kChunkSize, total);
        chunk.bytes = std::make_shared_for_overwrite<uint8_t[]>(chunk.size);
        chunk.used = 0;
    }
    uint8_t *const block = chunk.bytes.get() + chunk.used;
    chunk.used += total;
    uint8_t *at = block;
    auto put = [&](const void *p, size_t n) {
        if (n) memcpy(at, p, n);
        at += n;
    };
    put(extra_bytes.data(), extra_bytes.size());
    put(extra_text.data(), extra_text.size());
    put(tree.data(), tree.size());
    put(file_name.data(), file_name.size());
    out.data = std::shared_ptr<const uint8_t[]>(chunk.bytes, block);
}

// Files and TCP collectors are written through a stream of this program's own, so that every
// write error is seen with its cause as it happens (a buffered write to a full disk would
// otherwise fail unseen at close) and the bytes written are counted, to know which records a
// TCP collector acknowledged.
struct IpfixDestination::Session {
    fBuf_t *buf = nullptr;  // owns the session and the exporter
    fbSession_t *session = nullptr;
    FILE *stream = nullptr;
    int fd = -1;
    int write_errno = 0;
    uint64_t written = 0, acked_base = 0;
    struct Sent {
        uint64_t end;  // bytes written when the message was done
        std::vector<IpfixFlow> records;
    };
    std::deque<Sent> unacked;  // TCP: messages the collector may not have received

    static ssize_t write_out(void *cookie, const char *data, size_t size) {
        auto *s = static_cast<Session *>(cookie);
        size_t done = 0;
        while (done < size) {
            const ssize_t n = ::write(s->fd, data + done, size - done);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) {
                s->write_errno = n < 0 ? errno : EIO;
                break;
            }
            done += static_cast<size_t>(n);
        }
        s->written += done;
        return done == size ? static_cast<ssize_t>(size) : -1;
    }

    bool open_stream(int descriptor) {
        fd = descriptor;
        stream =
            fopencookie(this, "w", cookie_io_functions_t{nullptr, write_out, nullptr, nullptr});
        if (stream) setvbuf(stream, nullptr, _IONBF, 0);
        return stream != nullptr;
    }

    ~Session() {
        if (buf) fBufFree(buf);
        if (stream) fclose(stream);
        if (fd >= 0) ::close(fd);
    }
};

IpfixDestination::IpfixDestination(IpfixUrl url, IpfixSettings settings,
                                   std::function<void(const std::string &)> warn, Clock clock)
    : url_(std::move(url)), settings_(settings), warn_(std::move(warn)), clock_(std::move(clock)) {
    if (!clock_) clock_ = [] { return steady_clock::now(); };
    retry_s_ = settings_.first_retry_s;
    model_ = make_model(settings_.pen, settings_.extras);
    route_library_messages();
    thread_ = std::thread([this] { run(); });
}

IpfixDestination::~IpfixDestination() {
    finish();
    fbInfoModelFree(model_);
}

bool resolution_may_pass(int gai_error) {
    return gai_error == EAI_NONAME || gai_error == EAI_AGAIN || gai_error == EAI_FAIL ||
           gai_error == EAI_NODATA || gai_error == EAI_SYSTEM;
}

std::optional<std::string> check_destination(const IpfixUrl &url, bool name_may_wait) {
    if (url.transport == IpfixUrl::Transport::File) {
        if (url.path == "-") return std::nullopt;  // standard output
        FILE *f = fopen(url.path.c_str(), "ab");
        if (!f) return fmt::format("cannot write {}: {}", url.path, strerror(errno));
        fclose(f);
        return std::nullopt;
    }
    addrinfo hints{};
    hints.ai_socktype = url.transport == IpfixUrl::Transport::Udp ? SOCK_DGRAM : SOCK_STREAM;
    addrinfo *ai = nullptr;
    const int rc = getaddrinfo(url.host.c_str(), url.port.c_str(), &hints, &ai);
    if (rc == 0) freeaddrinfo(ai);
    // A name that does not resolve yet (the resolver or the collector's entry is still being set
    // up) is tried again with the connection backoff, as a collector that is away is, and said
    // then; what cannot pass is refused now.
    if (rc != 0 && !(name_may_wait && resolution_may_pass(rc)))
        return fmt::format("--ipfix {}: {}: {}", url.text, url.host, gai_strerror(rc));
    return std::nullopt;
}

void IpfixDestination::write(IpfixFlow &&flow) {
    std::unique_lock lock(mutex_);
    if (dead_) {
        ++counters_.records_dropped;
        return;
    }
    if (connected_)
        progress_.wait(lock, [&] { return queue_.size() < settings_.held_records || !connected_; });
    if (queue_.size() >= settings_.held_records) {
        ++counters_.records_dropped;
        return;
    }
    queue_.push_back(std::move(flow));
    if (queue_.size() == 1) wake_.notify_one();
}

void IpfixDestination::flush() {
    std::unique_lock lock(mutex_);
    const uint64_t ticket = ++flush_requested_;
    wake_.notify_one();
    progress_.wait(lock, [&] { return flush_done_ >= ticket || stopped_; });
}

void IpfixDestination::finish() {
    {
        std::lock_guard lock(mutex_);
        if (!thread_.joinable()) return;
        finishing_ = true;
        wake_.notify_one();
    }
    thread_.join();
}

IpfixCounters IpfixDestination::counters() const {
    std::lock_guard lock(mutex_);
    return counters_;
}

bool IpfixDestination::connect_session() {
    GError *err = nullptr;
    fbInfoModel_t *model = model_;
    auto s = std::make_unique<Session>();
    s->session = fbSessionAlloc(model);
    // External templates belong to the domain that is current when they are added.
    fbSessionSetDomain(s->session, settings_.observation_domain);
    fbTemplate_t *internal = fbTemplateAlloc(model);
    auto internal_elements = internal_spec(settings_.extras);
    bool ok = fbTemplateAppendSpecArray(internal, internal_elements.data(), UINT32_MAX, &err) &&
              fbSessionAddTemplate(s->session, TRUE, kInternalTid, internal, &err);
    for (uint32_t variant : kTemplateVariants) {
        if (!ok) break;
        if (bool(variant & kReverse) == settings_.uniflow) continue;
        fbTemplate_t *t = fbTemplateAlloc(model);
        auto elements = external_spec(settings_.extras, variant);
        ok = fbTemplateAppendSpecArray(t, elements.data(), UINT32_MAX, &err);
        if (ok) wire_order_templates(t);
        ok = ok && fbSessionAddTemplate(s->session, FALSE, template_id(variant), t, &err);
    }
    ok = ok && fbSessionSetMetadataExportElements(s->session, TRUE, FB_TID_AUTO, &err) != 0;
    if (!ok) {
        // Templates that the session could not take are a fault of this program.
        fbSessionFree(s->session);
        down(fmt::format("cannot set up templates: {}", take_error(err)));
        return false;
    }
    fbExporter_t *exporter = nullptr;
    if (url_.transport == IpfixUrl::Transport::Udp) {
        fbConnSpec_t conn{};
        conn.transport = FB_UDP;
        conn.host = const_cast<char *>(url_.host.c_str());
        conn.svc = const_cast<char *>(url_.port.c_str());
        // libfixbuf resolves the name here and gives no exporter when it cannot: the name is
        // looked up first, so that the message says why.
        addrinfo hints{};
        hints.ai_socktype = SOCK_DGRAM;
        addrinfo *ai = nullptr;
        if (const int rc = getaddrinfo(url_.host.c_str(), url_.port.c_str(), &hints, &ai);
            rc != 0) {
            fbSessionFree(s->session);
            down(fmt::format("cannot resolve {}: {}", url_.host, gai_strerror(rc)));
            return false;
        }
        freeaddrinfo(ai);
        exporter = fbExporterAllocNet(&conn);
        if (!exporter) {
            fbSessionFree(s->session);
            down(fmt::format("cannot send over UDP to {}:{}", url_.host, url_.port));
            return false;
        }
    } else {
        std::string why;
        int fd = -1;
        if (url_.transport == IpfixUrl::Transport::File) {
            fd = url_.path == "-"
                     ? fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0)
                     : ::open(url_.path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
            if (fd < 0) why = fmt::format("cannot write {}: {}", url_.path, strerror(errno));
        } else {
            fd = connect_tcp(url_.host, url_.port, settings_.connect_timeout_s, settings_.abandon,
                             why);
            if (fd < 0) why = "cannot connect: " + why;
        }
        if (fd < 0 || !s->open_stream(fd)) {
            if (fd >= 0) ::close(fd);
            fbSessionFree(s->session);
            down(why.empty() ? std::string(strerror(errno)) : why);
            return false;
        }
        if (url_.transport == IpfixUrl::Transport::Tcp) s->acked_base = tcp_bytes_acked(fd);
        exporter = fbExporterAllocFP(s->stream);
    }
    s->buf = fBufAllocForExport(s->session, exporter);
    session_ = std::move(s);
    // The templates open the file or connection: a collector that is away shows here.
    if (!export_templates()) return false;
    {
        std::lock_guard lock(mutex_);
        ++counters_.connections;
        connected_ = true;
    }
    if (outage_reported_)
        warn_(fmt::format("ipfix: {}: {}", url_.text,
                          ever_connected_ ? "connected again" : "connected"));
    outage_reported_ = false;
    ever_connected_ = true;
    retry_s_ = settings_.first_retry_s;
    return true;
}

// Templates (and the SMB elements' type records) go in messages of their own. libfixbuf
// lays them out in its automatic mode; data records are appended in manual mode, so that
// this class knows which records each message carried.
bool IpfixDestination::export_templates() {
    GError *err = nullptr;
    fBufSetAutomaticMode(session_->buf, TRUE);
    const bool ok = fbSessionExportTemplates(session_->session, &err);
    fBufSetAutomaticMode(session_->buf, FALSE);
    if (!ok || !fBufSetInternalTemplate(session_->buf, kInternalTid, &err)) {
        down(take_error(err));
        return false;
    }
    last_templates_ = clock_();
    data_messages_since_templates_ = 0;
    // libfixbuf takes no data records into a message that carries templates.
    return emit();
}

// Over UDP the templates go out again from time to time, since a collector may have missed
// them or started later (RFC 7011 section 8.4); over TCP and in files once, at the start.
bool IpfixDestination::templates_due() const {
    return url_.transport == IpfixUrl::Transport::Udp &&
           (settings_.template_refresh_s == 0 ||
            (settings_.template_refresh_messages != 0 &&
             data_messages_since_templates_ >= settings_.template_refresh_messages) ||
            clock_() - last_templates_ >= duration<double>(settings_.template_refresh_s));
}

void IpfixDestination::reopen() {
    std::lock_guard lock(mutex_);
    reopen_requested_ = true;
    wake_.notify_one();
}

// A file renamed away (logrotate) gets the message being built; then a new file is begun
// under the name, with the templates, as at the start. A file still under its name is kept.
void IpfixDestination::reopen_file() {
    struct stat named, open;
    if (stat(url_.path.c_str(), &named) == 0 && fstat(session_->fd, &open) == 0 &&
        named.st_dev == open.st_dev && named.st_ino == open.st_ino)
        return;
    if (!in_message_.empty() && !emit()) return;
    drop_session();
    connect_session();
}

void IpfixDestination::drop_session() {
    session_.reset();
}

// Writes the message being built; on failure the destination is down and the message's
// records go back to the front of the queue.
bool IpfixDestination::emit() {
    GError *err = nullptr;
    Session &s = *session_;
    // A collector that closed the connection would take the next message into nowhere.
    if (url_.transport == IpfixUrl::Transport::Tcp && tcp_peer_gone(s.fd)) {
        down("the collector closed the connection");
        return false;
    }
    // The stream's error is looked at as well: stdio does not always pass a failed write on.
    if (fBufEmit(s.buf, &err) && !s.write_errno) {
        std::lock_guard lock(mutex_);
        ++counters_.messages_sent;
        if (!in_message_.empty()) ++data_messages_since_templates_;
        counters_.records_exported += in_message_.size();
        if (url_.transport == IpfixUrl::Transport::Tcp && !in_message_.empty())
            s.unacked.push_back({s.written, std::move(in_message_)});
        in_message_.clear();
        records_in_message_ = 0;
        // Messages the collector has acknowledged need not be kept.
        const uint64_t acked = s.fd >= 0 ? tcp_bytes_acked(s.fd) - s.acked_base : 0;
        while (!s.unacked.empty() && s.unacked.front().end <= acked)
            s.unacked.pop_front();
        return true;
    }
    // The stream's own error says what happened; libfixbuf's text may carry a stale errno.
    if (s.write_errno) {
        g_clear_error(&err);
        down(strerror(s.write_errno));
    } else {
        down(take_error(err));
    }
    return false;
}

// The records of the messages that a TCP collector has not acknowledged, oldest first: they
// are no longer counted as sent.
std::vector<IpfixFlow> IpfixDestination::take_unacknowledged() {
    std::vector<IpfixFlow> out;
    if (!session_ || session_->unacked.empty()) return out;
    Session &s = *session_;
    const uint64_t acked_raw = tcp_bytes_acked(s.fd);
    const uint64_t acked = acked_raw == UINT64_MAX ? 0 : acked_raw - s.acked_base;
    for (auto &sent : s.unacked)
        if (sent.end > acked)
            for (auto &r : sent.records)
                out.push_back(std::move(r));
    s.unacked.clear();
    std::lock_guard lock(mutex_);
    counters_.records_exported -= std::min<uint64_t>(counters_.records_exported, out.size());
    return out;
}

// At the end: waits, within the connect timeout, for the collector to acknowledge what was
// written. A collector that closes the connection first gets the records again on a new one
// (false: they are back in the queue); what is unacknowledged when the time is up, or the run
// is abandoned, counts as dropped.
bool IpfixDestination::settle() {
    if (!session_ || url_.transport != IpfixUrl::Transport::Tcp) return true;
    Session &s = *session_;
    const auto deadline = clock_() + duration_cast<steady_clock::duration>(
                                         duration<double>(settings_.connect_timeout_s));
    while (!s.unacked.empty() && clock_() < deadline &&
           !(settings_.abandon && settings_.abandon->load())) {
        const uint64_t acked = tcp_bytes_acked(s.fd);
        if (acked == UINT64_MAX || acked - s.acked_base >= s.written) {
            s.unacked.clear();
            break;
        }
        if (tcp_peer_gone(s.fd)) {
            down("the collector closed the connection before it acknowledged the last records");
            return false;
        }
        pollfd p{s.fd, POLLRDHUP, 0};
        poll(&p, 1, 20);  // acknowledgements do not wake a poll: look again shortly
    }
    const auto lost = take_unacknowledged();
    std::lock_guard lock(mutex_);
    counters_.records_dropped += lost.size();
    return true;
}

// The file or collector cannot be written: the session goes, the records of the message
// being built wait in the queue, and a collector is tried again after a backoff. A file is
// not tried again (reopening would truncate it): what comes for it is dropped.
void IpfixDestination::down(const std::string &reason) {
    std::string why = reason;
    // libfixbuf calls every socket it cannot connect a TCP socket, UDP ones included.
    constexpr std::string_view kTcpWords = "couldn't create connected TCP socket to";
    if (const size_t at = why.find(kTcpWords);
        at != std::string::npos && url_.transport == IpfixUrl::Transport::Udp)
        why.replace(at, kTcpWords.size(), "cannot send over UDP to");
    const bool file = url_.transport == IpfixUrl::Transport::File;
    // What a TCP collector did not acknowledge goes again, ahead of the message being built.
    auto resend = take_unacknowledged();
    for (auto &r : in_message_)
        resend.push_back(std::move(r));
    in_message_ = std::move(resend);
    {
        std::lock_guard lock(mutex_);
        ++counters_.send_failures;
        if (counters_.failure.empty()) counters_.failure = why;
        connected_ = false;
        dead_ = file;
    }
    progress_.notify_all();
    if (!outage_reported_)
        warn_(file ? fmt::format("ipfix: {}: {}", url_.text, why)
                   : fmt::format("ipfix: {}: {}; records are held for it and sent when it is "
                                 "back",
                                 url_.text, why));
    outage_reported_ = true;
    drop_session();
    records_in_message_ = 0;
    hold_front(in_message_);
    next_retry_ = clock_() + duration_cast<steady_clock::duration>(duration<double>(retry_s_));
    retry_s_ = std::min(retry_s_ * 2, settings_.max_retry_s);
}

void IpfixDestination::hold_front(std::vector<IpfixFlow> &records) {
    std::lock_guard lock(mutex_);
    for (auto it = records.rbegin(); it != records.rend(); ++it)
        queue_.push_front(std::move(*it));
    records.clear();
    while (queue_.size() > settings_.held_records) {
        queue_.pop_back();
        ++counters_.records_dropped;
    }
}

// Appends the records, emitting full messages; false when the destination went down (the
// records not yet written are back in the queue).
bool IpfixDestination::send_batch(std::vector<IpfixFlow> &batch) {
    size_t i = 0;
    auto hold_rest = [&] {
        std::vector<IpfixFlow> rest(std::make_move_iterator(batch.begin() + i),
                                    std::make_move_iterator(batch.end()));
        hold_front(rest);
        batch.clear();
    };
    for (; i < batch.size(); ++i) {
        IpfixFlow &f = batch[i];
        const bool v6 = f.rec.ip_version == 6;
        const bool both_ways = f.rec.dir_counters[1].packets > 0;
        const int records = settings_.uniflow && both_ways ? 2 : 1;
        for (int side = 0; side < records; ++side) {
            uint32_t flags = uint32_t(v6 ? kIPv6 : kIPv4) | (f.smb ? uint32_t(kSmb) : 0u);
            if (!settings_.uniflow) flags |= kReverse;
            FlowRecord r;
            fill(r, f, side == 1);
            size_t size = sizeof r;
            const uint8_t *record = reinterpret_cast<const uint8_t *>(&r);
            if (!settings_.extras.empty())
                record = record_with_extras(&r, sizeof r, settings_.extras, f.extras(),
                                            f.extras_text(), record_buf_, size);
            GError *err = nullptr;
            // A full message ends in FB_ERROR_EOM: it goes out and the record starts the next
            // one. libfixbuf also answers the first record after templates so, once.
            for (int attempt = 0;; ++attempt) {
                if (fBufSetExportTemplate(session_->buf, template_id(flags), &err) &&
                    fBufAppend(session_->buf, const_cast<uint8_t *>(record), size, &err)) {
                    ++records_in_message_;
                    break;
                }
                if (!is_end_of_message(err) || attempt > 2) {
                    warn_(fmt::format("ipfix: {}: cannot encode a record: {}", url_.text,
                                      take_error(err)));
                    break;
                }
                g_clear_error(&err);
                const bool had_records = records_in_message_ > 0;
                if ((had_records && !emit()) ||
                    (had_records && templates_due() && !export_templates())) {
                    hold_rest();
                    return false;
                }
            }
        }
        in_message_.push_back(std::move(f));
    }
    batch.clear();
    return true;
}

void IpfixDestination::run() {
    // The collector's going away must show as an error on write, not end the program.
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);

    std::vector<IpfixFlow> batch;
    bool last_try_made = false;
    std::unique_lock lock(mutex_);
    for (;;) {
        const uint64_t flush_ticket = flush_requested_;
        if (reopen_requested_) {
            reopen_requested_ = false;
            if (session_ && url_.transport == IpfixUrl::Transport::File && url_.path != "-") {
                lock.unlock();
                reopen_file();
                lock.lock();
                continue;
            }
        }
        if (!session_) {
            // Connect now at the start, when the retry time has come, or for a last try at
            // the end; between tries wait for the time or the end.
            if (dead_ || (finishing_ && last_try_made)) break;
            if (finishing_ && settings_.abandon && settings_.abandon->load()) break;
            if (!finishing_ && clock_() < next_retry_) {
                flush_done_ = flush_ticket;
                progress_.notify_all();
                wake_.wait_until(lock, next_retry_, [&] {
                    return finishing_ || flush_requested_ > flush_done_ || reopen_requested_;
                });
                continue;
            }
            last_try_made = finishing_;
            lock.unlock();
            connect_session();
            lock.lock();
            continue;
        }
        if (queue_.empty()) {
            if (!in_message_.empty() || flush_ticket > flush_done_ || finishing_) {
                // Nothing more is coming for now: the message goes out.
                const bool quiet = flush_ticket > flush_done_ || finishing_ ||
                                   !wake_.wait_for(lock, kMessageLinger, [&] {
                                       return !queue_.empty() || finishing_ ||
                                              flush_requested_ > flush_done_ || reopen_requested_;
                                   });
                if (!quiet) continue;
                lock.unlock();
                const bool sent = in_message_.empty() || emit();
                lock.lock();
                if (!sent) continue;
                flush_done_ = flush_ticket;
                progress_.notify_all();
                if (finishing_ && queue_.empty()) {
                    lock.unlock();
                    const bool settled = settle();
                    lock.lock();
                    if (settled) break;
                }
                continue;
            }
            wake_.wait(lock, [&] {
                return !queue_.empty() || finishing_ || flush_requested_ > flush_done_ ||
                       reopen_requested_;
            });
            continue;
        }
        batch.assign(std::make_move_iterator(queue_.begin()),
                     std::make_move_iterator(queue_.end()));
        queue_.clear();
        progress_.notify_all();
        lock.unlock();
        if (session_ && templates_due() && (in_message_.empty() || emit())) export_templates();
        if (session_)
            send_batch(batch);
        else
            hold_front(batch);
        lock.lock();
    }
    lock.unlock();
    settle();
    lock.lock();
    // Whatever could not be sent by the end is lost.
    counters_.records_dropped += queue_.size() + in_message_.size();
    queue_.clear();
    in_message_.clear();
    flush_done_ = flush_requested_;
    stopped_ = true;
    lock.unlock();
    drop_session();
    progress_.notify_all();
}

}  // namespace smbflow
