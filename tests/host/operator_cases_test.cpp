// What an operator meets deploying smbflow as a probe: outputs that would destroy inputs or
// each other, FIFOs and pipes, termination signals in each phase, write errors, collectors that
// do not answer, and plug-in parameters the plug-in would misread. One table: each case is a
// shell script run in a fresh directory holding v.pcap (the sample capture) and keep.csv (an
// earlier output), with smbflow's expected status and the files it must leave untouched, write
// or never create. Waits are handshakes (a process blocked where the case needs it, seen in
// /proc); the timeout around each script only guards against a hang.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "run_command.h"

namespace hosttest {
namespace {

struct OperatorCase {
    const char *name;
    const char *script;  // $SF runs smbflow with the SMB plug-in
    int status;
    std::vector<std::string> untouched;  // byte for byte as before
    std::vector<std::string> written;    // exist and are not empty
    std::vector<std::string> absent;     // never created
    const char *stderr_has = "";
};

// ctest lists a case by its name, not by a byte dump of the struct.
void PrintTo(const OperatorCase &c, std::ostream *os) {
    *os << c.name;
}

// Cases give only the fields they need.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

// Shell helpers for the scripts: `blocked_in PID WCHAN` waits until the process sleeps in that
// kernel function (no sleep: it looks until it sees it; the case's timeout guards the rest).
constexpr const char *kPrelude = R"sh(set -u
blocked_in() { until grep -qxE "$2" /proc/$1/wchan 2>/dev/null; do :; done; }
# Cases that need root (a mount or network namespace of their own) end with 77 when that is
# missing and SMBFLOW_TEST_SKIP_PRIVILEGED=1 asks for a skip; without it they fail.
privileged() {
  unshare -m -n true 2>/dev/null && return 0
  [ "${SMBFLOW_TEST_SKIP_PRIVILEGED:-}" = 1 ] && exit 77
  echo "needs root for namespaces (SMBFLOW_TEST_SKIP_PRIVILEGED=1 skips)" >&2; exit 99
}
raw_ip_pcap() { printf '\xd4\xc3\xb2\xa1\x02\x00\x04\x00\0\0\0\0\0\0\0\0\xff\xff\0\0\x65\0\0\0'; }
)sh";

const std::vector<OperatorCase> &cases() {
    static const std::vector<OperatorCase> table = {
        // Outputs that name an input or each other are refused before anything is written.
        {"IpfixFileIsTheInput",
         "$SF -q v.pcap --ipfix file:v.pcap",
         2,
         {"v.pcap"},
         {},
         {},
         "is one of the inputs"},
        {"OutputIsASymlinkToTheInput",
         "ln -s v.pcap l.pcap; $SF -q v.pcap -o l.pcap",
         2,
         {"v.pcap"}},
        {"IpfixFileIsAHardLinkToTheInput",
         "ln v.pcap h.pcap; $SF -q v.pcap --ipfix file:h.pcap",
         2,
         {"v.pcap"}},
        {"IpfixFileAndOutputAreOneFile",
         "$SF -q v.pcap --ipfix file:keep.csv -o keep.csv",
         2,
         {"keep.csv"},
         {},
         {},
         "name the same file"},
        {"TwoIpfixFilesAreOneFile",
         "$SF -q v.pcap --ipfix file:a --ipfix file:./a",
         2,
         {},
         {},
         {"a"}},
        {"DashOutputIsStandardOutput", "$SF -q v.pcap -o - > out.csv", 0, {}, {"out.csv"}, {"-"}},
        // Refused at the start, outputs untouched.
        {"ReversePen",
         "$SF -q v.pcap --ipfix file:x.ipfix --ipfix-pen 29305",
         2,
         {},
         {},
         {"x.ipfix"},
         "RFC 5103"},
        {"LaterFileLinkTypeFilterCannotTake",
         "raw_ip_pcap > raw.pcap; $SF -q v.pcap raw.pcap -f 'ether host 1:2:3:4:5:6' -o keep.csv",
         2,
         {"keep.csv"}},
        {"LaterFileMissing", "$SF -q v.pcap missing.pcap -o keep.csv", 1, {"keep.csv"}},
        {"UnknownParameter",
         "$SF -q v.pcap --params short_create=1 -o keep.csv",
         2,
         {"keep.csv"},
         {},
         {},
         "'short_create' is not a parameter"},
        {"NotANumber", "$SF -q v.pcap --params port=abc -o keep.csv", 2, {"keep.csv"}},
        {"TrailingGarbage", "$SF -q v.pcap --params port=12abc -o keep.csv", 2, {"keep.csv"}},
        {"OutOfDeclaredRange",
         "$SF -q v.pcap --params short-create=2 -o keep.csv",
         2,
         {"keep.csv"}},
        {"NegativeSize", "$SF -q v.pcap --params filetable-size=-1 -o keep.csv", 2, {"keep.csv"}},
        {"SizeBeyond32Bits",
         "$SF -q v.pcap --params filetable-size=99999999999 -o keep.csv",
         2,
         {"keep.csv"}},
        // Per-queue tables of 2^30 slots on 64 queues: 512 GiB, beyond any machine here.
        {"TablesBeyondTheMemoryLimit",
         "$SF -q v.pcap --queues 64 --params messagetable2-size=1518500249 -o keep.csv",
         2,
         {"keep.csv"},
         {},
         {},
         "MiB"},
        {"MalformedItem", "$SF -q v.pcap --params port -o keep.csv", 2, {"keep.csv"}},
        {"DeclaredParametersAccepted",
         "$SF -q v.pcap --params port=0x1bd,wire-counts=1,short-create=1 -o out.csv",
         0,
         {},
         {"out.csv"}},
        // Write errors fail the run with status 4 and say why.
        {"IpfixToDevFull",
         "$SF v.pcap --ipfix file:/dev/full",
         4,
         {},
         {},
         {},
         "No space left on device"},
        {"IpfixToClosedPipe",
         // The pipe's read end is closed before smbflow starts: a reader that exits on its
         // own (head -c) may still be there when a small output fits in the pipe's buffer.
         "python3 -c 'import os,subprocess,sys; r,w=os.pipe(); os.close(r); "
         "sys.exit(subprocess.call(sys.argv[1:], stdout=w))' $SF -q v.pcap --ipfix file:-",
         4,
         {},
         {},
         {},
         "Broken pipe"},
        {"FullFileSystem",
         "privileged; mkdir small; unshare -m bash -c 'mount -t tmpfs -o size=64k none small && "
         "{ head -c 1M /dev/zero > small/fill; $SF -q v.pcap --ipfix file:small/x.ipfix; }'",
         4,
         {},
         {},
         {},
         "No space left on device"},
        // A collector whose address drops SYNs (a listener that never accepts, its backlog
        // full, SYN cookies off) holds the run no longer than the connect timeout allows.
        {"CollectorDroppingSyns",
         R"sh(privileged; mkfifo ready; cat > listener.py <<'PY'
import signal, socket
s = socket.socket(); s.bind(("127.0.0.1", 4739)); s.listen(0)
held = [socket.socket() for _ in range(3)]
for c in held:
    c.setblocking(False); c.connect_ex(("127.0.0.1", 4739))
open("ready", "w").write("listening\n")
signal.pause()
PY
unshare -n bash -c '
  ip link set lo up; sysctl -qw net.ipv4.tcp_syncookies=0
  python3 listener.py & l=$!; read -r _ < ready
  SECONDS=0; $SF -q v.pcap --ipfix tcp://127.0.0.1:4739 --ipfix-connect-timeout 1; s=$?
  kill $l; [ $SECONDS -lt 10 ] || s=98; exit $s')sh",
         4,
         {},
         {},
         {},
         "no connection within 1 s"},
        {"LiveCaptureWithoutPrivilege",
         "privileged; setpriv --reuid=65534 --regid=65534 --clear-groups $SF -q -c 1 -i lo",
         1,
         {},
         {},
         {},
         "CAP_NET_RAW"},
        // A FIFO is read like standard input: the same records as the file by path.
        {"FifoGivesTheRecordsOfThePath",
         "$SF -q v.pcap -o path.csv; mkfifo f; cat v.pcap > f & $SF -q f -o fifo.csv; "
         "cmp path.csv fifo.csv",
         0,
         {},
         {"fifo.csv"}},
        {"StandardInputGivesTheRecordsOfThePath",
         "$SF -q v.pcap -o path.csv; cat v.pcap | $SF -q - -o in.csv; cmp path.csv in.csv",
         0,
         {},
         {"in.csv"}},
        // Termination signals end the run cleanly, with the summary, in each phase.
        {"SignalWhileAFifoWaitsForItsWriter",
         "mkfifo f; $SF f -o out.csv & p=$!; blocked_in $p wait_for_partner; kill -TERM $p; "
         "wait $p",
         0,
         {},
         {},
         {},
         "smbflow summary"},
        {"SignalWhileReadingAFifo",
         "mkfifo f; exec 3<>f; cat v.pcap >&3; $SF f -o out.csv & p=$!; blocked_in $p "
         "'(anon_)?pipe_read'; "
         "kill -INT $p; wait $p",
         0,
         {},
         {"out.csv"},
         {},
         "flow records              7"},
    };
    return table;
}

class Operator : public ::testing::TestWithParam<OperatorCase> {};

TEST_P(Operator, Case) {
    const OperatorCase &c = GetParam();
    TempDir dir;
    write_file(dir.path("v.pcap"), read_file(std::string(TEST_DATA) + "/sample-smb2.pcap"));
    write_file(dir.path("keep.csv"), "an earlier run's output\n");
    std::vector<std::string> before;
    for (const auto &f : c.untouched)
        before.push_back(read_file(dir.path(f)));
    const std::string script = std::string(kPrelude) + "cd '" + dir.path("") + "'\nexport SF='" +
                               SMBFLOW + " --plugin " + SMB_PLUGIN + "'\n" + c.script + "\n";
    const auto r = run_command({"/usr/bin/timeout", "60", "/bin/bash", "-c", script});
    if (r.status == 77) GTEST_SKIP() << r.err;
    EXPECT_EQ(r.status, c.status) << c.script << "\n" << r.err;
    EXPECT_NE(r.err.find(c.stderr_has), std::string::npos) << r.err;
    for (size_t i = 0; i < c.untouched.size(); ++i)
        EXPECT_EQ(read_file(dir.path(c.untouched[i])), before[i]) << c.untouched[i];
    struct stat st;
    for (const auto &f : c.written)
        EXPECT_TRUE(stat(dir.path(f).c_str(), &st) == 0 && st.st_size > 0) << f;
    for (const auto &f : c.absent)
        EXPECT_NE(lstat(dir.path(f).c_str(), &st), 0) << f;
}

INSTANTIATE_TEST_SUITE_P(Smbflow, Operator, ::testing::ValuesIn(cases()),
                         [](const auto &info) { return std::string(info.param.name); });

}  // namespace
}  // namespace hosttest
