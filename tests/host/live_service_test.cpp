// smbflow as a service on a live interface: SIGHUP reopens the outputs, an interface or a
// collector name that is not there yet is waited for, --user, --buffer-size and the periodic
// statistics line. Live capture needs root (these tests are skipped without it); interfaces
// are those of the loopback or of network namespaces made here. Every wait for smbflow is a
// wait for something it writes, bounded, and fails loudly at the bound.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <pwd.h>
#include <sched.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <optional>
#include <regex>
#include <set>

#include "run_command.h"
#include "service.h"

namespace {

using namespace hosttest;
using namespace std::chrono_literals;

constexpr int kBoundMs = 30000;  // the longest wait for anything smbflow is to do

uint16_t test_port(int offset) {
    return static_cast<uint16_t>(20000 + (getpid() * 7 + offset) % 40000);
}

// A private directory that the user switched to can write in.
struct OpenDir {
    std::string dir;
    OpenDir() {
        char name[] = "/tmp/smbflow-live-XXXXXX";
        dir = mkdtemp(name);
        chmod(dir.c_str(), 0777);
    }
    ~OpenDir() { std::filesystem::remove_all(dir); }
    std::string path(const std::string &name) const { return dir + "/" + name; }
};

// smbflow with its standard error on a pipe. SIGUSR1 is blocked from before the fork until
// smbflow's reading thread takes it, so that a statistics line can be asked for at any time.
struct Running {
    pid_t pid = -1;
    int err = -1;
    std::string seen;  // standard error so far

    Running(std::vector<std::string> args, const std::function<void()> &in_child = {}) {
        args.insert(args.begin(), {SMBFLOW, "--no-progress", "--no-plugin"});
        int p[2];
        if (pipe(p) != 0) return;
        sigset_t usr1, before;
        sigemptyset(&usr1);
        sigaddset(&usr1, SIGUSR1);
        pthread_sigmask(SIG_BLOCK, &usr1, &before);
        pid = fork();
        if (pid == 0) {
            dup2(p[1], STDERR_FILENO);
            close(p[0]);
            if (in_child) in_child();
            std::vector<char *> argv;
            for (auto &a : args)
                argv.push_back(a.data());
            argv.push_back(nullptr);
            execv(SMBFLOW, argv.data());
            _exit(127);
        }
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        close(p[1]);
        err = p[0];
    }
    ~Running() {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        if (err >= 0) close(err);
    }

    // Reads standard error until `pattern` matches what came after `from`; the match.
    std::smatch wait_for(const std::string &pattern, size_t from = 0) {
        const std::regex re(pattern);
        const auto deadline =
            std::chrono::steady_clock::now() + std::chrono::milliseconds(kBoundMs);
        std::smatch m;
        for (;;) {
            if (from <= seen.size() && std::regex_search(seen.cbegin() + from, seen.cend(), m, re))
                return m;
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            pollfd p{err, POLLIN, 0};
            char buf[4096];
            ssize_t n = 0;
            if (left.count() <= 0 || poll(&p, 1, static_cast<int>(left.count())) <= 0 ||
                (n = read(err, buf, sizeof buf)) <= 0) {
                ADD_FAILURE() << "smbflow did not write /" << pattern << "/; it wrote:\n" << seen;
                return m;
            }
            seen.append(buf, static_cast<size_t>(n));
        }
    }

    // Ends the run with `sig`; its exit status (128 + signal when killed).
    int end(int sig = SIGTERM) {
        kill(pid, sig);
        int wstatus = 0;
        waitpid(pid, &wstatus, 0);
        pid = -1;
        char buf[4096];
        for (ssize_t n; (n = read(err, buf, sizeof buf)) > 0;)
            seen.append(buf, static_cast<size_t>(n));
        return WIFEXITED(wstatus) ? WEXITSTATUS(wstatus) : 128 + WTERMSIG(wstatus);
    }
};

// Waits until `ready` holds for the file at `path`, woken by changes in its directory.
void wait_for_file(const std::string &path, const std::function<bool(const std::string &)> &ready) {
    const int fd = inotify_init1(IN_CLOEXEC);
    ASSERT_GE(fd, 0);
    inotify_add_watch(fd, std::filesystem::path(path).parent_path().c_str(),
                      IN_CREATE | IN_MODIFY | IN_CLOSE_WRITE | IN_MOVED_TO);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kBoundMs);
    while (!ready(std::filesystem::exists(path) ? read_file(path) : std::string())) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd p{fd, POLLIN, 0};
        char buf[4096];
        if (left.count() <= 0 || poll(&p, 1, static_cast<int>(left.count())) <= 0) {
            close(fd);
            FAIL() << "timed out waiting for " << path;
        }
        (void)!read(fd, buf, sizeof buf);
    }
    close(fd);
}

void send_udp(uint16_t port, const char *text) {
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    sendto(fd, text, strlen(text), 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
    close(fd);
}

class LiveService : public testing::Test {
  protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "live capture and namespaces need root";
    }
};

// What the test needs of an IPFIX file (RFC 7011: messages of a 16-byte header and sets of
// an id and a length; template sets, id 2, of records of an id, a field count and the fields):
// its first set's id and how many data sets of those templates it holds. Null when it is cut
// short or malformed.
struct IpfixFile {
    uint16_t first_set = 0;
    size_t flow_sets = 0;
};
std::optional<IpfixFile> read_ipfix(const std::string &bytes) {
    auto u16 = [&](size_t at) {
        return static_cast<uint16_t>(uint8_t(bytes[at]) << 8 | uint8_t(bytes[at + 1]));
    };
    IpfixFile file;
    std::set<uint16_t> templates;
    bool first = true;
    for (size_t msg = 0; msg < bytes.size();) {
        if (bytes.size() - msg < 16 || u16(msg) != 10) return std::nullopt;
        const size_t end = msg + u16(msg + 2);
        if (end > bytes.size() || end < msg + 16) return std::nullopt;
        for (size_t set = msg + 16; set < end;) {
            if (end - set < 4 || u16(set + 2) < 4 || set + u16(set + 2) > end) return std::nullopt;
            const uint16_t id = u16(set);
            const size_t set_end = set + u16(set + 2);
            if (first) file.first_set = id;
            first = false;
            for (size_t r = set + 4; id == 2 && set_end - r >= 4;) {
                templates.insert(u16(r));
                const size_t fields = u16(r + 2);
                r += 4;
                for (size_t f = 0; f < fields && set_end - r >= 4; ++f)
                    r += (u16(r) & 0x8000) && set_end - r >= 8 ? 8 : 4;
            }
            file.flow_sets += templates.count(id);
            set = set_end;
        }
        msg = end;
    }
    return file;
}

// logrotate renames the output away and sends SIGHUP: the records before it stay in the
// renamed file, those after it go to a new file under the configured name (its own header, or
// for IPFIX its templates, first), and the run goes on. Likewise for a --rotate pattern's
// current file.
TEST_F(LiveService, SighupReopensARenamedOutput) {
    struct Case {
        const char *name;
        std::vector<std::string> options;  // the output's, with OUT for the name
        bool ipfix;
    };
    const Case cases[] = {
        {"plain", {"-F", "csv", "-o", "OUT"}, false},
        {"rotated", {"-F", "csv", "--rotate", "86400", "-o", "OUT"}, false},
        {"ipfix file", {"--ipfix", "file:OUT"}, true},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        OpenDir tmp;
        const std::string out = tmp.path("flows"), old = tmp.path("flows.1");
        const uint16_t port = test_port(c.options.size() + c.ipfix);
        const std::string row = ",127.0.0.1," + std::to_string(port) + ",17,1,";
        // A file with its record: a CSV row, or an IPFIX data set after the templates.
        const auto has_record = [&](const std::string &text) {
            if (!c.ipfix) return text.find(row) != text.npos;
            const auto file = read_ipfix(text);
            // Template sets (2) or options template sets (3, the elements' type records) first.
            return file && (file->first_set == 2 || file->first_set == 3) && file->flow_sets == 1;
        };
        std::vector<std::string> args = {
            "-i", "lo", "-f", "udp and dst port " + std::to_string(port), "--inactive-timeout",
            "1"};
        for (const auto &o : c.options)
            args.push_back(o == "OUT" ? out : o == "file:OUT" ? "file:" + out : o);
        Running run(args);
        kill(run.pid, SIGUSR1);
        run.wait_for("smbflow: stats");  // reading
        send_udp(port, "before");
        wait_for_file(out, has_record);
        std::filesystem::rename(out, old);
        // Both signals are taken by the reading thread, SIGHUP's flag first: once the line
        // asked for after it is out, the outputs have been reopened (an IPFIX file by its
        // sender thread, before it takes a record handed over later).
        const size_t mark = run.seen.size();
        kill(run.pid, SIGHUP);
        kill(run.pid, SIGUSR1);
        run.wait_for("smbflow: stats", mark);
        send_udp(port, "after");
        wait_for_file(out, has_record);
        EXPECT_EQ(run.end(), 0) << run.seen;
        EXPECT_NE(run.seen.find("smbflow summary"), std::string::npos) << run.seen;
        const std::string before = read_file(old), after = read_file(out);
        EXPECT_TRUE(has_record(before));
        EXPECT_TRUE(has_record(after));
        if (c.ipfix) continue;  // has_record: templates first, and one record
        const auto before_lines = lines_of(before), after_lines = lines_of(after);
        ASSERT_EQ(before_lines.size(), 2u) << before;
        ASSERT_EQ(after_lines.size(), 2u) << after;
        EXPECT_EQ(after_lines[0], before_lines[0]) << "the new file has the header";
    }
}

// A service may start before its interface is set up: an interface that is absent or down is
// tried again every second, with a message, until it is up; SIGTERM ends the wait cleanly.
// Each case runs smbflow in a network namespace of its own, whose lo is down at first.
TEST_F(LiveService, WaitsForAnInterfaceThatIsAbsentOrDown) {
    struct Case {
        const char *interface;
        const char *bring_up;  // in smbflow's namespace; null: stopped while waiting
        const char *why;
    };
    const Case cases[] = {
        {"lo", "ip link set lo up", "the interface is down"},
        {"smbt0", "ip link add smbt0 type veth peer name smbt0p && ip link set smbt0 up",
         "no such interface"},
        {"smbt1", nullptr, "no such interface"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.interface);
        OpenDir tmp;
        const std::string pid_file = tmp.path("smbflow.pid");
        Running run({"-i", c.interface, "--pid-file", pid_file, "-o", tmp.path("out.csv")}, [] {
            if (unshare(CLONE_NEWNET) != 0) _exit(125);
        });
        run.wait_for(std::string("cannot capture on ") + c.interface + ": " + c.why +
                     "; trying again every second");
        EXPECT_FALSE(std::filesystem::exists(pid_file)) << "not running yet";
        if (c.bring_up) {
            const std::string cmd = "PATH=/usr/sbin:/usr/bin:/sbin:/bin nsenter --net=/proc/" +
                                    std::to_string(run.pid) + "/ns/net sh -c '" + c.bring_up + "'";
            const auto r = run_command({"/bin/sh", "-c", cmd});
            ASSERT_EQ(r.status, 0) << r.out << r.err;
            run.wait_for(std::string("smbflow: capturing on ") + c.interface);
            EXPECT_EQ(read_file(pid_file), std::to_string(run.pid) + "\n");
        }
        EXPECT_EQ(run.end(), 0) << run.seen;
        EXPECT_NE(run.seen.find("smbflow summary"), std::string::npos) << run.seen;
        EXPECT_EQ(std::filesystem::exists(tmp.path("out.csv")), c.bring_up != nullptr);
    }
}

// An IPFIX collector whose name does not resolve yet is tried again until it does. The name
// comes from a hosts file of the test's, bound over /etc/hosts in a mount namespace of
// smbflow's own (and the resolver pointed at a loopback port where none answers).
TEST_F(LiveService, WaitsForACollectorNameToResolve) {
    OpenDir tmp;
    const std::string hosts = tmp.path("hosts"), resolv = tmp.path("resolv.conf");
    write_file(hosts, "127.0.0.1 localhost\n");
    write_file(resolv, "nameserver 127.0.0.1\noptions timeout:1 attempts:1\n");
    const int collector = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in at{};
    at.sin_family = AF_INET;
    at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(collector, reinterpret_cast<sockaddr *>(&at), sizeof at), 0);
    socklen_t len = sizeof at;
    getsockname(collector, reinterpret_cast<sockaddr *>(&at), &len);
    const std::string url = "udp://collector.smbflow-test:" + std::to_string(ntohs(at.sin_port));
    Running run(
        {"-i", "lo", "-f", "udp and dst port " + std::to_string(test_port(5)), "--ipfix", url},
        [&] {
            if (unshare(CLONE_NEWNS) != 0 ||
                mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                mount(hosts.c_str(), "/etc/hosts", nullptr, MS_BIND, nullptr) != 0 ||
                mount(resolv.c_str(), "/etc/resolv.conf", nullptr, MS_BIND, nullptr) != 0)
                _exit(125);
        });
    run.wait_for("ipfix: " + url + ": cannot resolve collector.smbflow-test");
    // Written in place: the bind mount holds this file, not its name.
    const int fd = open(hosts.c_str(), O_WRONLY | O_APPEND);
    ASSERT_EQ(write(fd, "127.0.0.1 collector.smbflow-test\n", 33), 33);
    close(fd);
    // The templates open the export: an IPFIX message (version 10) arrives.
    pollfd p{collector, POLLIN, 0};
    ASSERT_EQ(poll(&p, 1, kBoundMs), 1) << "nothing reached the collector\n" << run.seen;
    uint8_t message[65536];
    ASSERT_GE(recv(collector, message, sizeof message, 0), 16);
    EXPECT_EQ(message[0] << 8 | message[1], 10);
    close(collector);
    EXPECT_EQ(run.end(), 0) << run.seen;
    run.wait_for("connected");
}

// Started as root with --user: the capture is opened as root, and then the process runs as the
// user (real, effective and saved ids, groups) and writes its output as that user. The
// statistics line comes by itself every interval, with the live capture's kernel counts.
TEST_F(LiveService, UserSwitchAndPeriodicStatistics) {
    const passwd *pw = getpwnam("nobody");
    if (!pw) GTEST_SKIP() << "no user nobody";
    const uid_t uid = pw->pw_uid;
    const gid_t gid = pw->pw_gid;
    OpenDir tmp;
    const std::string out = tmp.path("out.csv");
    const uint16_t port = test_port(7);
    const std::string row = ",127.0.0.1," + std::to_string(port) + ",17,1,";
    Running run({"-i", "lo", "-f", "udp and dst port " + std::to_string(port), "--user", "nobody",
                 "--inactive-timeout", "1", "--stats-interval", "0.2", "-o", out});
    const std::string line =
        R"(smbflow: stats packets=(\d+) records=(\d+) kernel_received=(\d+) kernel_dropped=(\d+)\n)";
    run.wait_for(line);  // the reading loop runs, after the switch
    const std::string status = read_file("/proc/" + std::to_string(run.pid) + "/status");
    const std::string ids = std::to_string(uid) + "\t" + std::to_string(uid) + "\t" +
                            std::to_string(uid) + "\t" + std::to_string(uid);
    const std::string gids = std::to_string(gid) + "\t" + std::to_string(gid) + "\t" +
                             std::to_string(gid) + "\t" + std::to_string(gid);
    EXPECT_NE(status.find("\nUid:\t" + ids + "\n"), std::string::npos) << status;
    EXPECT_NE(status.find("\nGid:\t" + gids + "\n"), std::string::npos) << status;
    EXPECT_NE(status.find("\nGroups:\t" + std::to_string(gid) + " \n"), std::string::npos)
        << status;
    send_udp(port, "x");
    wait_for_file(out, [&](const std::string &text) { return text.find(row) != text.npos; });
    // A later line counts the packet and its record (the count follows the write), and the
    // kernel's counts.
    const auto m = run.wait_for(
        R"(smbflow: stats packets=1 records=1 kernel_received=(\d+) kernel_dropped=(\d+)\n)");
    ASSERT_FALSE(m.empty());
    EXPECT_GE(std::stoul(m[1]), 1u);
    EXPECT_EQ(m[2], "0");
    EXPECT_EQ(run.end(), 0) << run.seen;
    struct stat st;
    ASSERT_EQ(stat(out.c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, uid) << "written as the user";
    EXPECT_EQ(lines_of(read_file(out)).size(), 2u);
}

// --buffer-size reaches the kernel: libpcap maps the packet socket's ring, whose size is the
// capture buffer, into the process (a shared mapping of the socket in /proc/PID/maps).
TEST_F(LiveService, BufferSizeIsTheKernelRing) {
    const std::pair<const char *, uint64_t> cases[] = {
        {nullptr, 2}, {"1", 1}, {"64", 64}};  // none: libpcap's default
    for (const auto &[option, mib] : cases) {
        SCOPED_TRACE(option ? option : "default");
        std::vector<std::string> args = {"-i", "lo", "-f", "udp and dst port 9", "-o", "/dev/null"};
        if (option) args.insert(args.end(), {"--buffer-size", option});
        Running run(args);
        kill(run.pid, SIGUSR1);
        run.wait_for("smbflow: stats");  // capturing
        const std::regex ring(R"(([0-9a-f]+)-([0-9a-f]+) rw-s .* socket:\[\d+\])");
        const std::string maps = read_file("/proc/" + std::to_string(run.pid) + "/maps");
        std::smatch m;
        ASSERT_TRUE(std::regex_search(maps, m, ring)) << maps;
        EXPECT_EQ(std::stoull(m[2], nullptr, 16) - std::stoull(m[1], nullptr, 16), mib << 20);
        EXPECT_EQ(run.end(), 0) << run.seen;
    }
}

// The schedule of the periodic line, on a clock of the test's.
TEST(StatsSchedule, DueEveryIntervalSinceTheLastLine) {
    auto now = std::chrono::steady_clock::time_point{};
    const auto clock = [&] { return now; };
    smbflow::StatsSchedule every10(10, clock), never(0, clock);
    struct Step {
        std::chrono::milliseconds at;
        bool due;
        bool write;  // a line goes out (due, or asked for by SIGUSR1)
    };
    const Step steps[] = {
        {0ms, false, false},     {9999ms, false, false}, {10000ms, true, true},
        {10001ms, false, false}, {15000ms, false, true},  // asked for: the interval restarts
        {24999ms, false, false}, {25000ms, true, false}, {40000ms, true, true},
        {49999ms, false, false},
    };
    for (const Step &s : steps) {
        now = std::chrono::steady_clock::time_point{} + s.at;
        EXPECT_EQ(every10.due(), s.due) << s.at.count();
        EXPECT_FALSE(never.due()) << s.at.count();
        if (s.write) every10.written();
    }
}

}  // namespace
