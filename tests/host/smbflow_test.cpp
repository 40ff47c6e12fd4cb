// smbflow as a user runs it: golden outputs of the sample capture, every link type, pcapng,
// several files, queues, timeouts in capture time, filters, and the error paths with their
// messages and exit statuses.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <sstream>

#include "golden.h"
#include "run_command.h"
#include "smb_session.h"

namespace {

using namespace hosttest;
using namespace testnet;

const std::string kSample = std::string(TEST_DATA) + "/sample-smb2.pcap";
constexpr uint64_t kSecond = 1'000'000'000ull;
constexpr uint64_t kT0 = 1709632800ull * kSecond;

CommandResult smbflow(std::vector<std::string> args) {
    args.insert(args.begin(), {SMBFLOW, "--no-progress"});
    return run_command(args);
}

// Sessions of several clients, for link-type and queue tests.
std::vector<Packet> many_sessions(int clients, bool v6 = false) {
    std::vector<SessionSpec> sessions(clients);
    for (int i = 0; i < clients; ++i) {
        SessionSpec &s = sessions[i];
        s.client =
            v6 ? ipv6("fd00::" + std::to_string(100 + i)) : ipv4(10, 9, i / 200, 1 + i % 200);
        s.server = v6 ? ipv6("fd00::1") : ipv4(10, 9, 255, 1);
        s.client_port = static_cast<uint16_t>(40000 + 7 * i);
        s.start_ns = kT0 + i * 3'000'000ull;
        s.create_new = i % 3 == 0;
        s.file = "dir" + std::to_string(i % 5) + "\\file" + std::to_string(i) + ".dat";
    }
    return smb2_sessions(sessions);
}

// One line of the summary, as smbflow prints it.
std::string summary_line(const std::string &key, const std::string &value) {
    std::string k = "  " + key;
    k.resize(std::max<size_t>(k.size(), 28), ' ');
    return k + value + "\n";
}

class Smbflow : public testing::Test {
  protected:
    TempDir tmp;
};

TEST_F(Smbflow, SampleCaptureIsWhatTheGeneratorWrites) {
    const std::string fresh = tmp.path("fresh.pcap");
    ASSERT_EQ(run_command({MAKE_SAMPLE, fresh}).status, 0);
    EXPECT_EQ(read_file(fresh), read_file(kSample));
}

TEST_F(Smbflow, GoldenOutputsWithoutPlugin) {
    for (const auto &[format, file] :
         {std::pair{"text", "sample-noplugin.txt"}, std::pair{"csv", "sample-noplugin.csv"},
          std::pair{"json", "sample-noplugin.jsonl"}}) {
        auto r = smbflow({"--no-plugin", "-q", "-F", format, kSample});
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.err, "");
        expect_golden(file, r.out);
    }
}

TEST_F(Smbflow, OutputFileAndFormatFromItsName) {
    const std::string out = tmp.path("flows.json");
    auto r = smbflow({"--no-plugin", "-q", "-o", out, kSample});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(read_file(out), smbflow({"--no-plugin", "-q", "-F", "json", kSample}).out);
    EXPECT_EQ(read_file(out).front(), '{');
}

struct LinkCase {
    const char *name;
    int link;
    int vlans;
    bool pcapng;
    friend void PrintTo(const LinkCase &c, std::ostream *os) { *os << c.name; }
};

class SmbflowLinks : public Smbflow, public testing::WithParamInterface<LinkCase> {};

TEST_P(SmbflowLinks, GiveTheSameRecordsAsEthernet) {
    for (bool v6 : {false, true}) {
        const auto packets = many_sessions(3, v6);
        const std::string ref = tmp.path("ref.pcap"), file = tmp.path("link.cap");
        write_pcap(ref, kEthernet, frames_of(kEthernet, packets));
        const auto frames = frames_of(GetParam().link, packets, GetParam().vlans,
                                      GetParam().link == kEthernet ? 4 : 0);
        if (GetParam().pcapng)
            write_pcapng(file, GetParam().link, frames);
        else
            write_pcap(file, GetParam().link, frames);
        auto expected = smbflow({"--plugin", FAKE_PLUGIN, "-q", "-F", "csv", ref});
        auto actual = smbflow({"--plugin", FAKE_PLUGIN, "-F", "csv", file});
        ASSERT_EQ(actual.status, 0) << actual.err;
        EXPECT_EQ(actual.out, expected.out) << GetParam().name << (v6 ? " v6" : " v4");
        EXPECT_EQ(lines_of(actual.out).size(), 4u);
        EXPECT_NE(actual.err.find(summary_line("packets read", std::to_string(packets.size()))),
                  std::string::npos)
            << actual.err;
    }
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Captures, SmbflowLinks, testing::Values(
    LinkCase{"ethernet_vlan", kEthernet, 1, false}, LinkCase{"qinq_pcapng", kEthernet, 2, true},
    LinkCase{"sll", kSll, 0, false}, LinkCase{"sll2", kSll2, 0, true},
    LinkCase{"raw", kRaw, 0, false}, LinkCase{"null", kNull, 0, false},
    LinkCase{"loop", kLoop, 0, true}),
    [](const auto &info) { return std::string(info.param.name); });
// clang-format on

// A capture of several mapping windows: the committed captures again and again, each copy
// 1000 s after the one before. `big_endian` writes it as a big-endian nanosecond pcap file.
std::string repeated_capture(int copies, bool big_endian) {
    std::string out;
    auto put32 = [&](uint32_t v) {
        if (big_endian) v = __builtin_bswap32(v);
        out.append(reinterpret_cast<const char *>(&v), 4);
    };
    put32(big_endian ? 0xa1b23c4d : 0xa1b2c3d4);
    out += big_endian ? std::string("\0\x02\0\x04", 4) : std::string("\x02\0\x04\0", 4);
    put32(0), put32(0), put32(262144), put32(1);
    std::vector<std::string> captures;
    for (const char *name : {"compound", "large_io", "oplocks_locks", "smb2_ops", "ipv6_ops"})
        captures.push_back(read_file(std::string(TEST_DATA) + "/captures/" + name + ".pcap"));
    for (int copy = 0; copy < copies; ++copy)
        for (const std::string &c : captures)
            for (size_t at = 24; at + 16 <= c.size();) {
                uint32_t h[4];
                memcpy(h, c.data() + at, 16);
                put32(h[0] + 1000 * copy);
                put32(big_endian ? h[1] * 1000 : h[1]);
                put32(h[2]), put32(h[3]);
                out.append(c, at + 16, h[2]);
                at += 16 + h[2];
            }
    return out;
}

// Files are read in place, a window of the mapping at a time; standard input is read as a
// stream into buffers. Both give the same records in every file format, with a filter too.
TEST_F(Smbflow, MappedFilesGiveWhatLibpcapGives) {
    write_file(tmp.path("le.pcap"), repeated_capture(20, false));
    write_file(tmp.path("be.pcap"), repeated_capture(20, true));
    ASSERT_GT(read_file(tmp.path("le.pcap")).size(), 3u * (4u << 20)) << "several windows";
    ASSERT_EQ(run_command(
                  {"/usr/bin/editcap", "-F", "pcapng", tmp.path("le.pcap"), tmp.path("ng.pcapng")})
                  .status,
              0);
    for (const char *file : {"le.pcap", "be.pcap", "ng.pcapng"})
        for (std::string filter : {"", "tcp port 445 and greater 200"}) {
            const std::string args =
                " --no-progress -q -F csv --plugin " SMB_PLUGIN " -f '" + filter + "' ";
            const auto mapped = run_command({"/bin/sh", "-c", SMBFLOW + args + tmp.path(file)});
            const auto piped =
                run_command({"/bin/sh", "-c", SMBFLOW + args + "- < " + tmp.path(file)});
            ASSERT_EQ(mapped.status, 0) << file << mapped.err;
            EXPECT_GT(lines_of(mapped.out).size(), 1000u) << file;
            // Standard input gives the records of the path, nanosecond digits included.
            EXPECT_TRUE(mapped.out == piped.out) << file << " '" << filter << "'";
        }
}

TEST_F(Smbflow, FieldsChooseAndOrderTheColumns) {
    const struct {
        const char *format, *first_line;
    } cases[] = {
        {"csv", "dst_port,src_addr"},
        {"json", R"({"dst_port":53,"src_addr":"192.168.56.10"})"},
        {"text", "dst_port  src_addr"},
    };
    for (const auto &c : cases) {
        auto r = smbflow(
            {"--no-plugin", "-q", "-F", c.format, "--fields", "dst_port,src_addr", kSample});
        ASSERT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(lines_of(r.out).at(0).substr(0, strlen(c.first_line)), c.first_line) << c.format;
    }
}

// Several files are read in order as one stream. One pcapng file whose interfaces have different
// link types (here two sections, as cat of two captures gives; mergecap gives two interfaces in
// one section, read the same way) is read with each packet decoded and filtered by its own
// interface's link type.
TEST_F(Smbflow, FilesAndLinkTypesAreReadAsOneStream) {
    const auto packets = many_sessions(4);
    const std::vector<Packet> first(packets.begin(), packets.begin() + packets.size() / 2);
    const std::vector<Packet> second(packets.begin() + packets.size() / 2, packets.end());
    const std::string whole = tmp.path("whole.pcap"), a = tmp.path("a.pcap"),
                      b = tmp.path("b.pcapng"), mixed = tmp.path("mixed.pcapng");
    write_pcap(whole, kEthernet, frames_of(kEthernet, packets));
    write_pcap(a, kEthernet, frames_of(kEthernet, first));
    write_pcapng(b, kSll2, frames_of(kSll2, second));
    write_pcapng(mixed, kEthernet, frames_of(kEthernet, first));
    write_file(mixed, read_file(mixed) + read_file(b));
    for (const char *filter : {"", "tcp"}) {
        const std::vector<std::string> args = {"--plugin", FAKE_PLUGIN, "-q",  "-F",
                                               "csv",      "-f",        filter};
        auto with = [&](std::vector<std::string> files) {
            files.insert(files.begin(), args.begin(), args.end());
            return smbflow(files);
        };
        const std::string want = with({whole}).out;
        // Standard input reads the mixed file as its path does.
        std::string piped = "cat '" + mixed + "' | " + SMBFLOW + " --no-progress";
        for (const auto &arg : args)
            piped += " '" + arg + "'";
        const auto from_stdin = run_command({"/bin/sh", "-c", piped + " -"});
        for (const auto &r : {with({a, b}), with({mixed}), from_stdin}) {
            ASSERT_EQ(r.status, 0) << r.err;
            EXPECT_EQ(r.out, want) << filter;
        }
    }
    auto bad = smbflow({"--no-plugin", "-q", "-f", "ether host 1:2:3:4:5:6", mixed});
    EXPECT_EQ(bad.status, 2);
    EXPECT_NE(bad.err.find("for the LINUX_SLL2 interfaces"), std::string::npos) << bad.err;
}

TEST_F(Smbflow, TimeoutsFollowCaptureTimestamps) {
    // One connection with packets at 0, 10, 45 (35 s quiet), then every 20 s from 65 to 385 s.
    TcpConversation c(ipv4(10, 0, 0, 1), 40000, ipv4(10, 0, 0, 2), 445, kT0);
    std::vector<uint64_t> at = {0, 10, 45};
    for (uint64_t s = 65; s <= 400; s += 20)
        at.push_back(s);
    std::vector<Packet> packets;
    for (uint64_t s : at) {
        c.client_sends({'x'});
        packets.push_back({kT0 + s * kSecond, c.packets().back().ip});
    }
    const std::string file = tmp.path("slow.pcap");
    write_pcap(file, kEthernet, frames_of(kEthernet, packets));
    auto r = smbflow({"--no-plugin", "-q", "-F", "csv", file});
    ASSERT_EQ(r.status, 0) << r.err;
    // Which flow ends when and why is the queue's (queue_test.cpp); here the default timeouts
    // (30 s idle, 300 s active) and the options reach it, and a nanosecond capture keeps nine
    // digits (a microsecond one six, as the sample's goldens show).
    EXPECT_EQ(lines_of(r.out).size(), 4u) << r.out;
    EXPECT_EQ(lines_of(r.out).at(1).substr(0, 31), "2024-03-05T10:00:00.000000000Z,");
    auto shorter = smbflow({"--no-plugin", "-q", "-F", "csv", "--inactive-timeout", "5",
                            "--active-timeout", "1000", file});
    EXPECT_EQ(lines_of(shorter.out).size(), 1u + 20) << "every packet 10 s or more apart";
}

TEST_F(Smbflow, FilterAndCountLimitTheInput) {
    auto udp = smbflow({"--no-plugin", "-q", "-F", "csv", "-f", "udp", kSample});
    ASSERT_EQ(udp.status, 0) << udp.err;
    ASSERT_EQ(lines_of(udp.out).size(), 2u);
    EXPECT_NE(lines_of(udp.out)[1].find(",53001,192.168.56.1,53,17,1,"), std::string::npos);
    auto counted = smbflow({"--no-plugin", "-F", "csv", "-c", "3", kSample});
    EXPECT_NE(counted.err.find(summary_line("packets read", "3")), std::string::npos)
        << counted.err;
}

TEST_F(Smbflow, OversizeFramesAreCappedAndCounted) {
    TcpSpec s;
    s.src = ipv4(127, 0, 0, 1);
    s.dst = ipv4(127, 0, 0, 1);
    s.sport = 50000;
    s.dport = 445;
    s.payload.assign(70000, 'z');
    Bytes ip = tcp_datagram(s);
    ip[2] = ip[3] = 0;
    const std::string file = tmp.path("big.pcap");
    write_pcap(file, kLoop, {{kT0, frame(kLoop, ip), 0}});
    auto r = smbflow({"--plugin", FAKE_PLUGIN, "-F", "json", file});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.err.find(summary_line("  capped at 65535 bytes", "1")), std::string::npos) << r.err;
    EXPECT_NE(r.out.find("\"bytes\":70040"), std::string::npos) << r.out;
}

TEST_F(Smbflow, SummaryTellsWhatHappened) {
    auto r = smbflow({"--plugin", FAKE_PLUGIN, "-F", "csv", kSample});
    ASSERT_EQ(r.status, 0) << r.err;
    for (const std::string &expected :
         {summary_line("packets read", "47"), summary_line("  not IP (skipped)", "1"),
          summary_line("flow records", "3"), summary_line("  with SMB fields", "2"),
          summary_line("packets with SMB records", "32"),
          summary_line("parse results by code",
                       "not counted (the plug-in has no smb_parse_packet)"),
          std::string("packets per second")})
        EXPECT_NE(r.err.find(expected), std::string::npos) << expected << "\n" << r.err;
    auto q = smbflow({"--no-plugin", "-q", kSample});
    EXPECT_EQ(q.err, "");
    // The same capture twice: time goes back at the second, which is said.
    auto twice = smbflow({"--no-plugin", "-q", "-F", "csv", kSample, kSample});
    EXPECT_NE(twice.err.find("starts before the end of"), std::string::npos) << twice.err;
    EXPECT_EQ(smbflow({"--no-plugin", "-q", "-F", "csv", kSample}).err, "");
}

struct ErrorCase {
    const char *what;
    std::vector<std::string> args;  // "@" is replaced by a scratch directory
    int status;
    const char *message;
    friend void PrintTo(const ErrorCase &c, std::ostream *os) { *os << c.what; }
};

class SmbflowErrors : public Smbflow, public testing::WithParamInterface<ErrorCase> {};

TEST_P(SmbflowErrors, ReportAndExit) {
    std::vector<std::string> args;
    for (std::string a : GetParam().args) {
        if (const size_t at = a.find('@'); at != std::string::npos)
            a = a.substr(0, at) + tmp.path(a.substr(at + 1));
        args.push_back(a);
    }
    write_file(tmp.path("garbage.pcap"), std::string(200, 'g'));
    // Empty captures of Linux cooked frames (113, where Ethernet filters fail) and of 802.11
    // frames (105, which smbflow does not decode).
    for (const auto &[name, link] : {std::pair{"cooked.pcap", '\x71'}, {"wifi.pcap", '\x69'}})
        write_file(tmp.path(name), std::string("\xd4\xc3\xb2\xa1\x02\x00\x04\x00"
                                               "\0\0\0\0\0\0\0\0\xff\xff\0\0",
                                               20) +
                                       std::string{link, 0, 0, 0});
    write_file(tmp.path("input.pcap"), read_file(kSample));
    auto r = smbflow(args);
    EXPECT_EQ(r.status, GetParam().status) << GetParam().what << "\n" << r.err;
    EXPECT_NE(r.err.find(GetParam().message), std::string::npos) << GetParam().what << "\n"
                                                                 << r.err;
    EXPECT_EQ(r.err.find("\n\n"), std::string::npos) << "a blank line in\n" << r.err;
}

// clang-format off
const ErrorCase kErrorCases[] = {
    {"missing file", {"--no-plugin", "@missing.pcap"}, 1, "smbflow: cannot read capture"},
    {"not a capture", {"--no-plugin", "@garbage.pcap"}, 1, "unknown file format"},
    {"plug-in for API 7", {"--plugin", FAKE_PLUGIN_V7, kSample}, 3,
     "was built for plug-in API version 7; this host speaks version 8"},
    {"missing plug-in", {"--plugin", "@none.so", kSample}, 3, "cannot load plug-in"},
    {"bad filter", {"--no-plugin", "-f", "tcp port", kSample}, 2, "bad filter"},
    {"no input", {"--no-plugin"}, 2, "give capture files or --interface"},
    {"files and interface", {"--no-plugin", "-i", "lo", kSample}, 2,
     "give capture files or --interface"},
    {"params without plug-in", {"--no-plugin", "--params", "port=0", kSample}, 2,
     "--params excludes --no-plugin"},
    {"link type by name", {"--no-plugin", "@wifi.pcap"}, 1,
     "unsupported link type IEEE802_11 (802.11)"},
    {"filter failing on a later file",
     {"--no-plugin", "-f", "ether host 1:2:3:4:5:6", kSample, "@cooked.pcap"}, 2, "bad filter"},
    {"unknown format", {"--no-plugin", "-F", "xml", kSample}, 2,
     "smbflow: -F must be one of csv, json, text, not 'xml'"},
    {"format by number", {"--no-plugin", "-F", "1", kSample}, 2, "-F must be one of"},
    {"zero count", {"--no-plugin", "-c", "0", kSample}, 2,
     "smbflow: -c must be a positive whole number"},
    {"zero queues", {"--no-plugin", "--queues", "0", kSample}, 2,
     "--queues must be a whole number from 1 to 64"},
    {"timeout past 64-bit nanoseconds", {"--no-plugin", "--active-timeout", "1e11", kSample}, 2,
     "--active-timeout must be a number of seconds above 0"},
    {"timeout not a number", {"--no-plugin", "--inactive-timeout", "nan", kSample}, 2,
     "--inactive-timeout must be a number of seconds above 0"},
    {"parameters out of the declared range", {"--params", "port=99999", kSample}, 2,
     "--params port=99999: must be a whole number from 0 to 65535"},
    {"unknown column", {"--no-plugin", "--fields", "src_addr,nope", kSample}, 2,
     "--fields: no column 'nope' (columns: start,end,"},
    {"output onto an input", {"--no-plugin", "-o", "@input.pcap", "@input.pcap"}, 2,
     "is one of the inputs"},
    {"unwritable output", {"--no-plugin", "-o", "@no/such/dir/out.csv", kSample}, 4,
     "cannot write"},
    {"IPFIX URL scheme", {"--no-plugin", "--ipfix", "sctp://127.0.0.1", kSample}, 2,
     "--ipfix sctp://127.0.0.1: unknown scheme (expected udp://HOST[:PORT]"},
    {"IPFIX port", {"--ipfix", "udp://h:70000", kSample}, 2, "port must be"},
    {"IPv6 without brackets", {"--ipfix", "tcp://::1:4739", kSample}, 2,
     "an IPv6 address goes in brackets"},
    {"IPFIX host that does not resolve", {"--ipfix", "tcp://no-such-host.invalid", kSample}, 4,
     "no-such-host.invalid"},
    {"IPFIX file not writable", {"--ipfix", "file:@no/such/dir/x.ipfix", kSample}, 4,
     "cannot write"},
    {"IPFIX collector that takes nothing", {"--ipfix", "tcp://127.0.0.1:9", kSample}, 4,
     "Connection refused"},
    {"IPFIX to standard output with the table", {"--ipfix", "file:-", "-F", "csv", kSample}, 2,
     "both go to standard output"},
    {"zero enterprise number", {"--ipfix", "file:@x", "--ipfix-pen", "0", kSample}, 2,
     "--ipfix-pen must be a whole number from 1 to 4294967295"},
    {"IPFIX option without --ipfix", {"--ipfix-uniflow", kSample}, 2,
     "--ipfix-uniflow requires --ipfix"},
};
// clang-format on

INSTANTIATE_TEST_SUITE_P(Paths, SmbflowErrors, testing::ValuesIn(kErrorCases),
                         [](const auto &info) {
                             std::string n = info.param.what;
                             std::replace_if(
                                 n.begin(), n.end(), [](char c) { return !isalnum(c); }, '_');
                             return n;
                         });

// smbflow started in the background with these arguments (its standard error discarded),
// standard input and output from the given descriptors, and these variables added to its
// environment.
pid_t spawn_smbflow(std::vector<std::string> args, int stdin_fd = -1, int stdout_fd = -1,
                    const std::vector<std::string> &env = {}) {
    args.insert(args.begin(), {SMBFLOW, "--no-progress", "-q"});
    const pid_t child = fork();
    if (child == 0) {
        if (stdin_fd >= 0) dup2(stdin_fd, STDIN_FILENO);
        if (stdout_fd >= 0) dup2(stdout_fd, STDOUT_FILENO);
        for (const std::string &e : env)
            putenv(strdup(e.c_str()));
        std::vector<char *> argv;
        for (auto &a : args)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        freopen("/dev/null", "w", stderr);
        execv(SMBFLOW, argv.data());
        _exit(127);
    }
    return child;
}

// A UDP socket aimed at a port of 127.0.0.1, for live capture on lo.
struct LoopbackSender {
    explicit LoopbackSender(uint16_t port) : fd(socket(AF_INET, SOCK_DGRAM, 0)) {
        to.sin_family = AF_INET;
        to.sin_port = htons(port);
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    }
    ~LoopbackSender() { close(fd); }
    void send(const char *text) {
        sendto(fd, text, strlen(text), 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
    }
    int fd;
    sockaddr_in to{};
};

// The next line from a pipe, waiting for it; empty at the end of the stream.
std::string read_line(int fd) {
    std::string line;
    char c;
    while (read(fd, &c, 1) == 1) {
        line += c;
        if (c == '\n') break;
    }
    return line;
}

// Interrupting a read from a FIFO (or standard input) ends the run as for a file: every
// record written, the summary, status 0. The signal goes once smbflow has taken every byte and
// its reading thread waits for more: the preloaded seam (read_wait_seam.cpp) says so through a
// pipe.
class SmbflowSignals : public Smbflow, public testing::WithParamInterface<std::tuple<bool, int>> {};

TEST_P(SmbflowSignals, EndAReadFromAFifoOrStandardInputCleanly) {
    const auto [from_stdin, sig] = GetParam();
    const std::string fifo = tmp.path("in.fifo"), out = tmp.path("out.csv");
    int waits[2];
    ASSERT_EQ(pipe(waits), 0);
    const char *asan = getenv("ASAN_OPTIONS");
    // The sanitizer runtime need not come first when the seam is preloaded before it.
    const std::vector<std::string> env = {
        "LD_PRELOAD=" READ_WAIT_SEAM, "SMBFLOW_TEST_WAIT_FD=" + std::to_string(waits[1]),
        std::string("ASAN_OPTIONS=") + (asan ? asan : "") + ":verify_asan_link_order=0"};
    int fd = -1;
    pid_t child;
    if (from_stdin) {
        int p[2];
        ASSERT_EQ(pipe(p), 0);
        child = spawn_smbflow({"-F", "csv", "-o", out, "-"}, p[0], -1, env);
        close(p[0]);
        fd = p[1];
    } else {
        ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
        child = spawn_smbflow({"-F", "csv", "-o", out, fifo}, -1, -1, env);
        fd = open(fifo.c_str(), O_WRONLY);  // returns once smbflow has opened it
    }
    close(waits[1]);
    ASSERT_GE(fd, 0);
    const std::string capture = read_file(kSample);
    ASSERT_EQ(write(fd, capture.data(), capture.size()), ssize_t(capture.size()));
    for (uint64_t taken = 0; taken != capture.size();)
        ASSERT_EQ(read(waits[0], &taken, sizeof taken), ssize_t(sizeof taken))
            << "smbflow ended before it took the whole capture";
    kill(child, sig);
    int wstatus = 0;
    waitpid(child, &wstatus, 0);
    close(fd);
    close(waits[0]);
    ASSERT_TRUE(WIFEXITED(wstatus)) << "signal " << WTERMSIG(wstatus);
    EXPECT_EQ(WEXITSTATUS(wstatus), 0);
    EXPECT_EQ(lines_of(read_file(out)).size(), 8u) << "the header and every flow record";
}

INSTANTIATE_TEST_SUITE_P(IntTermHup, SmbflowSignals,
                         testing::Combine(testing::Bool(),
                                          testing::Values(SIGINT, SIGTERM, SIGHUP)));

// Live capture on lo: smbflow takes UDP datagrams to a port of its own. Time runs with the clock
// while the interface is idle, so a flow record leaves on its inactive timeout without any
// further packet; -c ends the capture. The CSV output comes through a pipe, a line at a time
// in live mode: its header says that the capture is open, the first record that it left on
// its timeout.
TEST_F(Smbflow, LiveCaptureOnLoopback) {
    if (geteuid() != 0) GTEST_SKIP() << "live capture needs root or CAP_NET_RAW";
    const uint16_t port = static_cast<uint16_t>(20000 + getpid() % 40000);
    const std::string row = ",127.0.0.1," + std::to_string(port);
    int out[2];
    ASSERT_EQ(pipe(out), 0);
    const pid_t child =
        spawn_smbflow({"--no-plugin", "-i", "lo", "-f", "udp and dst port " + std::to_string(port),
                       "--inactive-timeout", "1", "-c", "3", "-F", "csv"},
                      -1, out[1]);
    close(out[1]);
    LoopbackSender sender(port);
    EXPECT_NE(read_line(out[0]).find("src_addr"), std::string::npos) << "no CSV header";
    sender.send("x");
    const std::string first = read_line(out[0]);
    EXPECT_NE(first.find(row + ",17,1,"), std::string::npos) << first;
    sender.send("y");
    sender.send("z");
    std::string rest;
    for (std::string line; !(line = read_line(out[0])).empty();)
        rest += line;
    close(out[0]);
    int wstatus = 0;
    waitpid(child, &wstatus, 0);
    EXPECT_TRUE(WIFEXITED(wstatus) && WEXITSTATUS(wstatus) == 0);
    EXPECT_NE(rest.find(row + ",17,2,"), std::string::npos) << rest;
}

}  // namespace
