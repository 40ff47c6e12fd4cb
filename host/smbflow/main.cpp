// smbflow: runs the SMB process plug-in on capture files or live traffic and writes the flow
// records it completes.
#include <dlfcn.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>

#include <fmt/format.h>

#include "capture.h"
#include "host.h"
#include "ipfix_export.h"
#include "options.h"
#include "parse_results.h"
#include "mapped_capture.h"
#include "pipeline.h"
#include "stderr_lines.h"
#include "summary.h"
#include "writers.h"

namespace smbflow {

namespace {

constexpr const char *kPluginFile = "plugin-process-smb.so";

std::atomic<Capture *> g_capture{nullptr};

void on_signal(int) {
    if (Capture *c = g_capture.load()) c->interrupt();
}

void install_signals() {
    struct sigaction sa {};
    sa.sa_handler = on_signal;
    sa.sa_flags = SA_RESETHAND;  // a second signal ends the program at once
    sigemptyset(&sa.sa_mask);
    // No SA_RESTART: a read blocked on standard input or a FIFO returns, and the run ends
    // cleanly with its records and summary. A hang-up ends it the same way.
    for (int sig : {SIGINT, SIGTERM, SIGHUP})
        sigaction(sig, &sa, nullptr);
}

// The kernel gives a process-directed signal to any thread that does not block it, and only
// that thread's blocking read(2) returns EINTR. So every thread the run starts blocks the
// termination signals (threads inherit the mask of their creator), and the reading thread
// takes them alone once they are all running.
void termination_signals(int how) {
    sigset_t set;
    sigemptyset(&set);
    for (int sig : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&set, sig);
    pthread_sigmask(how, &set, nullptr);
}

void error(const std::string &message) {
    fprintf(stderr, "smbflow: %s\n", message.c_str());
}

std::string default_plugin_path() {
    std::error_code ec;
    const auto exe = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (ec) return kPluginFile;
    const auto dir = exe.parent_path();
    for (const auto &candidate :
         {dir / kPluginFile, dir / ".." / kPluginFile, dir / ".." / "lib" / kPluginFile})
        if (std::filesystem::exists(candidate, ec)) return candidate.string();
    return (dir / kPluginFile).string();
}

Format default_format(const Options &opts, FILE *out) {
    if (opts.format) return *opts.format;
    if (!opts.output.empty()) {
        const auto ext = std::filesystem::path(opts.output).extension();
        if (ext == ".json" || ext == ".jsonl") return Format::Json;
        if (ext == ".txt") return Format::Text;
        return Format::Csv;
    }
    return isatty(fileno(out)) ? Format::Text : Format::Csv;
}

uint64_t wall_clock_ns() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

int run(const Options &opts) {
    Capture capture = opts.interface.empty()
                          ? Capture::files(opts.files, opts.filter)
                          : Capture::live(opts.interface, opts.filter, opts.snaplen);
    // Handlers first, so that a signal at any point after the input is opened ends the run
    // cleanly.
    g_capture.store(&capture);
    termination_signals(SIG_BLOCK);
    struct Forget {
        ~Forget() { g_capture.store(nullptr); }
    } forget_capture_on_return;
    install_signals();
    if (!capture.open()) {
        error(capture.error());
        return capture.error_is_filter() ? kExitUsage : kExitInput;
    }

    corvane_host::Host host;
    RunSummary summary;
    if (!opts.no_plugin) {
        const std::string path = opts.plugin.empty() ? default_plugin_path() : opts.plugin;
        if (auto problem = host.load_library(path)) {
            error(*problem);
            return kExitPlugin;
        }
        for (size_t i = 0; i < host.plugin_count(); ++i) {
            if (void *lib = host.plugin(i).library)
                if (void *parser = dlsym(lib, "smb_parse_packet")) parse_results_install(parser);
            host.init_plugin(i, opts.params ? opts.params->c_str() : nullptr);
        }
        summary.plugin_loaded = true;
        summary.parse_counting = parse_results_installed();
    }
    for (const auto &problem : host.problems())
        error("plug-in: " + problem);

    std::vector<std::string> field_names;
    for (size_t at = 0; at < opts.fields.size();) {
        const size_t comma = std::min(opts.fields.find(',', at), opts.fields.size());
        field_names.push_back(opts.fields.substr(at, comma - at));
        at = comma + 1;
    }
    // The plug-in's fields beyond those smbflow presents itself follow as columns of their own.
    const std::vector<Column> cols = output_columns(host.fields());
    auto pick = pick_columns(field_names, cols);
    if (auto *unknown = std::get_if<std::string>(&pick)) {
        std::string names;
        for (const Column &c : cols)
            names += (names.empty() ? "" : ",") + std::string(c.name);
        error(fmt::format("--fields: no column '{}' (columns: {})", *unknown, names));
        return kExitUsage;
    }
    std::vector<std::unique_ptr<IpfixDestination>> exports;
    for (const auto &text : opts.ipfix) {
        auto url = parse_ipfix_url(text);
        if (auto *problem = std::get_if<std::string>(&url)) {
            error(*problem);
            return kExitUsage;
        }
        if (auto problem = check_destination(std::get<IpfixUrl>(url))) {
            error(*problem);
            return kExitOutput;
        }
        IpfixSettings settings;
        settings.pen = opts.ipfix_pen;
        settings.observation_domain = opts.observation_domain;
        settings.template_refresh_s = opts.template_refresh_s;
        settings.uniflow = opts.ipfix_uniflow;
        settings.extras = ipfix::extra_layout(FlowFormatter(host.fields()).extras());
        exports.push_back(
            std::make_unique<IpfixDestination>(std::get<IpfixUrl>(url), settings, error));
    }
    // With --ipfix alone the records go to the collectors only.
    const bool text_output = exports.empty() || !opts.output.empty() || opts.format;
    for (const auto &e : exports)
        if (e->url().path == "-" && text_output && opts.output.empty()) {
            error("--ipfix file:- and the text output both go to standard output; give -o");
            return kExitUsage;
        }
    FILE *out = stdout;
    if (!opts.output.empty()) {
        out = fopen(opts.output.c_str(), "w");
        if (!out) {
            error(fmt::format("cannot write {}: {}", opts.output, strerror(errno)));
            return kExitOutput;
        }
    }
    auto writer = text_output ? make_writer(default_format(opts, out), out, capture.is_live(),
                                            std::get<ColumnPick>(pick), cols)
                              : nullptr;
    corvane_host::QueueConfig config;
    config.active_timeout_ns = static_cast<uint64_t>(opts.active_timeout_s * 1e9);
    config.inactive_timeout_ns = static_cast<uint64_t>(opts.inactive_timeout_s * 1e9);

    int status = kExitOk;
    Progress progress(!opts.no_progress && isatty(STDERR_FILENO));
    {
        FlowFormatter formatter(host.fields());
        // Nanoseconds when any input has them (so a run's timestamps keep one width).
        bool nano = capture.is_live() && capture.nanosecond_stamps();
        for (const auto &f : opts.files)
            nano |= f != "-" && file_has_sub_microsecond_stamps(f);
        formatter.set_nanoseconds(nano);
        Row row;              // reused by the export thread
        IpfixFlow ipfix_row;  // likewise
        const ipfix::ExtraLayout extras = ipfix::extra_layout(formatter.extras());
        const PayloadNeed need =
            PayloadNeed::for_run(opts.no_plugin, host.plugin_count(),
                                 host.plugin_count() ? host.plugin(0).desc->name : "", opts.params);
        Pipeline pipeline(
            host, opts.queues, config,
            [&](const corvane_host::ExportedFlow &flow) {
                if (writer) {
                    formatter.render(flow, row);
                    writer->write(row);
                }
                if (!exports.empty()) {
                    to_ipfix(flow, formatter, ipfix_row, extras);
                    for (auto &e : exports)
                        e->write(IpfixFlow(ipfix_row));
                }
            },
            need);
        InputStats &in = summary.input;
        Frame frame;
        corvane_host::DecodedPacket packet;
        size_t file = capture.files_opened();
        std::string file_name = capture.current();
        uint64_t last_ts = 0;
        termination_signals(SIG_UNBLOCK);  // a signal held while starting is taken here
        for (;;) {
            const ReadStatus rs = capture.next(frame);
            if (rs == ReadStatus::End) break;
            if (rs == ReadStatus::Error) {
                error(capture.error());
                // A filter that a later file's link type cannot take is still a bad filter.
                status = capture.error_is_filter() ? kExitUsage : kExitInput;
                break;
            }
            if (rs == ReadStatus::Idle) {
                pipeline.advance_clock(wall_clock_ns());
                progress.update(in.frames, pipeline.flows_exported());
                continue;
            }
            ++in.frames;
            if (capture.files_opened() != file) {
                // The next file starts before the previous one ended: its packets join flows
                // that have moved on (the same capture given twice counts everything twice).
                if (frame.ts_ns < last_ts)
                    error(
                        fmt::format("warning: {} starts before the end of {}: capture time "
                                    "goes back; given twice?",
                                    capture.current(), file_name));
                file = capture.files_opened();
                file_name = capture.current();
            }
            last_ts = frame.ts_ns;
            switch (corvane_host::decode_frame(frame.link_type, frame.data, frame.caplen, packet)) {
                case corvane_host::DecodeStatus::Ok:
                    packet.pkt.timestamp_ns = frame.ts_ns;
                    if (packet.capped) ++in.capped;
                    pipeline.submit(packet, frame.keeper);
                    break;
                case corvane_host::DecodeStatus::NotIp:
                    ++in.not_ip;
                    break;
                default:
                    ++in.undecodable;
                    break;
            }
            if ((in.frames & 1023) == 0) progress.update(in.frames, pipeline.flows_exported());
            if (opts.count && in.frames >= opts.count) break;
        }
        g_capture.store(nullptr);
        for (int sig : {SIGINT, SIGTERM, SIGHUP})
            signal(sig, SIG_DFL);
        const auto kernel = capture.kernel_counts();
        in.live = capture.is_live();
        in.received = kernel.received;
        in.dropped = kernel.dropped;
        pipeline.finish();
        if (writer) writer->finish();
        for (auto &e : exports) {
            e->finish();
            const IpfixCounters c = e->counters();
            summary.exports.push_back({e->url().text, c.records_exported, c.messages_sent,
                                       c.records_dropped, c.connections,
                                       e->url().transport == IpfixUrl::Transport::Tcp});
            // A file that lost records, or a collector that took none of them, could not be
            // written; a collector's outage in between shows in the summary's counts.
            const bool file = e->url().transport == IpfixUrl::Transport::File;
            if (c.records_dropped > 0 && (file || c.records_exported == 0) && status == kExitOk)
                status = kExitOutput;
        }
        summary.pipeline = pipeline.stats();
    }
    progress.clear();
    summary.elapsed_s = progress.elapsed_s();
    host.shutdown();

    if (ferror(out) || (out != stdout ? fclose(out) : fflush(out)) != 0) {
        error(fmt::format("cannot write {}: {}", opts.output.empty() ? "output" : opts.output,
                          strerror(errno)));
        status = status == kExitOk ? kExitOutput : status;
    }
    if (!opts.quiet) fputs(format_summary(summary).c_str(), stderr);
    return status;
}

}  // namespace

// For --help: the help text of the plug-in that a run would load (the default, or --plugin's),
// one parameter a line. Empty when help is not asked for or the plug-in cannot be loaded.
std::string plugin_help(int argc, char **argv) {
    bool help = false, none = false;
    std::string path = default_plugin_path();
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        help |= a == "-h" || a == "--help";
        none |= a == "--no-plugin";
        if (a == "--plugin" && i + 1 < argc) path = argv[i + 1];
        if (a.rfind("--plugin=", 0) == 0) path = a.substr(9);
    }
    if (!help || none) return {};
    corvane_host::Host host;
    if (host.load_library(path) || host.plugin_count() == 0 || !host.plugin(0).desc->help)
        return {};
    std::string text = host.plugin(0).desc->help, out = "  ";
    // The descriptor separates its entries with runs of blanks or line breaks.
    for (size_t i = 0; i < text.size(); ++i) {
        const bool run = text.compare(i, 3, "   ") == 0;
        if (text[i] == '\n' || run) {
            out += "\n  ";
            while (i + 1 < text.size() && (text[i + 1] == ' ' || text[i + 1] == '\n'))
                ++i;
        } else {
            out += text[i];
        }
    }
    // The SMB plug-in's opt-in that its help text (kept as it is) does not list.
    if (std::string_view(host.plugin(0).desc->name) == "smb")
        out +=
            "\n  short-create=<0,1>  opt-in: also name opens answered without create "
            "contexts (88-byte CREATE responses), default 0";
    return out;
}

}  // namespace smbflow

int main(int argc, char **argv) {
    smbflow::drop_blank_lines_on_stderr();
    smbflow::Options opts;
    if (auto status = smbflow::parse_options(argc, argv, opts, smbflow::plugin_help(argc, argv)))
        return *status;
    return smbflow::run(opts);
}
