#!/usr/bin/env python3
"""Differential check: the flow records smbflow writes against what tshark dissects.

For each capture, tshark's dissection (share paths by tree id, file names by created file id,
create dispositions and actions, the directory attribute, commands by direction, deletes) is
turned into the flow records the plug-in should write under its reporting rules (model.py),
and these are compared, record by record, with what smbflow wrote for the same capture.

    tools/smbdiff/smbdiff.py --smbflow build/host/smbflow/smbflow [--plugin PATH] CAPTURE...

Prints, per capture and in total, the trees, files, operations and commands compared, the
records expected and written, the reporting rules that applied, and every difference. Exit
status: 0 when no difference is left unexplained, 1 when there are differences (smbflow writing
no SMB field at all where tshark sees SMB commands is one, and so is a run that compared no
command), 2 on bad usage or a tool that fails, 77 when tshark or smbflow is missing.
"""

from __future__ import annotations

import argparse
import json
import math
import os
import shutil
import subprocess
import sys
from collections import Counter, defaultdict
from dataclasses import dataclass
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))

import model  # noqa: E402
import volume  # noqa: E402
import wire  # noqa: E402

SKIP = 77


@dataclass
class Written:
    """One flow record as smbflow wrote it: the connection and the six fields."""
    client: str
    client_port: int
    cmd_request: int
    cmd_response: int
    tree: str | None
    file_name: str | None
    file_type: int
    op: int
    packets: int

    def fields(self) -> tuple:
        return (self.cmd_request, self.cmd_response, self.tree, self.file_name, self.file_type,
                self.op)


def _num(v, default: int) -> int:
    if v is None or v == "":
        return default
    if isinstance(v, (int, float)):
        return int(v)
    return int(str(v), 0)


def read_records(lines, port: int) -> list[Written]:
    """smbflow's JSON Lines output."""
    out = []
    for line in lines:
        line = line.strip()
        if not line:
            continue
        r = json.loads(line)
        sport, dport = int(r["src_port"]), int(r["dst_port"])
        if sport == port and dport != port:
            client, cport = r["dst_addr"], dport
        else:
            client, cport = r["src_addr"], sport
        out.append(Written(
            client=client, client_port=cport,
            cmd_request=_num(r.get("smb_cmd_request"), model.CMD_INVALID),
            cmd_response=_num(r.get("smb_cmd_response"), model.CMD_INVALID),
            tree=r.get("smb_tree"), file_name=r.get("smb_file_name"),
            file_type=_num(r.get("smb_file_type_code"), model.TYPE_INVALID),
            op=_num(r.get("smb_op_code"), model.OP_INVALID),
            packets=_num(r.get("packets"), 0) + _num(r.get("rev_packets"), 0)))
    return out


def expected_fields(e: model.Expected) -> tuple:
    """The values the host writes: a command field without a value gets its default."""
    req = model.CMD_INVALID if e.cmd_request is None else e.cmd_request
    resp = model.CMD_INVALID if e.cmd_response is None else e.cmd_response
    return (req, resp, e.tree, e.file_name, e.file_type, e.op)


DEFAULTS = (model.CMD_INVALID, model.CMD_INVALID, None, None, model.TYPE_INVALID,
            model.OP_INVALID)
FIELD_NAMES = ("SMB_CMD_REQUEST", "SMB_CMD_RESPONSE", "SMB_TREE", "SMB_FILE_NAME",
               "SMB_FILE_TYPE", "SMB_OP")


def show(i: int, v) -> str:
    if v is None:
        return "(none)"
    if i < 2:
        return f"{v:#010x}"
    if i in (4, 5):
        return f"{v:#04x}"
    return repr(v)


@dataclass
class Difference:
    connection: str
    label: str
    text: str


def compare(expected: list[model.Expected], written: list[Written]) -> list[Difference]:
    """Matches records per connection on their six fields; what is left over is paired by
    likeness and reported field by field."""
    exp_by, got_by = defaultdict(list), defaultdict(list)
    for e in expected:
        exp_by[(e.client, e.client_port)].append(e)
    for w in written:
        got_by[(w.client, w.client_port)].append(w)
    diffs = []
    for conn in sorted(set(exp_by) | set(got_by), key=str):
        cname = f"{conn[0]}:{conn[1]}"
        left = list(exp_by.get(conn, []))
        got = Counter(w.fields() for w in got_by.get(conn, []))
        unmatched = []
        for e in left:
            f = expected_fields(e)
            if got[f] > 0:
                got[f] -= 1
            else:
                unmatched.append(e)
        extra = [f for f, n in got.items() for _ in range(n)]
        for e in unmatched:
            f = expected_fields(e)
            best, score = None, -1
            for g in extra:
                s = sum(2 if i in (2, 3) else 1 for i in range(6) if f[i] == g[i])
                if s > score:
                    best, score = g, s
            if best is not None and score >= 3:
                extra.remove(best)
                parts = [f"{FIELD_NAMES[i]} expected {show(i, f[i])}, written {show(i, best[i])}"
                         for i in range(6) if f[i] != best[i]]
                diffs.append(Difference(cname, e.label, "; ".join(parts)))
            else:
                diffs.append(Difference(cname, e.label, "no such record written: " + ", ".join(
                    f"{FIELD_NAMES[i]}={show(i, f[i])}" for i in range(6))))
        for g in extra:
            diffs.append(Difference(cname, "unexpected record", ", ".join(
                f"{FIELD_NAMES[i]}={show(i, g[i])}" for i in range(6))))
    return diffs


def run_smbflow(smbflow: str, plugin: str | None, capture: str, params: str | None,
                queues: int = 1, timeouts: tuple[float, float] | None = None) -> list[str]:
    argv = [smbflow, "--format", "json", "--queues", str(queues), "--no-progress", "--quiet"]
    if timeouts:
        argv += ["--inactive-timeout", str(timeouts[0]), "--active-timeout", str(timeouts[1])]
    if plugin:
        argv += ["--plugin", plugin]
    if params:
        argv += ["--params", params]
    argv.append(capture)
    proc = subprocess.run(argv, capture_output=True, text=True, timeout=600)
    if proc.returncode != 0:
        raise RuntimeError(f"smbflow failed ({proc.returncode}) on {capture}: "
                           f"{proc.stderr.strip()}")
    return proc.stdout.splitlines()


def find_smbflow(given: str | None) -> str | None:
    if given:
        return given if os.access(given, os.X_OK) else None
    env = os.environ.get("SMBFLOW")
    if env and os.access(env, os.X_OK):
        return env
    root = Path(__file__).resolve().parents[2]
    for rel in ("build/host/smbflow/smbflow", "build/smbflow", "build/host/smbflow"):
        p = root / rel
        if p.is_file() and os.access(p, os.X_OK):
            return str(p)
    return shutil.which("smbflow")


@dataclass
class KnownBug:
    """A difference that is a bug of the plug-in or the host, not a reporting rule: the model
    switch that reproduces it, and the note that describes a failing case."""
    name: str
    what: str
    note: str
    switch: dict


# Differences that are bugs of the plug-in or the host rather than reporting rules, each with
# the model switch that reproduces it and a note on a failing case. None is open.
KNOWN_BUGS: list[KnownBug] = []


@dataclass
class Result:
    counts: Counter
    differences: list[Difference]  # against the reporting rules, known bugs included
    unexplained: list[Difference]  # left over when the known bugs are reproduced
    by_bug: Counter
    rules: Counter
    sharing: tuple | None = None  # multi-queue runs: (sharings before, after, sizes grown)
    timeouts: tuple | None = None  # (inactive, active) seconds when widened to cover the capture


def plugin_settings(params: str | None) -> tuple[int, dict, int]:
    """The port, table sizes and CREATE response minimum that a parameter string sets."""
    port, sizes, create_min = 445, {}, model.CREATE_RESPONSE_MIN
    for item in (params or "").split(","):
        key, _, value = item.strip().partition("=")
        if key == "wire-counts" and value:
            int(value, 0)  # read by wire_counts_asked()
        elif key == "port" and value:
            port = int(value, 0)
        elif key in model.DEFAULT_SIZES and value:
            sizes[key] = int(value, 0)
        elif key == "short-create" and value:
            create_min = model.CREATE_RESPONSE_MIN - (int(value, 0) != 0)
    return port, sizes, create_min


def wire_counts_asked(params: str | None) -> bool:
    """The run asks the plug-in to keep the wire's counters (volume accounting)."""
    for item in (params or "").split(","):
        key, _, value = item.strip().partition("=")
        if key == "wire-counts" and value and int(value, 0) != 0:
            return True
    return False


# Growth factor and ceiling (slots) when tables are enlarged for a run with several queues.
GROWTH = 4
MAX_SLOTS = 1 << 24


def sizes_without_shared_slots(cap, args, sizes: dict) -> tuple[dict, dict, dict]:
    """Table sizes at which no slot is shared by keys of two connections.

    With one queue the model follows slot collisions exactly, in capture order. With several
    queues two connections may run on different queues, and which of them writes a shared
    slot of the tree, file or data table last is up to the threads; each queue's message
    tables are its own, so the model's single pair would predict collisions that never
    happen. Rather than accept every interleaving, the run gets tables large enough that no
    slot is shared: returns (sizes, sharings at the given sizes, sharings at the new sizes)."""
    sizes = dict(sizes)
    first = None
    while True:
        m = model.Model(port=args.port, create_response_min=args.create_min, sizes=sizes)
        m.run(cap)
        shared = m.parser.t.shared_slots()
        first = first or shared
        grown = False
        for name, n in shared.items():
            slots = model.slot_count(sizes.get(name, model.DEFAULT_SIZES[name]))
            if n and slots < MAX_SLOTS:
                sizes[name] = slots * GROWTH
                grown = True
        if not grown:
            return sizes, first, shared


def with_sizes(params: str | None, sizes: dict) -> str | None:
    """The parameter string with the table sizes replaced or added."""
    items = [i for i in (params or "").split(",")
             if i.strip() and i.strip().partition("=")[0] not in sizes]
    items += [f"{k}={v}" for k, v in sorted(sizes.items())]
    return ",".join(items) or None


def covering_timeouts(cap) -> tuple[float, float] | None:
    """Flow timeouts that outlast the capture, when smbflow's defaults would not.

    A pause longer than the inactive timeout (or a connection longer than the active one)
    splits a flow record in time; the records it gives depend on where the host's timers
    fall, which the model does not follow. The check runs smbflow with timeouts longer than
    the whole capture instead, so that every record is split by its identifiers only."""
    times = [s.time for s in cap.segments]
    span = max(times) - min(times) if times else 0.0
    if span < model.INACTIVE_TIMEOUT:
        return None
    t = float(math.ceil(span) + 1)
    return (t, max(t, model.ACTIVE_TIMEOUT))


def check_capture(path: str, args) -> Result:
    cap = wire.read_capture(path, args.tshark, args.port)
    timeouts = covering_timeouts(cap)
    sizes, params, sharing = args.sizes, args.params, None
    if args.queues > 1:
        sizes, before, after = sizes_without_shared_slots(cap, args, args.sizes)
        if sizes != args.sizes:
            params = with_sizes(args.params, sizes)
        sharing = (before, after, {k: v for k, v in sizes.items() if args.sizes.get(k) != v})
    settings = {"port": args.port, "sizes": sizes, "create_response_min": args.create_min}
    if timeouts:
        settings["timeouts"] = timeouts
    intended = model.Model(**settings)
    expected = intended.run(cap)
    # Several runs of a multi-queue smbflow meet different thread schedules; every run must
    # match, and the differences of the first run that does not are the ones reported.
    wire_counts = volume.wire_totals(path, args.tshark) if args.wire_counts else None
    for _ in range(args.repeat):
        lines = run_smbflow(args.smbflow, args.plugin, path, params, args.queues, timeouts)
        written = read_records(lines, args.port)
        diffs = compare(expected, written)
        if wire_counts is not None:
            # Counters that are the wire's are a property of the run, not of the model: a
            # connection whose totals differ is a difference no known bug explains.
            diffs += [Difference(c, "volume", t)
                      for c, t in volume.differences(wire_counts, volume.record_totals(lines))]
        if diffs:
            break
    unexplained, by_bug = diffs, Counter()
    if diffs:
        switches = {k: v for bug in KNOWN_BUGS for k, v in bug.switch.items()}
        unexplained = compare(model.Model(**settings, **switches).run(cap), written)
        for bug in KNOWN_BUGS:
            alone = compare(model.Model(**settings, **bug.switch).run(cap), written)
            if len(alone) < len(diffs):
                by_bug[bug.name] = len(diffs) - len(alone)
    counts = Counter(intended.parser.checked)
    counts["records expected"] = len(expected)
    counts["records written"] = len(written)
    counts["records with SMB fields"] = sum(1 for w in written if w.fields() != DEFAULTS)
    if wire_counts is not None:
        counts["connections' volume checked"] = len(wire_counts)
        unexplained += [d for d in diffs if d.label == "volume" and d not in unexplained]
    counts["differences"] = len(diffs)
    counts["unexplained"] = len(unexplained)
    if timeouts:
        counts["timeouts widened"] = 1
    if sharing:
        counts["cross-queue slot sharings"] = sum(sharing[0].values())
        counts["slot sharings left"] = sum(sharing[1].values())
    return Result(counts, diffs, unexplained, by_bug, intended.parser.rules, sharing, timeouts)


def main(argv=None) -> int:
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("captures", nargs="+", help="pcap or pcapng files")
    ap.add_argument("--smbflow", help="smbflow program (default: build/smbflow, $SMBFLOW, or "
                                      "smbflow on PATH)")
    ap.add_argument("--plugin", help="plug-in library handed to smbflow")
    ap.add_argument("--params", help="plug-in parameters handed to smbflow")
    ap.add_argument("--tshark", default="tshark")
    ap.add_argument("--queues", type=int, default=1,
                    help="smbflow's processing queues (a connection stays in one, so the "
                         "records do not depend on it)")
    ap.add_argument("--repeat", type=int, default=1, metavar="N",
                    help="run smbflow N times on each capture; every run must match")
    ap.add_argument("--strict", action="store_true",
                    help="count differences that known bugs explain as failures too")
    ap.add_argument("--verbose", action="store_true",
                    help="list the differences that known bugs explain, and every rule")
    args = ap.parse_args(argv)
    try:
        args.port, args.sizes, args.create_min = plugin_settings(args.params)
        args.wire_counts = wire_counts_asked(args.params)
    except ValueError:
        print(f"smbdiff: cannot read the plug-in parameters {args.params!r}", file=sys.stderr)
        return 2
    if shutil.which(args.tshark) is None:
        print(f"smbdiff: SKIP: {args.tshark} is not installed", file=sys.stderr)
        return SKIP
    args.smbflow = find_smbflow(args.smbflow)
    if args.smbflow is None:
        print("smbdiff: SKIP: smbflow not found (build it, or name it with --smbflow)",
              file=sys.stderr)
        return SKIP
    total, rules, bugs = Counter(), Counter(), Counter()
    results = []
    for path in args.captures:
        try:
            results.append((path, check_capture(path, args)))
        except (RuntimeError, OSError, subprocess.TimeoutExpired, ValueError) as err:
            print(f"smbdiff: {err}", file=sys.stderr)
            return 2
    # A check that compared nothing has not passed: either tshark found no SMB on the port, or
    # the plug-in saw none of what tshark did (another port, hooks not called).
    commands = sum(r.counts["commands"] for _, r in results)
    if not commands:
        print(f"smbdiff: DIFFERENCE: tshark saw no SMB command on port {args.port} in these "
              f"captures: nothing was compared", file=sys.stderr)
        return 1
    if all(r.counts["records with SMB fields"] == 0 for _, r in results):
        print(f"smbdiff: DIFFERENCE: smbflow wrote no SMB field at all while tshark saw {commands} "
              f"SMB commands: the plug-in saw none of the traffic", file=sys.stderr)
        return 1
    for path, res in results:
        total.update(res.counts)
        rules.update(res.rules)
        bugs.update(res.by_bug)
        print(f"{Path(path).name}: {summary(res.counts)}")
        if res.sharing:
            print("  " + sharing_note(res.sharing, args.queues))
        if res.timeouts:
            print(f"  rule: the capture outlasts smbflow's inactive timeout; run with "
                  f"--inactive-timeout {res.timeouts[0]:g} --active-timeout {res.timeouts[1]:g} "
                  f"so that no record is split in time")
        shown = res.differences if args.strict or args.verbose else res.unexplained
        for d in shown:
            print(f"  DIFFERENCE {d.connection} {d.label}: {d.text}")
        for name, n in sorted(res.by_bug.items()):
            print(f"  known bug {name}: {n} of the differences")
    print(f"total: {summary(total)}")
    if args.queues > 1:
        print(f"cross-queue slot sharings: {total['cross-queue slot sharings']} at the given "
              f"sizes, {total['slot sharings left']} after enlarging the tables")
    for bug in KNOWN_BUGS:
        if bugs[bug.name]:
            print(f"known bug {bug.name} ({bugs[bug.name]} differences): {bug.what}; see "
                  f"{bug.note}")
        else:
            print(f"known bug {bug.name} was not seen in these captures: fixed? Then take it "
                  f"off the list in {Path(__file__).name}")
    print("reporting rules applied: " + ", ".join(f"{k} {v}" for k, v in sorted(rules.items())))
    if rules["unmodelled"]:
        print("the model did not follow everything: differences may be the model's")
    if args.verbose:
        for k in sorted(rules):
            print(f"  {k}: {model.RULES.get(k, '')}")
    failing = total["differences"] if args.strict else total["unexplained"]
    return 1 if failing else 0


def sharing_note(sharing: tuple, queues: int) -> str:
    before, after, grown = sharing
    n = sum(before.values())
    where = ", ".join(f"{k.removesuffix('-size')} {v}" for k, v in before.items() if v)
    if not n:
        return f"{queues} queues: no table slot shared by two connections at the given sizes"
    text = (f"{queues} queues: {n} table slots shared by two connections at the given sizes "
            f"({where}); rule: tables enlarged so that no slot is shared across queues ("
            + ", ".join(f"{k}={v}" for k, v in sorted(grown.items())) + ")")
    if sum(after.values()):
        text += f"; {sum(after.values())} still shared at the largest size: may differ by thread order"
    return text


VOLUME = "connections' volume checked"


def summary(c: Counter) -> str:
    return (f"{c['trees']} trees, {c['files']} files, {c['operations']} operations, "
            f"{c['commands']} commands checked; {c['records expected']} records expected, "
            f"{c['records written']} written; "
            + (f"{c[VOLUME]} connections' packets and bytes checked against the wire; "
               if c[VOLUME] else "")
            + f"{c['differences']} differences "
            f"({c['differences'] - c['unexplained']} from known bugs, {c['unexplained']} "
            f"unexplained)")


if __name__ == "__main__":
    sys.exit(main())
