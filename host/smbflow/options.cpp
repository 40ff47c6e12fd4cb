#include "options.h"

#include <sys/stat.h>

#include <cmath>
#include <map>

#include <CLI/CLI.hpp>

namespace smbflow {

namespace {

// Timeouts become nanoseconds in 64 bits; a billion seconds (31 years) is far past any capture.
constexpr double kMaxTimeoutS = 1e9;

// Checks that say what is wrong as a person would, naming the option as it was written.
CLI::Validator whole_number(const std::string &name, uint64_t min = 1, uint64_t max = UINT64_MAX) {
    return CLI::Validator(
        [name, min, max](std::string &text) -> std::string {
            const auto bad = [&] {
                return max == UINT64_MAX ? name + " must be a positive whole number"
                                         : name + " must be a whole number from " +
                                               std::to_string(min) + " to " + std::to_string(max);
            };
            if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos)
                return bad();
            errno = 0;
            const unsigned long long v = strtoull(text.c_str(), nullptr, 10);
            return errno == ERANGE || v < min || v > max ? bad() : std::string();
        },
        "", "");
}

CLI::Validator seconds(const std::string &name, bool zero = false) {
    return CLI::Validator(
        [name, zero](std::string &text) -> std::string {
            char *end = nullptr;
            const double v = strtod(text.c_str(), &end);
            if (text.empty() || *end || !std::isfinite(v) || v < 0 || (v == 0 && !zero) ||
                v > kMaxTimeoutS)
                return name + " must be a number of seconds " + (zero ? "from 0" : "above 0") +
                       " and at most 1000000000";
            return {};
        },
        "", "");
}

CLI::Validator one_of(const std::string &name, const std::map<std::string, Format> &names) {
    return CLI::Validator(
        [name, names](std::string &text) -> std::string {
            std::string lower = text;
            for (char &c : lower)
                c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
            if (auto it = names.find(lower); it != names.end()) {
                text = std::to_string(static_cast<int>(it->second));
                return {};
            }
            std::string list;
            for (const auto &[n, f] : names)
                list += (list.empty() ? "" : ", ") + n;
            return name + " must be one of " + list + ", not '" + text + "'";
        },
        "", "");
}

// The same file reached by two names: compared by device and inode.
bool same_file(const std::string &a, const std::string &b) {
    struct stat sa, sb;
    return stat(a.c_str(), &sa) == 0 && stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev &&
           sa.st_ino == sb.st_ino;
}

constexpr const char *kDescription =
    "smbflow reads packets from capture files or a live interface, groups them into flow "
    "records and runs them through the SMB process plug-in (plugin-process-smb.so), which adds "
    "six fields to each record: the SMB commands seen in requests and in responses, the share, "
    "the file name, the file type and the operation done on the file.";

constexpr const char *kFooter = R"(Output columns:
  start, end            first and last packet (UTC; nanoseconds when the capture has them)
  src_addr, src_port    the end that sent the flow's first packet
  dst_addr, dst_port    the other end
  proto                 IP protocol
  packets, bytes        src to dst (IP bytes); rev_packets, rev_bytes: dst to src
  tcp_flags             TCP flags seen each way (CEUAPRSF, '.' for unset)
  smb_cmd_request       SMB_CMD_REQUEST in hex, and smb_cmd_request_names
  smb_cmd_response      SMB_CMD_RESPONSE in hex, and smb_cmd_response_names
  smb_tree              SMB_TREE, the share, as UTF-8
  smb_file_name         SMB_FILE_NAME as UTF-8
  smb_file_type         SMB_FILE_TYPE as a word, and smb_file_type_code
  smb_op                SMB_OP as words, and smb_op_code in hex
  (further fields)      any other field the plug-in registers (--params activity=1),
                        named in lower case (smb_bytes_read), with the plug-in's text
A value a flow does not have is '-' in the table, empty in CSV, null in JSON.

Flow records end after --inactive-timeout seconds without packets or --active-timeout
seconds after their start, both in capture time, and at the end of input. Records are
written as they end; those left at the end of input follow in order of start time.

A summary goes to standard error at the end (packets, flow records, records with SMB
fields, the plug-in's parse results by code, elapsed time, packets per second), and a
progress line while running when standard error is a terminal.

Exit status: 0 success; 1 a capture file or interface could not be read (records of the
packets read before the fault are still written); 2 bad options or filter; 3 the plug-in
could not be loaded or was built for another API version; 4 the output or an IPFIX
destination could not be written. The plug-in itself ends the program with status 255 on
bad --params.)";

}  // namespace

std::optional<int> parse_options(int argc, char **argv, Options &opts,
                                 const std::string &plugin_help) {
    CLI::App app{kDescription, "smbflow"};
    app.footer(plugin_help.empty() ? std::string(kFooter)
                                   : std::string(kFooter) +
                                         "\n\nThe plug-in's parameters (--params), as it describes "
                                         "them:\n" +
                                         plugin_help);
    app.get_formatter()->column_width(34);

    app.add_option("files", opts.files,
                   "Capture files (pcap or pcapng) read one after the other as one stream; '-' "
                   "reads standard input")
        ->type_name("FILE...");
    auto *iface = app.add_option("-i,--interface", opts.interface,
                                 "Capture live on this interface instead (until interrupted "
                                 "or --count packets)")
                      ->type_name("IFACE");
    app.add_option("-f,--filter", opts.filter,
                   "BPF filter expression applied to the input, as in tcpdump")
        ->type_name("EXPR");
    app.add_option("-c,--count", opts.count, "Stop after this many packets")
        ->type_name("N")
        ->check(whole_number("-c"));
    app.add_option("-o,--output", opts.output,
                   "Write flow records to this file (default: "
                   "standard output)")
        ->type_name("FILE");
    const std::map<std::string, Format> formats{
        {"text", Format::Text}, {"csv", Format::Csv}, {"json", Format::Json}};
    app.add_option("-F,--format", opts.format,
                   "Output format: text (aligned table; the default on a terminal), csv (the "
                   "default otherwise, or for an output file not named *.json or *.txt) or json "
                   "(JSON Lines, one object per record)")
        ->type_name("FORMAT")
        ->transform(one_of("-F", formats));
    app.add_option("--fields", opts.fields,
                   "Output columns to write, in this order, comma-separated (default: all; the "
                   "names are listed below)")
        ->type_name("LIST");
    app.add_option("--queues", opts.queues,
                   "Processing queues, each on its own thread; both directions of a "
                   "connection always share a queue and flow records are post-processed on it. "
                   "Output is written by a further thread")
        ->type_name("N")
        ->check(whole_number("--queues", 1, 64))
        ->capture_default_str();
    auto *params = app.add_option("--params", opts.params,
                                  "Plug-in parameters, handed to it unchanged, e.g. "
                                  "'port=445,filetable-size=65536'")
                       ->type_name("STRING");
    auto *plugin = app.add_option("--plugin", opts.plugin,
                                  "Plug-in library to load (default: plugin-process-smb.so next "
                                  "to this program)")
                       ->type_name("PATH");
    app.add_flag("--no-plugin", opts.no_plugin,
                 "Run without the plug-in: the same flow records without SMB fields (a "
                 "baseline for the plug-in's cost)")
        ->excludes(params)
        ->excludes(plugin);
    app.add_option("--active-timeout", opts.active_timeout_s,
                   "End a flow record this many seconds after its first packet")
        ->type_name("SECONDS")
        ->check(seconds("--active-timeout"))
        ->capture_default_str();
    app.add_option("--inactive-timeout", opts.inactive_timeout_s,
                   "End a flow record after this many seconds without packets")
        ->type_name("SECONDS")
        ->check(seconds("--inactive-timeout"))
        ->capture_default_str();
    app.add_option("--snaplen", opts.snaplen, "Bytes captured per packet on a live interface")
        ->type_name("BYTES")
        ->check(whole_number("--snaplen", 64, 262144))
        ->capture_default_str()
        ->needs(iface);
    auto *ipfix = app.add_option("--ipfix", opts.ipfix,
                                 "Send the flow records over IPFIX to udp://HOST[:PORT], "
                                 "tcp://HOST[:PORT] (port 4739 when left out; IPv6 in brackets) or "
                                 "file:PATH; may be given more than once. With -o or -F the "
                                 "records are written there as well")
                      ->type_name("URL")
                      ->allow_extra_args(false);  // one URL each time: files may follow
    app.add_option("--ipfix-pen", opts.ipfix_pen,
                   "Private Enterprise Number of the SMB elements (32473 is reserved for "
                   "documentation: use your own)")
        ->type_name("N")
        ->check(whole_number("--ipfix-pen", 1, UINT32_MAX))
        ->capture_default_str()
        ->needs(ipfix);
    app.add_option("--observation-domain", opts.observation_domain, "IPFIX Observation Domain ID")
        ->type_name("N")
        ->check(whole_number("--observation-domain", 0, UINT32_MAX))
        ->capture_default_str()
        ->needs(ipfix);
    app.add_option("--template-refresh", opts.template_refresh_s,
                   "Over UDP, send the templates again after this many seconds (0: with "
                   "every message)")
        ->type_name("SECONDS")
        ->check(seconds("--template-refresh", true))
        ->capture_default_str()
        ->needs(ipfix);
    app.add_flag("--ipfix-uniflow", opts.ipfix_uniflow,
                 "Send each direction of a flow as its own record, for collectors without "
                 "RFC 5103 biflow support")
        ->needs(ipfix);
    app.add_flag("--no-progress", opts.no_progress, "No progress line on standard error");
    app.add_flag("-q,--quiet", opts.quiet, "No summary on standard error");

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp &e) {
        return app.exit(e);
    } catch (const CLI::ValidationError &e) {
        // Our checks name the option as the user wrote it; CLI11 would prefix its long name.
        const std::string what = e.what();
        const size_t colon = what.find(": ");
        fprintf(stderr, "smbflow: %s\nRun with --help for more information.\n",
                (colon == std::string::npos ? what : what.substr(colon + 2)).c_str());
        return kExitUsage;
    } catch (const CLI::ParseError &e) {
        app.exit(e);
        return kExitUsage;
    }
    if (opts.files.empty() == opts.interface.empty()) {
        fprintf(stderr, "smbflow: give capture files or --interface (one of the two)\n%s",
                "Run with --help for more information.\n");
        return kExitUsage;
    }
    for (const auto &file : opts.files) {
        if (!opts.output.empty() && file != "-" && same_file(file, opts.output)) {
            fprintf(stderr, "smbflow: -o %s is one of the inputs; it would be overwritten\n",
                    opts.output.c_str());
            return kExitUsage;
        }
    }
    return std::nullopt;
}

}  // namespace smbflow
