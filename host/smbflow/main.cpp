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
#include "orientation.h"
#include "output_file.h"
#include "param_check.h"
#include "parse_results.h"
#include "mapped_capture.h"
#include "pipeline.h"
#include "rotation.h"
#include "service.h"
#include "plugin_search.h"
#include "stderr_lines.h"
#include "summary.h"
#include "version.h"
#include "writers.h"

namespace smbflow {

namespace {

std::atomic<Capture *> g_capture{nullptr};
// Set by a signal while the run drains: collectors are no longer waited for.
std::atomic<bool> g_abandon{false};
volatile sig_atomic_t g_stats_now = 0;  // SIGUSR1: a statistics line at once
volatile sig_atomic_t g_reopen = 0;     // SIGHUP on a live capture: reopen the outputs

void on_stats_signal(int) {
    g_stats_now = 1;
}

void on_hangup(int) {
    g_reopen = 1;
}

void on_signal(int) {
    if (Capture *c = g_capture.load()) c->interrupt();
    g_abandon.store(true);
}

// `live`: SIGHUP asks for the outputs to be reopened (logrotate) instead of ending the run.
void install_signals(bool live) {
    struct sigaction sa {};
    sa.sa_handler = on_signal;
    sa.sa_flags = SA_RESETHAND;  // a second signal ends the program at once
    sigemptyset(&sa.sa_mask);
    // No SA_RESTART: a read blocked on standard input or a FIFO returns, and the run ends
    // cleanly with its records and summary. Reading files, a hang-up ends it the same way.
    for (int sig : {SIGINT, SIGTERM, SIGHUP})
        if (sig != SIGHUP || !live) sigaction(sig, &sa, nullptr);
    // Reads go on after these: SA_RESTART.
    struct sigaction go_on {};
    go_on.sa_flags = SA_RESTART;
    sigemptyset(&go_on.sa_mask);
    go_on.sa_handler = on_stats_signal;
    sigaction(SIGUSR1, &go_on, nullptr);
    go_on.sa_handler = on_hangup;
    if (live) sigaction(SIGHUP, &go_on, nullptr);
}

// The kernel gives a process-directed signal to any thread that does not block it, and only
// that thread's blocking read(2) returns EINTR. So every thread the run starts blocks the
// termination signals (threads inherit the mask of their creator), and the reading thread
// takes them alone once they are all running.
void termination_signals(int how) {
    sigset_t set;
    sigemptyset(&set);
    // SIGUSR1 too: the reading thread writes the statistics line it asks for.
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGUSR1})
        sigaddset(&set, sig);
    pthread_sigmask(how, &set, nullptr);
}

void error(const std::string &message) {
    fprintf(stderr, "smbflow: %s\n", message.c_str());
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

// The plug-in's parameters as it declares them in its help text; the SMB plug-in's opt-ins,
// which its help text (kept as it is) does not list, are added.
std::string declared_parameter_text(const corvane_plugin_desc *desc) {
    const std::string help = desc->help ? desc->help : "";
    return std::string_view(desc->name) == "smb" ? smb_parameter_text(help) : help;
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
    capture.set_buffer_size(static_cast<int>(opts.buffer_size_mb) << 20);
    if (opts.rotate_s && opts.output.empty()) {
        error("--rotate needs -o with a file name pattern");
        return kExitUsage;
    }
    // Handlers first, so that a signal at any point ends the run cleanly: while the input is
    // opened (a FIFO waits for its writer) the one thread takes it at once.
    g_capture.store(&capture);
    struct Forget {
        ~Forget() { g_capture.store(nullptr); }
    } forget_capture_on_return;
    install_signals(capture.is_live());
    // An interface that is absent or down at the start is waited for, as one that goes down
    // while capturing is: a service may start before the interface is set up.
    bool waited = false;
    while (!capture.open()) {
        if (capture.interrupted()) {
            if (!opts.quiet) fputs(format_summary(RunSummary{}).c_str(), stderr);
            return kExitOk;
        }
        if (!capture.error_is_transient()) {
            error(capture.error());
            return capture.error_is_filter() ? kExitUsage : kExitInput;
        }
        if (!waited) error(capture.error() + "; trying again every second");
        waited = true;
        pause_unless_signalled(1.0, [&] { return capture.interrupted(); });
    }
    termination_signals(SIG_BLOCK);
    // Written once the capture is open, so that its presence says the run is under way (and
    // before the message that says so, which whoever waited may act on).
    PidFile pid_file;
    if (!opts.pid_file.empty())
        if (auto problem = pid_file.write(opts.pid_file)) {
            error(*problem);
            return kExitOutput;
        }
    if (waited) error(fmt::format("capturing on {}", opts.interface));
    if (!opts.user.empty())
        if (auto problem = drop_to_user(opts.user)) {
            error(*problem);
            return kExitUsage;
        }

    corvane_host::Host host;
    RunSummary summary;
    if (!opts.no_plugin) {
        const std::string path = opts.plugin.empty() ? default_plugin_path() : opts.plugin;
        if (auto problem = host.load_library(path)) {
            error(*problem);
            return kExitPlugin;
        }
        if (opts.params && host.plugin_count() > 0) {
            const auto declared = declared_params(declared_parameter_text(host.plugin(0).desc));
            // A plug-in whose help text declares nothing in the key=<...> notation cannot be
            // checked: its parameters go to it as they are.
            if (!declared.empty()) {
                ParamLimits limits{memory_budget(), opts.queues, {}};
                if (std::string_view(host.plugin(0).desc->name) == "smb")
                    limits.per_queue = {"messagetable-size", "messagetable2-size",
                                        "activitytable-size"};
                if (auto problem = check_params(*opts.params, declared, limits)) {
                    error(*problem);
                    return kExitUsage;
                }
            }
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

    // Every input that can be refused is refused before an output is opened (and truncated).
    for (size_t i = 1; i < opts.files.size(); ++i)
        if (auto problem = check_capture_file(opts.files[i], opts.filter)) {
            error(problem->message);
            return problem->filter ? kExitUsage : kExitInput;
        }
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
        if (auto problem = check_destination(std::get<IpfixUrl>(url), capture.is_live())) {
            error(*problem);
            return kExitOutput;
        }
        IpfixSettings settings;
        settings.pen = opts.ipfix_pen;
        settings.observation_domain = opts.observation_domain;
        settings.template_refresh_s = opts.template_refresh_s;
        settings.template_refresh_messages = opts.template_refresh_messages;
        settings.uniflow = opts.ipfix_uniflow;
        settings.connect_timeout_s = opts.ipfix_connect_timeout_s;
        settings.abandon = &g_abandon;
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
    std::unique_ptr<OutputFile> out_file;
    std::unique_ptr<RotatingOutput> rotating;
    if (opts.rotate_s && text_output) {
        rotating = std::make_unique<RotatingOutput>(
            opts.output, opts.rotate_s,
            [&, format = default_format(opts, stdout)](FILE *f) {
                return make_writer(format, f, capture.is_live(), std::get<ColumnPick>(pick), cols);
            },
            error);
    } else if (!opts.output.empty() && text_output) {
        out_file = std::make_unique<OutputFile>(
            opts.output,
            [&, format = default_format(opts, stdout)](FILE *f) {
                return make_writer(format, f, capture.is_live(), std::get<ColumnPick>(pick), cols);
            },
            error);
        if (!out_file->open()) return kExitOutput;
    }
    auto writer = text_output && !rotating && !out_file
                      ? make_writer(default_format(opts, out), out, capture.is_live(),
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
        bool nano = (capture.is_live() && capture.nanosecond_stamps()) ||
                    capture.stream_has_sub_microsecond_stamps();
        for (const auto &f : opts.files)
            nano |= f != "-" && file_has_sub_microsecond_stamps(f);
        formatter.set_nanoseconds(nano);
        Row row;              // reused by the export thread
        IpfixFlow ipfix_row;  // likewise
        const ipfix::ExtraLayout extras = ipfix::extra_layout(formatter.extras());
        const PayloadNeed need =
            PayloadNeed::for_run(opts.no_plugin, host.plugin_count(),
                                 host.plugin_count() ? host.plugin(0).desc->name : "", opts.params);
        ClientFirst client_first(server_port_of(opts.params));
        Pipeline pipeline(
            host, opts.queues, config,
            [&](corvane_host::ExportedFlow &as_cached) {
                const corvane_host::ExportedFlow &flow = client_first(as_cached);
                if (writer) writer->write(formatter, flow, row);
                if (out_file) out_file->write(formatter, flow, row);
                if (rotating) rotating->write(formatter, flow, row);
                if (!exports.empty()) {
                    to_ipfix(flow, formatter, ipfix_row, extras);
                    for (auto &e : exports)
                        e->write(IpfixFlow(ipfix_row));
                }
            },
            need,
            exports.empty() ? corvane_host::FillForms::Text : corvane_host::FillForms::Readable,
            // The one text output asks for the plug-in's further fields as it writes them;
            // with collectors as well, every output reads the values the export made.
            exports.empty() ? formatter.extra_positions() : std::vector<uint32_t>{});
        InputStats &in = summary.input;
        Frame frame;
        corvane_host::DecodedPacket packet;
        size_t file = capture.files_opened();
        std::string file_name = capture.current();
        uint64_t last_ts = 0;
        StatsSchedule stats_schedule(opts.stats_interval_s);
        auto stats_due = [&] { return g_stats_now || stats_schedule.due(); };
        auto write_stats = [&] {
            g_stats_now = 0;
            stats_schedule.written();
            StatsLine line;
            line.packets = in.frames;
            line.live = capture.is_live();
            const auto k = capture.kernel_counts();
            line.kernel_received = k.received;
            line.kernel_dropped = k.dropped;
            line.records = pipeline.flows_exported();
            for (const auto &e : exports) {
                const IpfixCounters c = e->counters();
                line.destinations.push_back({e->url().text, c.records_exported, c.records_dropped});
            }
            fputs(format_stats(line).c_str(), stderr);
        };
        termination_signals(SIG_UNBLOCK);  // a signal held while starting is taken here
        for (;;) {
            const ReadStatus rs = read_frame(capture, frame);
            if (rs == ReadStatus::End) break;
            if (rs == ReadStatus::Error) {
                error(capture.error());
                // A filter that a later file's link type cannot take is still a bad filter.
                status = capture.error_is_filter() ? kExitUsage : kExitInput;
                break;
            }
            if (stats_due()) write_stats();
            if (g_reopen) {
                g_reopen = 0;
                if (out_file) out_file->reopen();
                if (rotating) rotating->reopen();
                for (auto &e : exports)
                    e->reopen();
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
        // A signal from here on cuts the wait for collectors short; the records written so far
        // and the summary still come out.
        g_capture.store(nullptr);
        install_signals(capture.is_live());
        const auto kernel = capture.kernel_counts();
        in.live = capture.is_live();
        in.received = kernel.received;
        in.dropped = kernel.dropped;
        pipeline.finish();
        if (writer) writer->finish();
        if (out_file && !out_file->finish() && status == kExitOk) status = kExitOutput;
        if (rotating && !rotating->finish() && status == kExitOk) status = kExitOutput;
        for (auto &e : exports) {
            e->finish();
            const IpfixCounters c = e->counters();
            const bool file = e->url().transport == IpfixUrl::Transport::File;
            summary.exports.push_back({e->url().text, c.records_exported, c.messages_sent,
                                       c.records_dropped, c.connections,
                                       e->url().transport == IpfixUrl::Transport::Tcp,
                                       file && c.send_failures ? c.failure : std::string()});
            // Records that did not reach a file or collector, or a file that could not be
            // written, fail the run; an outage that the held records outlasted does not.
            if ((c.records_dropped > 0 || (file && c.send_failures > 0)) && status == kExitOk)
                status = kExitOutput;
        }
        summary.pipeline = pipeline.stats();
    }
    progress.clear();
    summary.elapsed_s = progress.elapsed_s();
    host.shutdown();

    if (ferror(out) || fflush(out) != 0) {
        error(fmt::format("cannot write output: {}", strerror(errno)));
        status = status == kExitOk ? kExitOutput : status;
    }
    if (!opts.quiet) fputs(format_summary(summary).c_str(), stderr);
    return status;
}

}  // namespace

// For --help: the help text of the plug-in that a run would load (the default, or --plugin's),
// one parameter a line. Empty when help is not asked for or the plug-in cannot be loaded.
bool version_asked(int argc, char **argv) {
    for (int i = 1; i < argc; ++i)
        if (std::string_view(argv[i]) == "--version") return true;
    return false;
}

// The plug-in that --help and --version describe: --plugin's, or the default.
std::string plugin_for_help(int argc, char **argv) {
    std::string path = default_plugin_path();
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--plugin" && i + 1 < argc) path = argv[i + 1];
        if (a.rfind("--plugin=", 0) == 0) path = a.substr(9);
    }
    return path;
}

std::string plugin_help(int argc, char **argv) {
    bool help = false, none = false;
    const std::string path = plugin_for_help(argc, argv);
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        help |= a == "-h" || a == "--help";
        none |= a == "--no-plugin";
    }
    if (!help || none) return {};
    corvane_host::Host host;
    if (host.load_library(path) || host.plugin_count() == 0 || !host.plugin(0).desc->help)
        return {};
    std::string text = declared_parameter_text(host.plugin(0).desc), out = "  ";
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
    return out;
}

}  // namespace smbflow

int main(int argc, char **argv) {
    smbflow::drop_blank_lines_on_stderr();
    smbflow::Options opts;
    if (smbflow::version_asked(argc, argv)) {
        fputs(smbflow::version_text(smbflow::plugin_for_help(argc, argv)).c_str(), stdout);
        return 0;
    }
    if (auto status = smbflow::parse_options(argc, argv, opts, smbflow::plugin_help(argc, argv)))
        return *status;
    return smbflow::run(opts);
}
