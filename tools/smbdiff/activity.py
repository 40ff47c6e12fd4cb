#!/usr/bin/env python3
"""Differential check of the activity counters (plug-in parameter activity=1) against tshark.

From tshark's dissection it derives, per connection: the totals of every counter (bytes and
messages read and written, errors, renames, deletes, latency), the flags of SMB_SECURITY, the
dialect, the error statuses, the rename targets, and the bytes read and written per file name.
smbflow's JSON records of the same capture are summed per connection and compared, and the
dialect and the server's signing requirement must be on every SMB2 record of the connection.
Counters do not depend on how a connection is split into records, so the comparison holds at
any number of queues. With --require-all, a run also fails when something it compares (a
counter, a security flag, the dialects, the rename targets, the files) was zero over all its
captures.

    tools/smbdiff/activity.py --smbflow build/smbflow [--plugin PATH] [--queues N]
        [--require-all] CAPTURE...

Exit status: 0 without differences, 1 with differences, 2 on bad usage or a failing tool, 77
when tshark or smbflow is missing.
"""

from __future__ import annotations

import argparse
import json
import shutil
import subprocess
import sys
from collections import Counter, defaultdict
from dataclasses import dataclass, field
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))

import model  # noqa: E402
import smbdiff  # noqa: E402
import wire  # noqa: E402
from wire import (CANCEL, CREATE, NEGOTIATE, READ, SESSION_SETUP, SET_INFO,  # noqa: E402
                  STATUS_PENDING, WRITE, Pdu, Smb2Message)

STATUS_MORE_PROCESSING_REQUIRED = 0xC0000016
WILDCARD_DIALECT = 0x02FF
RELATED_FID = 0xFFFFFFFFFFFFFFFF  # a related chain's "the file the chain opened"

SUMMED = ("smb_bytes_read", "smb_bytes_written", "smb_reads", "smb_writes", "smb_errors",
          "smb_renames", "smb_deletes", "smb_latency_count", "smb_latency_sum_us")
COUNTERS = SUMMED + ("smb_latency_max_us", "smb_security")

# What tshark shows that the counters do not count, and why. Each is counted when it applies.
RULES = {
    "interim": "an interim response (async, STATUS_PENDING) counts for nothing: the final "
               "response carries the status, the data length and the end of the latency",
    "buffer-overflow": "a READ answered with STATUS_BUFFER_OVERFLOW (named pipes) is a partial "
                       "read, neither a read nor an error (its severity is a warning)",
    "more-processing": "STATUS_MORE_PROCESSING_REQUIRED is a step of the authentication "
                       "exchange, not an error",
    "untimed": "a final response whose request is not in the capture (or was not parsed) has "
               "no latency",
    "cancel": "a CANCEL has no response of its own; the request it cancels keeps its own time",
    "wildcard": "the 0x02FF dialect of a multi-protocol NEGOTIATE response is not a dialect",
    "mid-segment": "a session message that begins inside a TCP segment, behind the end of "
                   "another, is not parsed by the plug-in: it counts for nothing",
    "large-compound": "a compound message over 8192 bytes is parsed by its first message only",
    "buffered-compound": "a compound message over several segments is parsed when its last "
                         "segment arrives: its messages are timed from that segment",
    "last-rename": "a record keeps the target of its last rename only: of several renames of "
                   "one open file, the last target is the one to expect",
    "unnamed-file": "bytes read or written on an open that gives no file name (its CREATE "
                    "response was not taken, or the open was not seen) are in the totals but "
                    "in no file's row",
    "smb1-only": "the activity fields exist on SMB2 records only: a connection of SMB1 alone "
                 "shows none, not even its SMB1 flag",
    "encrypted": "an encrypted message shows the transform flag only; what it carries is "
                 "not visible",
}


def us(t: float) -> int:
    """Capture time in whole microseconds (pcap keeps microseconds; the float is exact to
    well under half of one)."""
    return round(t * 1_000_000)


@dataclass
class Conn:
    """What one connection should add up to."""
    counts: Counter = field(default_factory=Counter)
    latency_max: int = 0
    security: int = 0
    dialect: int = 0
    smb2: bool = False  # an SMB2 or SMB3 message was parsed (the connection has SMB2 records)
    errors: list[int] = field(default_factory=list)
    renames: dict = field(default_factory=dict)  # file id -> last target (rendered)
    files: dict = field(default_factory=lambda: defaultdict(lambda: [0, 0]))  # name -> r, w

    def totals(self) -> dict:
        t = {k: self.counts[k] for k in SUMMED}
        t["smb_latency_max_us"] = self.latency_max
        t["smb_security"] = self.security
        return t


class NamedOpens(model.Parser):
    """The model's parser, noting which opens give their file's record a name (the CREATE
    response taken, the request's name known), so that per-file bytes compare like for like."""

    def __init__(self, *a, **kw) -> None:
        super().__init__(*a, **kw)
        self.named: dict[tuple, str] = {}  # (client addr word, port, file id) -> name

    def create_success(self, pkt, rec, m, key, body) -> int:
        result = super().create_success(pkt, rec, m, key, body)
        e = self.t.file.get(key + (rec.file_id,)) if result == 0 else None
        if e is not None and not model.empty(e.name) and e.name_empty == 0:
            self.named[key + (rec.file_id,)] = model.render(e.name)
        return result


def named_opens(cap: wire.Capture, port: int, create_min: int, sizes: dict) -> dict:
    m = model.Model(port=port, create_response_min=create_min, sizes=sizes)
    m.parser = NamedOpens(port, create_min, sizes)
    m.run(cap)
    named = m.parser.named
    # A record takes its file's name from the file table when it is exported: an open whose
    # table entry another key took over in between (with one queue, a busy capture's message
    # or file table slots are shared) leaves a record without a name, and its bytes count in
    # the totals only, like an unnamed open's.
    for flow in sorted(m.flows.values(), key=lambda f: f.order):
        m.postprocess(flow)
        r = flow.record
        if r is None or r.version != 2 or not r.file_id or r.file_name is not None:
            continue
        first = flow.first
        if r.is_response:
            client = (model.addr32(first.dst), first.dport)
        else:
            client = (model.addr32(first.src), first.sport)
        named.pop(client + (r.file_id,), None)
    return named


def parsed_pdus(cap: wire.Capture, port: int, rules: Counter):
    """(segment time, pdu, messages) for every session message the plug-in parses, in the
    order it parses them."""
    by_number = {s.number: s for s in cap.segments}
    out = []
    for pdu in cap.pdus:
        if not pdu.at_segment_start:
            rules["mid-segment"] += 1
            continue
        seg = by_number.get(pdu.first_frame)
        if seg is None or seg.starts is not pdu or seg.payload_len < 8 or \
                port not in (seg.sport, seg.dport):
            continue
        msgs, when = pdu.messages, seg
        total = pdu.length + 4
        if len(msgs) > 1 and total > model.MAX_BUFFERED and seg.payload_len < total:
            rules["large-compound"] += 1
            msgs = msgs[:1]
        elif len(msgs) > 1 and seg.payload_len < total:
            rules["buffered-compound"] += 1
            when = by_number.get(pdu.last_frame, seg)
        out.append((when.number, when, pdu, msgs))
    out.sort(key=lambda x: x[0])
    return [(when, pdu, msgs) for _, when, pdu, msgs in out]


def expected(cap: wire.Capture, port: int, named: dict, rules: Counter) -> dict:
    """Per connection (client address, client port): what its records should add up to."""
    conns: dict[tuple, Conn] = defaultdict(Conn)
    pending: dict[tuple, tuple] = {}  # (client, port, message id) -> (time us, request)
    for seg, pdu, msgs in parsed_pdus(cap, port, rules):
        to_server = seg.dport == port
        client = (seg.src, seg.sport) if to_server else (seg.dst, seg.dport)
        c = conns[client]
        if pdu.kind == "smb1":
            c.security |= 0x10
            continue
        c.smb2 = True
        if pdu.kind == "transform":
            c.security |= 0x04
            rules["encrypted"] += 1
            continue
        chain_fid = None
        for m in msgs:
            if not m.is_response:
                if m.command == CANCEL:
                    rules["cancel"] += 1
                    continue
                c.security |= 0x02 if m.flags & wire.FLAG_SIGNED else 0
                pending[client + (m.message_id,)] = (us(seg.time), m)
                continue
            if m.is_async and m.status == STATUS_PENDING:
                rules["interim"] += 1
                continue
            c.security |= 0x02 if m.flags & wire.FLAG_SIGNED else 0
            t0, req = pending.pop(client + (m.message_id,), (None, None))
            if t0 is None:
                rules["untimed"] += 1
            else:
                lat = us(seg.time) - t0
                c.counts["smb_latency_count"] += 1
                c.counts["smb_latency_sum_us"] += lat
                c.latency_max = max(c.latency_max, lat)
            if m.command == CREATE and m.status == 0:
                chain_fid = m.file_id
            count_response(c, m, req, chain_fid, client, named, rules)
    return conns


def count_response(c: Conn, m: Smb2Message, req: Smb2Message | None, chain_fid, client,
                   named: dict, rules: Counter) -> None:
    status = m.status
    if status >> 30 == 3:
        if status == STATUS_MORE_PROCESSING_REQUIRED:
            rules["more-processing"] += 1
        else:
            c.counts["smb_errors"] += 1
            c.errors.append(status)
    if m.command == NEGOTIATE:
        if m.dialect == WILDCARD_DIALECT:
            rules["wildcard"] += 1
        elif m.dialect:
            c.dialect = m.dialect
        if (m.security_mode or 0) & 0x02:
            c.security |= 0x01
    elif m.command == SESSION_SETUP and (m.session_flags or 0) & 0x03:
        c.security |= 0x08
    if status == 0x80000005 and m.command == READ:
        rules["buffer-overflow"] += 1
    if status != 0:
        return
    fid = req.file_id if req is not None else None
    if fid == RELATED_FID:
        fid = chain_fid
    name = named.get((model.addr32(client[0]), client[1], fid)) if fid is not None else None
    if m.command == READ:
        c.counts["smb_reads"] += 1
        c.counts["smb_bytes_read"] += m.data_length or 0
        file_bytes(c, name, 0, m.data_length or 0, rules)
    elif m.command == WRITE:
        c.counts["smb_writes"] += 1
        c.counts["smb_bytes_written"] += m.write_count or 0
        file_bytes(c, name, 1, m.write_count or 0, rules)
    elif m.command == SET_INFO and req is not None and req.info_type == 1:
        if req.info_class == 10:
            c.counts["smb_renames"] += 1
            if fid in c.renames:
                rules["last-rename"] += 1
            c.renames[fid] = model.render(model.capture_tail(req.rename_to or b""))
        elif (req.info_class == 13 and req.delete_pending) or (
                req.info_class == 64 and (req.info_flags or 0) & 0x1):
            c.counts["smb_deletes"] += 1


def file_bytes(c: Conn, name: str | None, which: int, n: int, rules: Counter) -> None:
    if name is None:
        rules["unnamed-file"] += 1
    else:
        c.files[name][which] += n


# -- smbflow's side ----------------------------------------------------------------------------


@dataclass
class Written:
    totals: Counter = field(default_factory=Counter)
    dialects: set = field(default_factory=set)
    last_errors: set = field(default_factory=set)
    renames: set = field(default_factory=set)
    files: dict = field(default_factory=lambda: defaultdict(lambda: [0, 0]))
    records: int = 0
    smb2_records: int = 0  # records with an SMB2 command word
    without_dialect: int = 0  # of those, the ones that show no dialect
    without_signing_required: int = 0  # of those, the ones without SMB_SECURITY bit 0


def parse_status(v) -> int:
    return int(str(v), 16) if v not in (None, "") else 0


DIALECT_TEXT = {"2.0.2": 0x0202, "2.1": 0x0210, "3.0": 0x0300, "3.0.2": 0x0302, "3.1.1": 0x0311}


def is_smb2_record(r: dict) -> bool:
    """Whether a record carries SMB2 messages: an SMB2 command word ends in 0xff and has a
    command bit (0xff alone is the word's default, no command)."""
    words = (smbdiff._num(r.get(k), None) for k in ("smb_cmd_request", "smb_cmd_response"))
    return any(w is not None and w & 0xFF == 0xFF and w > 0xFF for w in words)


def read_written(lines, port: int) -> dict[tuple, Written]:
    out: dict[tuple, Written] = defaultdict(Written)
    for line in lines:
        if not line.strip():
            continue
        r = json.loads(line)
        if int(r["src_port"]) == port and int(r["dst_port"]) != port:
            client = (r["dst_addr"], int(r["dst_port"]))
        else:
            client = (r["src_addr"], int(r["src_port"]))
        w = out[client]
        w.records += 1
        missing = [k for k in COUNTERS if k not in r]
        if missing:
            raise ValueError(f"smbflow's JSON has no {', '.join(missing)}: is activity=1 set "
                             "and does this build have the activity fields?")
        for k in SUMMED:
            w.totals[k] += smbdiff._num(r.get(k), 0)
        w.totals["smb_latency_max_us"] = max(w.totals["smb_latency_max_us"],
                                             smbdiff._num(r.get("smb_latency_max_us"), 0))
        w.totals["smb_security"] |= smbdiff._num(r.get("smb_security"), 0)
        d = r.get("smb_dialect")
        if d:
            w.dialects.add(DIALECT_TEXT.get(d) or int(d, 16))
        if is_smb2_record(r):
            w.smb2_records += 1
            w.without_dialect += 0 if d else 1
            w.without_signing_required += 0 if smbdiff._num(r.get("smb_security"), 0) & 1 else 1
        if smbdiff._num(r.get("smb_errors"), 0):
            w.last_errors.add(parse_status(r.get("smb_last_error")))
        if r.get("smb_rename_to"):
            w.renames.add(r["smb_rename_to"])
        name = r.get("smb_file_name")
        if name is not None:
            w.files[name][0] += smbdiff._num(r.get("smb_bytes_read"), 0)
            w.files[name][1] += smbdiff._num(r.get("smb_bytes_written"), 0)
    return out


def compare(exp: dict[tuple, Conn], got: dict[tuple, Written], rules: Counter) -> list[str]:
    diffs = []
    for client in sorted(set(exp) | set(got), key=str):
        e, w = exp.get(client, Conn()), got.get(client, Written())
        where = f"{client[0]}:{client[1]}"
        et = e.totals()
        if not e.smb2 and et["smb_security"] == 0x10:
            rules["smb1-only"] += 1
            et["smb_security"] = 0
        for k in COUNTERS:
            if et[k] != w.totals[k]:
                diffs.append(f"{where} {k.upper()}: tshark {et[k]}, smbflow {w.totals[k]}")
        want_d = {e.dialect} if e.dialect else set()
        if want_d != w.dialects:
            diffs.append(f"{where} SMB_DIALECT: tshark {sorted(map(hex, want_d))}, smbflow "
                         f"{sorted(map(hex, w.dialects))}")
        # The dialect and the server's signing requirement belong to the connection: every SMB2
        # record of it shows them.
        if e.dialect and w.without_dialect:
            diffs.append(f"{where} SMB_DIALECT: {w.without_dialect} of {w.smb2_records} SMB2 "
                         "records without the connection's dialect")
        if et["smb_security"] & 1 and w.without_signing_required:
            diffs.append(f"{where} SMB_SECURITY: {w.without_signing_required} of "
                         f"{w.smb2_records} SMB2 records without the server's signing "
                         "requirement (bit 0)")
        stray = w.last_errors - set(e.errors)
        if stray:
            diffs.append(f"{where} SMB_LAST_ERROR: smbflow shows "
                         f"{', '.join(f'{s:#010x}' for s in sorted(stray))}, not an error "
                         "status tshark shows")
        if e.errors and e.errors[-1] not in w.last_errors:
            diffs.append(f"{where} SMB_LAST_ERROR: the connection's last error "
                         f"{e.errors[-1]:#010x} is on no record")
        want_r = set(e.renames.values())
        if want_r != w.renames:
            diffs.append(f"{where} SMB_RENAME_TO: tshark {sorted(want_r)}, smbflow "
                         f"{sorted(w.renames)}")
        for name in sorted(set(e.files) | {n for n, v in w.files.items() if any(v)}):
            if e.files.get(name, [0, 0]) != w.files.get(name, [0, 0]):
                diffs.append(f"{where} file {name!r} bytes read/written: tshark "
                             f"{e.files.get(name, [0, 0])}, smbflow {w.files.get(name, [0, 0])}")
    return diffs


def with_activity(params: str | None) -> str:
    items = [i for i in (params or "").split(",") if i.strip() and
             i.strip().partition("=")[0] != "activity"]
    return ",".join(items + ["activity=1"])


@dataclass
class Run:
    """One smbflow run: its plug-in parameters and queues."""
    params: str
    queues: int
    port: int = 445
    sizes: dict = field(default_factory=dict)
    create_min: int = model.CREATE_RESPONSE_MIN

    def __post_init__(self) -> None:
        self.params = with_activity(self.params)
        self.port, self.sizes, self.create_min = smbdiff.plugin_settings(self.params)

    def name(self) -> str:
        return f"--params {self.params}, {self.queues} queue(s)"


def check_capture(cap: wire.Capture, path: str, run: Run, args):
    sizes, params = run.sizes, run.params
    if run.queues > 1:  # as the record check: no table slot shared across queues
        sizes, _, _ = smbdiff.sizes_without_shared_slots(cap, run, run.sizes)
        params = smbdiff.with_sizes(run.params, sizes)
    rules = Counter()
    named = named_opens(cap, run.port, run.create_min, sizes)
    exp = expected(cap, run.port, named, rules)
    lines = smbdiff.run_smbflow(args.smbflow, args.plugin, path, params, run.queues,
                                smbdiff.covering_timeouts(cap))
    got = read_written(lines, run.port)
    diffs = compare(exp, got, rules)
    totals = Counter()
    for c in exp.values():
        for k, v in c.totals().items():
            if k == "smb_latency_max_us":
                totals[k] = max(totals[k], v)
            elif k != "smb_security":
                totals[k] += v
    info = Counter(connections=len(exp), records=sum(w.records for w in got.values()),
                   files=sum(len(c.files) for c in exp.values()),
                   dialects=len({c.dialect for c in exp.values() if c.dialect}),
                   rename_targets=sum(len(set(c.renames.values())) for c in exp.values()))
    # Connections by SMB_SECURITY bit, so that a run shows which of the flags it compared.
    for bit, key in SECURITY_BITS:
        info[key] = sum(1 for c in exp.values() if c.security & bit)
    return totals, info, diffs, rules


def command_line(name: str, description: str, argv):
    """The command line shared by the checks that run smbflow with activity=1: the arguments
    and the runs (parameters x queues), or the exit status when they cannot go on."""
    ap = argparse.ArgumentParser(description=description)
    ap.add_argument("captures", nargs="+")
    ap.add_argument("--smbflow")
    ap.add_argument("--plugin")
    ap.add_argument("--params", action="append",
                    help="plug-in parameters (activity=1 is added); repeat for several runs")
    ap.add_argument("--tshark", default="tshark")
    ap.add_argument("--queues", default="1",
                    help="smbflow's queues, or a comma-separated list: one run each")
    ap.add_argument("--require-all", action="store_true",
                    help="fail when something the check compares is zero over all the captures "
                         "of a run: it was not compared at all")
    args = ap.parse_args(argv)
    try:
        runs = [Run(p, int(q)) for p in args.params or [""] for q in args.queues.split(",")]
    except ValueError:
        print(f"{name}: cannot read {args.params!r} / {args.queues!r}", file=sys.stderr)
        return args, None, 2
    if shutil.which(args.tshark) is None:
        print(f"{name}: SKIP: {args.tshark} is not installed", file=sys.stderr)
        return args, None, smbdiff.SKIP
    args.smbflow = smbdiff.find_smbflow(args.smbflow)
    if args.smbflow is None:
        print(f"{name}: SKIP: smbflow not found", file=sys.stderr)
        return args, None, smbdiff.SKIP
    return args, runs, 0


def main(argv=None) -> int:
    args, runs, status = command_line("activity", __doc__.split("\n\n")[0], argv)
    if runs is None:
        return status
    sums = {i: (Counter(), Counter(), Counter(), [0]) for i in range(len(runs))}
    for path in args.captures:
        try:
            cap = wire.read_capture(path, args.tshark, runs[0].port)
            for i, run in enumerate(runs):
                totals, info, diffs, rules = check_capture(cap, path, run, args)
                print(f"{Path(path).name} ({run.name()}): {describe(info, totals)}; "
                      f"{len(diffs)} differences")
                for d in diffs:
                    print(f"  DIFFERENCE {d}")
                all_totals, all_info, all_rules, ndiff = sums[i]
                ndiff[0] += len(diffs)
                all_info.update(info)
                all_rules.update(rules)
                for k, v in totals.items():
                    all_totals[k] = max(all_totals[k], v) if k == "smb_latency_max_us" else \
                        all_totals[k] + v
        except (RuntimeError, OSError, subprocess.TimeoutExpired, ValueError) as err:
            print(f"activity: {err}", file=sys.stderr)
            return 2
    failed = 0
    for i, run in enumerate(runs):
        all_totals, all_info, all_rules, ndiff = sums[i]
        print(f"activity total, {len(args.captures)} captures, {run.name()}: "
              f"{describe(all_info, all_totals)}; {ndiff[0]} differences")
        print("  rules applied: " + ", ".join(f"{k} {v}" for k, v in sorted(all_rules.items())))
        failed += ndiff[0]
        if args.require_all:
            failed += not_compared("activity", run, {**all_totals, **all_info}, COVERED)
    return 1 if failed else 0


def not_compared(name: str, run: Run, values, keys) -> int:
    """With --require-all: 1, and what was never compared, when one of `keys` is zero."""
    zero = [k.removeprefix("smb_") for k in keys if not values.get(k)]
    if zero:
        print(f"{name}: {run.name()}: nothing compared for {', '.join(zero)}")
    return 1 if zero else 0


SECURITY_BITS = ((0x01, "signing_required"), (0x02, "signed"), (0x04, "encrypted"),
                 (0x08, "guest"), (0x10, "smb1"))
# What --require-all wants to have been compared: every counter, the files whose bytes are
# compared, the dialects, the rename targets and each security flag.
COVERED = SUMMED + ("smb_latency_max_us", "files", "dialects", "rename_targets") + tuple(
    key for _, key in SECURITY_BITS)


def describe(info: Counter, totals: Counter) -> str:
    return (f"{info['connections']} connections, {info['records']} records, {info['files']} "
            f"files, {info['dialects']} dialects, {info['rename_targets']} rename targets; "
            + ", ".join(f"{k.removeprefix('smb_')} {totals[k]}" for k in SUMMED) +
            f", latency_max_us {totals['smb_latency_max_us']}; connections by security flag: "
            + ", ".join(f"{key} {info[key]}" for _, key in SECURITY_BITS))


if __name__ == "__main__":
    sys.exit(main())
