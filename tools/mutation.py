#!/usr/bin/env python3
"""Mutation pass: measures what the release test suite catches.

Each fault is one small textual edit (file, exact original text, replacement). The script first
builds and runs the suite unmutated (the baseline: every test must pass and none be skipped
unless SMB_ALLOW_SKIP names it as for tools/test-all.sh, else the pass stops, since a test that
fails anyway would be credited with every fault). Then it
applies one fault at a time, rebuilds incrementally, runs the suite and records what the tests
did, and puts the file back byte for byte before the next one. A fault whose original text is
not found exactly once stops the run before anything is changed, so that a refactoring of the
code cannot silently turn a fault into a no-op.

    tools/mutation.py [-b BUILD] [-o REPORT] [-k ID,...] [--timeout S] [--list] [--all] [--check]

Each fault ends in one of: caught (tests failed), ESCAPED (every test passed), BUILD FAILED
(the mutated code did not compile: not a catch), TIMEOUT (only tests killed after --timeout
seconds failed: a slow test is not a catch) or SKIPS ONLY (no test failed, but tests that ran in
the baseline were skipped). The report (default BUILD/mutation-report.txt) holds one row per
fault with the test names, and a first line with the counts. Exit status 1 when a fault was
not caught, 2 when the baseline fails. With --check, only the texts of all faults (--all's too)
are looked for, with nothing built or run: exit status 1 when one does not apply.
"""
import argparse
import os
import re
import signal
import subprocess
import sys
import threading
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import ctest_junit  # noqa: E402

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
P = "src/plugins/default/process/"

# (id, area, file, original, replacement, what)
MUTATIONS = [
    # Parser: framing and signatures.
    ("frame-length", "parser/framing", P + "smb_parser.cpp",
     "state.total_length = p.payload.be32(0) + SMB_SESSION_HEADER_SIZE;",
     "state.total_length = p.payload.be32(0);",
     "NetBIOS length taken as the whole message length (4 bytes short)"),
    ("frame-complete", "parser/framing", P + "smb_parser.cpp",
     "if (n >= state.total_length) {", "if (n > state.total_length) {",
     "a message that fills its segment exactly is taken as incomplete"),
    ("transform-sig", "parser/framing", P + "smb_parser.cpp",
     "case 0xFD:", "case 0xFC:",
     "transform (encrypted) signature not recognised"),
    # Parser: reassembly.
    ("reasm-segments", "parser/reassembly", P + "smb_data_table.cpp",
     "r.segments = 1;", "r.segments = 0;",
     "first stored segment not counted"),
    ("reasm-complete", "parser/reassembly", P + "smb_data_table.cpp",
     "if (appended < missing) {", "if (appended <= missing) {",
     "a message completed by a segment is never handed out"),
    ("reasm-counters", "parser/reassembly", P + "smb_parser.cpp",
     "p.counters.packets += c.segments;", "",
     "earlier segments not added to the completing packet's counters"),
    # Parser: compound chains.
    ("chain-mode", "parser/chains", P + "smb_parser_compound.cpp",
     "const bool related = (first.at(next).flags()", "const bool related = (first.flags()",
     "related/unrelated chosen from the first message's flags"),
    ("chain-header-fits", "parser/chains", P + "smb_parser_internal.h",
     "uint64_t{available} >= uint64_t{next} + SMB2_HEADER_SIZE;",
     "uint64_t{available} >= uint64_t{next};",
     "NextCommand accepted without room for the header it announces"),
    ("chain-linked-ids", "parser/chains", P + "smb_parser_create.cpp",
     "for (uint64_t i = 0; i <= distance; ++i) {", "for (uint64_t i = 0; i < distance; ++i) {",
     "last message of a related CREATE chain gets no file id"),
    ("chain-unrelated-cmd", "parser/chains", P + "smb_parser_compound.cpp",
     "command_word_ = SMB_CMD_LOW_BYTE | command_bit(command);",
     "command_word_ = SMB_CMD_LOW_BYTE;",
     "commands of later unrelated messages lost"),
    # Parser: CREATE and TREE_CONNECT.
    ("create-attr-offset", "parser/create", P + "smb_parser_create.cpp",
     "constexpr size_t kFileAttributesOffset = 56;", "constexpr size_t kFileAttributesOffset = 48;",
     "FileAttributes read at the wrong offset (file type)"),
    ("create-failure-swap", "parser/create", P + "smb_parser_create.cpp",
     "case SMB_OP_OPEN_IF:\n            return SMB_OP_FAILED | SMB_OP_OVERWRITE;",
     "case SMB_OP_OPEN_IF:\n            return SMB_OP_FAILED | SMB_OP_OPEN_IF;",
     "failed open-if not mapped to code 3"),
    ("create-short", "parser/create", P + "smb_parser_create.cpp",
     "q->short_create ? kCreateResponseMinBody - 1 : kCreateResponseMinBody;",
     "kCreateResponseMinBody;",
     "short-create opt-in ignored"),
    ("create-delete-on-close", "parser/create", P + "smb_parser_create.cpp",
     "constexpr uint8_t kDeleteOnCloseByte1 = 0x10;", "constexpr uint8_t kDeleteOnCloseByte1 = 0x01;",
     "FILE_DELETE_ON_CLOSE tested on the wrong bit"),
    ("tree-path-bounds", "parser/create", P + "smb_parser_create.cpp",
     "if (msg.body_length() < kPathOffset + path_length || path.empty())",
     "if (msg.body_length() < kPathOffset + path_length + 2 || path.empty())",
     "TREE_CONNECT path that ends the body refused"),
    # Parser: name capture.
    ("name-tail-surrogate", "parser/names", P + "smb_parser_create.cpp",
     "is_high_surrogate(end - SMB_NAME_SIZE) ? 124 : 126;",
     "is_high_surrogate(end - SMB_NAME_SIZE) ? 126 : 126;",
     "cut file name may start with half a surrogate pair"),
    ("name-head-length", "parser/names", P + "smb_parser_create.cpp",
     "void smb2_copy_name_head(const uint8_t *name, uint16_t length, uint8_t *out) {\n"
     "    std::memset(out, 0, SMB_NAME_SIZE);\n    if (length < SMB_NAME_SIZE) {",
     "void smb2_copy_name_head(const uint8_t *name, uint16_t length, uint8_t *out) {\n"
     "    std::memset(out, 0, SMB_NAME_SIZE);\n    if (length <= SMB_NAME_SIZE) {",
     "a 128-byte share path kept without its terminator room"),
    # Tables.
    ("table-size-tie", "tables/sizing", P + "smb_table_scheme.h",
     "if (e - std::trunc(e) >= 0.5) e += 1.0;", "if (e - std::trunc(e) > 0.5) e += 1.0;",
     "size rounding tie goes down"),
    ("table-min-bits", "tables/sizing", P + "smb_table_scheme.h",
     "inline constexpr int kMinSlotBits = 10;", "inline constexpr int kMinSlotBits = 9;",
     "minimum table size 512"),
    ("table-slot-mask", "tables/slot", P + "smb_table_scheme.h",
     "return hash(key) & static_cast<uint32_t>(mask); }",
     "return hash(key) & static_cast<uint32_t>(mask >> 1); }",
     "slot index uses half the table"),
    ("table-insert-kept", "tables/insert", P + "smb_table_scheme.h",
     "if (r && r->key == key) return InsertOutcome::kept;",
     "if (r && r->key == key && r == nullptr) return InsertOutcome::kept;",
     "insert of an equal key replaces instead of keeping"),
    ("table-reset", "tables/insert", P + "smb_table_scheme.h",
     "release(*r);\n            *r = Record{};", "release(*r);",
     "a reused slot keeps the previous record's fields"),
    # Plug-in frame.
    ("filter-port", "frame/filter", P + "smb_filter.cpp",
     "if (pkt->src_port != q->port && pkt->dst_port != q->port) return 0;",
     "if (pkt->dst_port != q->port) return 0;",
     "server-to-client packets not parsed"),
    ("filter-fragment", "frame/filter", P + "smb_filter.cpp",
     "if (pkt->ip_version == 4 && pkt->ipv4_aux16 != 0) return false;",
     "if (pkt->ip_version == 4 && (pkt->ipv4_aux16 & 0x1fff) != 0) return false;",
     "first IPv4 fragments (MF set) parsed"),
    ("update-give-up", "frame/update", P + "smb_flow_hooks.cpp",
     "constexpr uint64_t kPacketsBeforeGivingUp = 10;",
     "constexpr uint64_t kPacketsBeforeGivingUp = 3;",
     "update hook gives up after 3 packets"),
    ("update-direction", "frame/update", P + "smb_flow_hooks.cpp",
     "flow_rec->commands[first_direction ? 0 : 1] |= pkt_rec->commands[0];",
     "flow_rec->commands[0] |= pkt_rec->commands[0];",
     "both directions' commands merged into the request word"),
    ("post-share-root", "frame/postprocess", P + "smb_postprocess.cpp",
     "if (file.names_share_root && !rec->file_name) rec->file_name = copy_name(name);", "",
     "an open of the share root gets no file name"),
    ("post-mask-swap", "frame/postprocess", P + "smb_postprocess.cpp",
     "rec->commands[to_server] |= masks[0];\n    rec->commands[1 - to_server] |= masks[1];",
     "rec->commands[to_server] |= masks[1];\n    rec->commands[1 - to_server] |= masks[0];",
     "pending request/response masks folded into the wrong words"),
    ("fields-low-byte", "frame/fields", P + "smb_fields.cpp",
     "if (rec->version == SMB_VERSION_2) rec->commands[index] |= SMB_CMD_LOW_BYTE;", "",
     "SMB2 command words exported without the 0xff low byte"),
    # Host.
    ("queue-active-timeout", "host/flow cache", "host/queue.cpp",
     "now_ns - flow.rec.first_ns >= config_.active_timeout_ns);",
     "now_ns - flow.rec.first_ns > config_.active_timeout_ns);",
     "active timeout fires one tick late"),
    ("queue-end-reason", "host/flow cache", "host/queue.cpp",
     "? ExportReason::Inactive\n                         : ExportReason::Active;",
     "? ExportReason::Active\n                         : ExportReason::Inactive;",
     "idle and active export reasons swapped"),
    ("heap-down", "host/timeout heap", "host/timeout_heap.h",
     "entries_[left + 1].due < entries_[left].due", "entries_[left + 1].due > entries_[left].due",
     "heap sift-down picks the later child"),
    ("decoder-mf", "host/decoder", "host/packet_decoder.cpp",
     "pkt.ipv4_aux16 = be16(ip + 6) & 0x3fff;", "pkt.ipv4_aux16 = be16(ip + 6) & 0x1fff;",
     "IPv4 More Fragments flag dropped"),
    ("decoder-v6-src", "host/decoder", "host/packet_decoder.cpp",
     "memcpy(pkt.src_addr.v6, ip + 8, 16);", "memcpy(pkt.src_addr.v6, ip + 24, 16);",
     "IPv6 source taken from the destination field"),
    # Writers.
    ("csv-quote", "writers/csv", "host/smbflow/writers.cpp",
     "if (c == '\"') out += '\"';", "",
     "CSV double quotes inside a field not doubled"),
    ("json-backslash", "writers/json", "host/smbflow/writers.cpp",
     "out += \"\\\\\\\\\";", "out += \"\\\\\";",
     "JSON backslash not escaped"),
    ("text-del", "writers/text", "host/smbflow/terminal_text.cpp",
     "if (len == 1 && cp < 0x80 && is_control(cp))",
     "if (len == 1 && cp < 0x7f && is_control(cp))",
     "DEL written raw to the terminal"),
    ("format-tree-file", "writers/format", "host/smbflow/flow_format.cpp",
     "for (const FieldValue *v : {smb.tree, smb.file_name}) {",
     "for (const FieldValue *v : {smb.file_name, smb.tree}) {",
     "share and file name columns swapped"),
    # smbflow: the export split (post-processing on the queue's thread, fields on the export
    # thread), payload trimming, the mapped capture and stream readers, IPFIX records, the flat
    # flow table, client-first orientation, rotation, parameter checks; the activity counters.
    ("pipeline-no-postprocess", "smbflow/pipeline", "host/smbflow/pipeline.cpp",
     "            raw->exporter.postprocess(f);\n", "",
     "flows handed out during the run exported without post-processing"),
    ("export-reason", "host/exporter", "host/exporter.cpp",
     "    out.reason = flow.reason;\n", "",
     "exported flow keeps the previous flow's end reason"),
    ("payload-server-side", "smbflow/payload", "host/smbflow/payload_need.h",
     "(port_ == 0 || pkt.src_port == port_ || pkt.dst_port == port_)",
     "(port_ == 0 || pkt.dst_port == port_)",
     "payload of server-to-client packets trimmed on copy"),
    ("mapped-micro-stamps", "smbflow/mapped capture", "host/smbflow/mapped_capture.cpp",
     "frac_ns_ = nano ? 1 : 1000;", "frac_ns_ = 1;",
     "microsecond pcap time stamps read as nanoseconds"),
    ("ipfix-idle-reason", "smbflow/ipfix", "host/smbflow/ipfix_record.cpp",
     "            return 1;  // idle timeout", "            return 2;  // idle timeout",
     "IPFIX flowEndReason of an idle timeout sent as active timeout"),
    ("flat-erase-shift", "host/flat table", "host/flat_table.h",
     "if (((next - home) & mask()) >= ((next - s) & mask())) {",
     "if (((next - home) & mask()) > ((next - s) & mask())) {",
     "erase leaves entries that the hole cuts off from their home slot"),
    ("stream-keep", "smbflow/stream reader", "host/smbflow/mapped_capture.cpp",
     "const size_t keep = window_base_ && held_end > at ? held_end - at : 0;",
     "const size_t keep = 0;",
     "a record that straddles two stream buffers loses the bytes already read"),
    ("stream-short-read", "smbflow/stream reader", "host/smbflow/mapped_capture.cpp",
     "    while (window_at_ + filled_ < at + len) {", "    if (window_at_ + filled_ < at + len) {",
     "a pipe that gives a record in pieces reads as a truncated capture"),
    ("ipfix-wire-order", "smbflow/ipfix", "host/smbflow/ipfix_export.cpp",
     "if (ok) wire_order_templates(t);", "(void)ok;",
     "numbers already in network order turned around again by the encoder"),
    ("orient-flags", "smbflow/orientation", "host/smbflow/orientation.cpp",
     "    std::swap(rec.tcp_flags[0], rec.tcp_flags[1]);\n", "",
     "a turned-around flow keeps each direction's TCP flags on the other side"),
    ("rotate-late-row", "smbflow/rotation", "host/smbflow/rotation.cpp",
     "if (!open_ || slot > slot_) {", "if (!open_ || slot != slot_) {",
     "a flow that ends in an earlier interval than the open file's is dropped"),
    ("param-max", "smbflow/params", "host/smbflow/param_check.cpp",
     "if (!v || *v < d->min || *v > d->max)", "if (!v || *v < d->min || *v > d->max + 1)",
     "a value one above a parameter's declared maximum accepted"),
    ("activity-warning-errors", "activity/errors", P + "smb_parser_activity.cpp",
     "return (status >> 30) == 3 && status != kStatusMoreProcessingRequired;",
     "return (status >> 30) >= 2 && status != kStatusMoreProcessingRequired;",
     "warnings (STATUS_BUFFER_OVERFLOW, STATUS_NO_MORE_FILES) counted as errors"),
    ("activity-merge-errors", "activity/merge", P + "smb_activity.cpp",
     "    into->errors += from->errors;\n", "",
     "errors of merged records (parked counters, later packets) lost"),
    ("activity-interim", "activity/latency", P + "smb_parser_activity.cpp",
     "    if (h.is_async() && status == kStatusPending) return;\n", "",
     "an interim STATUS_PENDING response taken as the final one"),
    ("activity-latency-max", "activity/latency", P + "smb_parser_activity.cpp",
     "if (clamped > a->latency_max_us) a->latency_max_us = clamped;",
     "a->latency_max_us = clamped;",
     "the latest response time kept as the maximum"),
    ("activity-cancel", "activity/latency", P + "smb_parser_activity.cpp",
     "    if (h.command == SMB2_CANCEL) return;", "",
     "a CANCEL request restarts the clock of the request it cancels"),
    ("activity-overflow-read", "activity/reads", P + "smb_parser_activity.cpp",
     "    if (status == 0) count_success(", "    if ((status >> 30) != 3) count_success(",
     "a READ answered with STATUS_BUFFER_OVERFLOW (named pipes) counted as a read"),
    ("activity-write-count", "activity/writes", P + "smb_parser_activity.cpp",
     "a->bytes_written += body.le32(kReadWriteCountOffset);",
     "a->bytes_written += body.le32(kReadWriteCountOffset + 4);",
     "bytes written read from the WRITE response's Remaining field"),
    ("activity-dialect-wildcard", "activity/dialect", P + "smb_parser_activity.cpp",
     "            if (dialect == kDialectWildcard) dialect = 0;\n", "",
     "the 0x02FF wildcard of a multi-protocol NEGOTIATE taken as the dialect"),
    ("activity-dialect-spread", "activity/dialect", P + "smb_postprocess.cpp",
     "    if (dialect) a->dialect = dialect;\n", "",
     "the dialect only on the record of the NEGOTIATE exchange"),
    ("activity-security-spread", "activity/security", P + "smb_postprocess.cpp",
     "    rec->security |= security;\n", "",
     "the server's signing requirement and SMB1 flag only on the records that saw them"),
    ("activity-signed-request", "activity/security", P + "smb_parser_activity.cpp",
     "    if (h.flags & kSmb2FlagsSigned) rec->security |= SMB_SEC_SIGNED;\n    count_request(",
     "    count_request(",
     "signed requests not marked (only signed responses)"),
    ("activity-delete-ex", "activity/deletes", P + "smb_parser_activity.cpp",
     "(buffer.le32(0) & kFileDispositionDelete)", "(buffer.le32(0) & 2)",
     "FileDispositionInformationEx tested on its POSIX-semantics flag"),
    ("activity-retransmit", "activity/retransmission", P + "smb_filter.cpp",
     "q->tcp_seen && smb_tcp_repeat(", "false && smb_tcp_repeat(",
     "messages of a retransmitted segment counted again"),
    ("activity-park", "activity/merge", P + "smb_filter.cpp",
     "if (rec->activity && rec->activity->counted) smb_park_activity(pkt, rec, q);", "",
     "counters of a packet whose record is dropped (a response kept for later) lost"),
    ("who-auth-time", "who/identity", P + "smb_who.cpp",
     "s->auth_ns > rec->session_ns", "s->auth_ns >= rec->session_ns",
     "the AUTHENTICATE request's own record left without the names it carries"),
    ("who-odd-length", "who/identity", P + "smb_ntlmssp.cpp",
     "const uint16_t even = length & ~1u;", "const uint16_t even = length;",
     "an odd-length Unicode name keeps half a code unit"),
    ("who-first-fragment", "who/rpc", P + "smb_who.cpp",
     "        if (!first_fragment) return;", "",
     "later fragments of a call counted as calls"),
    ("who-opnum-overflow", "who/rpc", P + "smb_who.cpp",
     "opnum < kOpnumOverflowBit ? opnum : kOpnumOverflowBit",
     "opnum & kOpnumOverflowBit",
     "opnums of 64 and more folded onto low bits instead of bit 63"),
    ("who-big-endian", "who/rpc", P + "smb_dcerpc.cpp",
     "return little ? v : static_cast<uint16_t>((v >> 8) | (v << 8));\n    }", "return v;\n    }",
     "a big-endian PDU's context ids and opnums read little-endian"),
    # Tables: the blocks of a slot array that writes have reached.
    ("table-free-written", "tables/blocks", P + "smb_table_scheme.h",
     "if (!reached(g) && !reached(g + 7)) continue;", "if (!reached(g)) continue;",
     "freeing skips a group of slots that begins in a block no write reached"),
    ("table-find-written", "tables/blocks", P + "smb_table_scheme.h",
     "        written[b >> 6] |= bit;\n", "",
     "writes do not mark their block: lookups find nothing"),
    # The checks themselves: a check that compared nothing must not pass.
    ("check-require-all", "checks", "tools/smbdiff/activity.py",
     "    return 1 if zero else 0", "    return 0",
     "--require-all never fails"),
]

# Left out of the default pass to keep it within about half an hour on two cores (--all runs
# them as well).
EXTRA = {"transform-sig", "reasm-counters", "chain-unrelated-cmd", "tree-path-bounds",
         "create-delete-on-close", "table-size-tie", "table-min-bits", "update-give-up",
         "post-mask-swap", "queue-active-timeout", "text-del"}

# Directories whose targets the release suite does not need: the benchmarks and fuzzers.
NOT_NEEDED = ("bench", "fuzz")

_saved = {}


def restore_all():
    for path, data in list(_saved.items()):
        with open(path, "wb") as f:
            f.write(data)
        del _saved[path]


def on_signal(signum, _frame):
    restore_all()
    sys.exit(128 + signum)


def check(mutations):
    bad = []
    for mid, _area, rel, orig, _new, _what in mutations:
        with open(os.path.join(ROOT, rel), encoding="utf-8") as f:
            n = f.read().count(orig)
        if n != 1:
            bad.append(f"{mid}: original text found {n} times in {rel}")
    if bad:
        sys.exit("mutation.py: " + "\n  ".join(["faults do not apply:"] + bad))


def build_targets(build):
    """The build's per-directory targets, as this build directory has them (which libraries are
    built depends on what the configuration found), less those the suite does not need."""
    out = subprocess.run(["ninja", "-C", build, "-t", "targets", "all"], check=True,
                         capture_output=True, text=True).stdout
    dirs = [line.split(":", 1)[0] for line in out.splitlines()
            if re.match(r"^[^: ]+/all: phony$", line)]
    top = [d for d in dirs if d.split("/")[0] not in NOT_NEEDED]
    if not top:
        sys.exit(f"mutation.py: no directory targets in {build}: configure it first")
    return top


def descendants(pid):
    children = {}
    for entry in os.listdir("/proc"):
        if not entry.isdigit():
            continue
        try:
            with open(f"/proc/{entry}/stat") as f:
                fields = f.read().rsplit(")", 1)[1].split()
        except OSError:
            continue
        children.setdefault(int(fields[1]), []).append((int(entry), int(fields[19])))
    out, todo = [], [pid]
    while todo:
        for child, start in children.get(todo.pop(), []):
            out.append((child, start))
            todo.append(child)
    return out


class Outcome:
    def __init__(self, failed, timed_out, skipped, note=""):
        self.failed, self.timed_out, self.skipped, self.note = failed, timed_out, skipped, note


def run_suite(build, timeout):
    """Runs ctest; the tests that failed, those killed for taking too long, and those skipped,
    read from its JUnit report."""
    # The tests carry TIMEOUT properties of several minutes, which ctest's --timeout does not
    # shorten; a fault that makes a test wait forever would hold the pass for that long. A test
    # process (a child of ctest) older than `timeout` is killed with its own children; it then
    # counts as timed out, not as failed.
    junit = os.path.join(os.path.abspath(build), "mutation-junit.xml")
    if os.path.exists(junit):
        os.remove(junit)
    proc = subprocess.Popen(["ctest", "--test-dir", build, "-j2", "--no-tests=error",
                             "--output-junit", junit], stdout=subprocess.PIPE,
                            stderr=subprocess.STDOUT, text=True)
    tick = os.sysconf("SC_CLK_TCK")
    chunks = []
    killed = 0
    reader = threading.Thread(target=lambda: chunks.append(proc.stdout.read()))
    reader.start()
    while reader.is_alive():
        reader.join(1)
        with open("/proc/uptime") as f:
            now = float(f.read().split()[0])
        for child, start in descendants(proc.pid):
            if now - start / tick > timeout:
                killed += 1
                for pid, _ in descendants(child) + [(child, 0)]:
                    try:
                        os.kill(pid, signal.SIGKILL)
                    except OSError:
                        pass
    proc.wait()
    if not os.path.exists(junit):
        tail = "".join(chunks).strip().splitlines()[-1:] or ["no output"]
        return Outcome(["(ctest failed: " + tail[0] + ")"], [], [])
    failed, timed_out, skipped = [], [], []
    for o in ctest_junit.read(junit):
        if o.status == "failed":
            (timed_out if killed and o.seconds >= timeout - 1 else failed).append(o.name)
        elif o.status == "skipped":
            skipped.append(o.name)
    if proc.returncode != 0 and not failed and not timed_out:
        failed.append(f"(ctest status {proc.returncode})")
    return Outcome(failed, timed_out, skipped)


def verdict(o, baseline_skips):
    new_skips = sorted(set(o.skipped) - baseline_skips)
    if o.note:
        return "BUILD FAILED", o.note
    if o.failed:
        return "caught", f"caught by {len(o.failed)}: " + ", ".join(o.failed)
    if o.timed_out:
        return "TIMEOUT", "only tests killed after the time limit: " + ", ".join(o.timed_out)
    if new_skips:
        return "SKIPS ONLY", "no test failed; skipped: " + ", ".join(new_skips)
    return "ESCAPED", "ESCAPED"


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[1])
    ap.add_argument("-b", "--build", default=os.path.join(ROOT, "build"))
    ap.add_argument("-o", "--report")
    ap.add_argument("-k", "--only", help="comma-separated fault ids, run in that order")
    ap.add_argument("--timeout", type=int, default=120, help="per test process, seconds")
    ap.add_argument("--all", action="store_true", help="also the faults left out by default")
    ap.add_argument("--list", action="store_true")
    ap.add_argument("--check", action="store_true",
                    help="only check that every fault applies to the tree as it is")
    args = ap.parse_args()
    mutations = [m for m in MUTATIONS if args.all or m[0] not in EXTRA]
    if args.only:
        # In the order given, so that a long pass can take the faults that matter most first.
        by_id = {m[0]: m for m in MUTATIONS}
        keep = list(dict.fromkeys(args.only.split(",")))
        unknown = [k for k in keep if k not in by_id]
        if unknown:
            sys.exit("mutation.py: no such fault: " + ", ".join(unknown))
        mutations = [by_id[k] for k in keep]
    if args.list:
        for m in mutations:
            print(f"{m[0]:24} {m[1]:20} {m[2]}: {m[5]}")
        return 0
    check(MUTATIONS if args.check else mutations)
    if args.check:
        print(f"mutation.py: all {len(MUTATIONS)} faults apply")
        return 0
    targets = build_targets(args.build)
    report = args.report or os.path.join(args.build, "mutation-report.txt")
    for s in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(s, on_signal)

    def build():
        return subprocess.run(["ninja", "-C", args.build] + targets, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True)

    started = time.time()
    b = build()
    if b.returncode != 0:
        print(b.stdout[-3000:])
        print("mutation.py: the unmutated tree does not build; no pass")
        return 2
    base = run_suite(args.build, args.timeout)
    print(f"baseline: {len(base.failed)} failed, {len(base.timed_out)} timed out, "
          f"{len(base.skipped)} skipped ({time.time() - started:.0f} s)", flush=True)
    allow = {a.strip() for a in os.environ.get("SMB_ALLOW_SKIP", "").split(",") if a.strip()}
    refused = [n for n in base.skipped if not ctest_junit.allowed(n, allow)]
    if base.failed or base.timed_out or refused:
        for name in base.failed + base.timed_out + refused:
            print(f"  {name}")
        print("mutation.py: the suite must pass unmutated, with nothing skipped that "
              "SMB_ALLOW_SKIP does not name; no pass")
        return 2
    baseline_skips = set(base.skipped)

    rows = []
    try:
        for mid, area, rel, orig, new, what in mutations:
            path = os.path.join(ROOT, rel)
            with open(path, "rb") as f:
                data = f.read()
            _saved[path] = data
            with open(path, "wb") as f:
                f.write(data.replace(orig.encode(), new.encode(), 1))
            t0 = time.time()
            b = build()
            if b.returncode != 0:
                errors = [line for line in b.stdout.splitlines() if "error" in line]
                o = Outcome([], [], [], (errors or ["build failed"])[0].strip())
            else:
                o = run_suite(args.build, args.timeout)
            restore_all()
            kind, detail = verdict(o, baseline_skips)
            rows.append((mid, area, rel, what, kind, detail))
            print(f"{mid:24} {kind:12} ({len(o.failed)} failed, {len(o.timed_out)} timed out, "
                  f"{len(o.skipped)} skipped, {time.time() - t0:.0f} s)", flush=True)
    finally:
        restore_all()
        build()

    counts = {k: sum(1 for r in rows if r[4] == k)
              for k in ("caught", "ESCAPED", "BUILD FAILED", "TIMEOUT", "SKIPS ONLY")}
    line = (f"{len(rows)} faults: {counts['caught']} caught, {counts['ESCAPED']} escaped, "
            f"{counts['BUILD FAILED']} build failures, {counts['TIMEOUT']} timeouts, "
            f"{counts['SKIPS ONLY']} with skips only")
    with open(report, "w", encoding="utf-8") as f:
        f.write(f"# mutation pass: {line}; {time.time() - started:.0f} s\n")
        for mid, area, rel, what, kind, detail in rows:
            f.write(f"{mid}\t{area}\t{rel}\t{what}\t{kind}\t{detail}\n")
    missed = [r[0] for r in rows if r[4] != "caught"]
    print(f"{line} (not caught: {', '.join(missed) or 'none'}); report in {report}")
    return 1 if missed else 0


if __name__ == "__main__":
    sys.exit(main())
