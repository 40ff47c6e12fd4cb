#!/usr/bin/env python3
"""Differential check of the identity and remote-call fields (plug-in parameter activity=1)
against tshark.

From tshark's dissection it takes the NTLMSSP AUTHENTICATE messages of SESSION_SETUP requests
(ntlmssp.auth.username, .domain, .hostname) with their SessionId, the SessionId of every SMB2
message, and the DCE/RPC PDUs that pipe WRITE and FSCTL_PIPE_TRANSCEIVE requests carry
(dcerpc.cn_ctx_id, dcerpc.cn_bind_to_uuid, dcerpc.opnum). The record model of smbdiff says which
messages make up each flow record; per record it expects the user, domain and workstation of
the session of its last message that names one (from the AUTHENTICATE request on), and on a
pipe record of an IPC$ tree the interface of its last REQUEST (or last bound context), the
opnum mask and the number of calls. smbflow's JSON records are matched per connection on their
six fields and compared.

    tools/smbdiff/identity.py --smbflow build/smbflow [--plugin PATH] [--queues N] CAPTURE...

Exit status: 0 without differences, 1 with differences, 2 on bad usage or a failing tool, 77
when tshark or smbflow is missing.
"""

from __future__ import annotations

import json
import subprocess
import sys
from collections import Counter, defaultdict
from dataclasses import dataclass
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))

import activity  # noqa: E402
import model  # noqa: E402
import smbdiff  # noqa: E402
import wire  # noqa: E402
from wire import IOCTL, SESSION_SETUP, WRITE  # noqa: E402

FSCTL_PIPE_TRANSCEIVE = 0x0011C017
RELATED_SESSION = 0xFFFFFFFFFFFFFFFF
BIND, ALTER_CONTEXT, REQUEST = 11, 14, 0
FIRST_FRAGMENT = 0x01

RULES = {
    "anonymous": "an AUTHENTICATE without a user name is an anonymous logon: no names, although "
                 "tshark shows its workstation",
    "no-ntlmssp": "a SESSION_SETUP request without an NTLMSSP AUTHENTICATE (Kerberos, or a "
                  "first leg) names nobody",
    "cut-authenticate": "a SESSION_SETUP request longer than its first TCP segment is read from "
                        "that segment only (as every single message): its AUTHENTICATE names "
                        "nobody",
    "before-auth": "a record whose last session message came before its session's AUTHENTICATE "
                   "(the NEGOTIATE and first SESSION_SETUP legs) has no names",
    "name-head": "a name longer than 63 UTF-16 units keeps its first 63",
    "later-fragment": "a REQUEST that is not a call's first fragment is not a call",
    "unbound-context": "a REQUEST on a context whose BIND was not seen names no interface",
    "not-ipc": "PDUs on a file of a tree that is not IPC$ (or not known) are not remote calls",
}

# tshark's interface names where they are not the service's (compared case-insensitively).
TSHARK_SERVICES = {"rpc_netlogon": "netlogon", "epmv4": "epmapper",
                   "taskschedulerservice": "itaskschedulerservice"}

WHO_COLUMNS = ("smb_user", "smb_domain", "smb_workstation", "smb_rpc_interface",
               "smb_rpc_opnums", "smb_rpc_calls")


def name_text(raw: bytes, rules: Counter) -> str | None:
    if not raw:
        return None
    if len(raw) > 126:
        rules["name-head"] += 1
    return model.render(model.capture_head(raw[: len(raw) & ~1]))


class WhoParser(model.Parser):
    """The model's parser, noting per record its session and its remote calls, and keeping
    the session identities and pipe contexts as the plug-in's shared tables do."""

    def __init__(self, *a, **kw) -> None:
        super().__init__(*a, **kw)
        self.auths: dict[tuple, tuple] = {}  # (client, port, session) -> (time us, names)
        self.contexts: dict[tuple, str] = {}  # (client, port, file id, context) -> UUID
        self.who_rules: Counter = Counter()
        self.service_names: dict[str, str] = {}  # interface UUID -> tshark's name for it

    def note(self, pkt: model.Packet, rec: model.Record, m: wire.Smb2Message,
             available: int) -> None:
        when = activity.us(pkt.seg.time)
        if m.session_id not in (0, RELATED_SESSION):
            rec.session = (m.session_id, when)
        if m.is_response:
            return
        key = pkt.key(0)
        if m.command == SESSION_SETUP and m.session_id:
            if m.auth is not None and available < m.size:
                self.who_rules["cut-authenticate"] += 1
            elif m.auth is None:
                self.who_rules["no-ntlmssp"] += 1
            elif not m.auth[0]:
                self.who_rules["anonymous"] += 1
                self.auths[key + (m.session_id,)] = (when, None)
            else:
                self.auths[key + (m.session_id,)] = (
                    when, tuple(name_text(n, self.who_rules) for n in m.auth))
        elif m.command == WRITE or (m.command == IOCTL and m.ctl_code == FSCTL_PIPE_TRANSCEIVE):
            for pdu in m.rpc:
                self.pdu(rec, key + (m.file_id or 0,), pdu)

    def pdu(self, rec: model.Record, pipe: tuple, pdu: wire.DcerpcPdu) -> None:
        calls = rec.__dict__.setdefault("calls", {"calls": 0, "opnums": 0, "request": None,
                                                   "bound": None})
        if pdu.ptype in (BIND, ALTER_CONTEXT):
            for ctx, uuid, name in pdu.contexts:
                self.contexts[pipe + (ctx,)] = uuid
                calls["bound"] = uuid
                if name:
                    self.service_names[uuid] = TSHARK_SERVICES.get(name.lower(), name.lower())
        elif pdu.ptype == REQUEST and pdu.opnum is not None:
            if not pdu.flags & FIRST_FRAGMENT:
                self.who_rules["later-fragment"] += 1
                return
            calls["calls"] += 1
            calls["opnums"] |= 1 << min(pdu.opnum, 63)
            uuid = self.contexts.get(pipe + (pdu.context_id,))
            if uuid is None:
                self.who_rules["unbound-context"] += 1
            else:
                calls["request"] = uuid

    def parse_normal(self, pkt, rec, m, available):
        self.note(pkt, rec, m, available)
        return super().parse_normal(pkt, rec, m, available)

    def walk(self, pdu, available):
        for m, avail in super().walk(pdu, available):
            self.note(self.current_pkt, self.current_rec, m, avail)
            yield m, avail

    def packet(self, seg):
        # walk() gets no packet or record of its own: they are the ones being parsed.
        self.current_pkt, self.current_rec = None, None
        return super().packet(seg)

    def signature_branch(self, pkt, rec, pdu, n):
        self.current_pkt, self.current_rec = pkt, rec
        if pdu.kind == "transform" and pdu.session_id:
            rec.session = (pdu.session_id, activity.us(pkt.seg.time))
        return super().signature_branch(pkt, rec, pdu, n)

    def continuation(self, pkt, rec, seg, n):
        self.current_pkt, self.current_rec = pkt, rec
        return super().continuation(pkt, rec, seg, n)


@dataclass
class Who:
    user: str | None = None
    domain: str | None = None
    workstation: str | None = None
    interface: str | None = None
    opnums: int = 0
    calls: int = 0

    def values(self) -> tuple:
        return (self.user, self.domain, self.workstation, self.interface, self.opnums,
                self.calls)


class WhoModel(model.Model):
    def __init__(self, **kw) -> None:
        super().__init__(**kw)
        self.parser = WhoParser(self.port, kw.get("create_response_min",
                                                  model.CREATE_RESPONSE_MIN), kw.get("sizes"))

    def update(self, pkt, rec) -> None:
        flow_before = None
        s = pkt.seg
        ends = tuple(sorted([(s.src, s.sport), (s.dst, s.dport)]))
        flow = self.flows.get((ends, tuple(pkt.folds)))
        if flow is not None:
            flow_before = flow.record
        super().update(pkt, rec)
        if flow_before is None or rec is None or flow_before is rec or (
                flow is not None and flow.removed):
            return
        into = flow_before.__dict__
        if "session" in rec.__dict__:
            into["session"] = rec.session
        calls = rec.__dict__.get("calls")
        if calls:
            mine = into.setdefault("calls", {"calls": 0, "opnums": 0, "request": None,
                                             "bound": None})
            mine["calls"] += calls["calls"]
            mine["opnums"] |= calls["opnums"]
            for k in ("request", "bound"):
                if calls[k] is not None:
                    mine[k] = calls[k]

    def fields(self, flow) -> model.Expected:
        exp = super().fields(flow)
        exp.who = Who()
        r = flow.record
        if r is None or r.version != 2:
            return exp
        rules = self.parser.who_rules
        calls = r.__dict__.get("calls")
        if calls and (calls["calls"] or calls["bound"]):
            if exp.tree is None or not exp.tree.upper().endswith("\\IPC$"):
                rules["not-ipc"] += 1
            else:
                exp.who.calls, exp.who.opnums = calls["calls"], calls["opnums"]
                exp.who.interface = calls["request"] if calls["calls"] else calls["bound"]
        session = r.__dict__.get("session")
        if session:
            auth = self.parser.auths.get((model.addr32(exp.client), exp.client_port, session[0]))
            if auth is not None and auth[0] > session[1]:
                rules["before-auth"] += 1
            elif auth is not None and auth[1] is not None:
                exp.who.user, exp.who.domain, exp.who.workstation = auth[1]
        return exp


def service_differences(lines, names: dict[str, str]) -> tuple[int, list[str]]:
    """smbflow's service column against tshark's name of each interface it shows."""
    diffs, compared = [], 0
    for line in lines:
        r = json.loads(line) if line.strip() else {}
        uuid = r.get("smb_rpc_interface")
        if uuid is None or uuid not in names:
            continue
        compared += 1
        if (r.get("smb_rpc_service") or "").lower() != names[uuid]:
            diffs.append(f"interface {uuid}: tshark names it {names[uuid]!r}, smbflow's service "
                         f"column {r.get('smb_rpc_service')!r}")
    return compared, diffs


def read_written(lines, port: int) -> dict[tuple, list]:
    """smbflow's records per connection: (six fields, who values)."""
    out = defaultdict(list)
    for line in lines:
        if not line.strip():
            continue
        r = json.loads(line)
        if any(k not in r for k in WHO_COLUMNS):
            raise ValueError("smbflow's JSON has no identity columns: is activity=1 set and "
                             "does this build have them?")
        w = smbdiff.read_records([line], port)[0]
        who = Who(r["smb_user"], r["smb_domain"], r["smb_workstation"], r["smb_rpc_interface"],
                  smbdiff._num(r["smb_rpc_opnums"], 0), smbdiff._num(r["smb_rpc_calls"], 0))
        out[(w.client, w.client_port)].append((w.fields(), who.values()))
    return out


LABELS = ("SMB_USER", "SMB_DOMAIN", "SMB_WORKSTATION", "SMB_RPC_INTERFACE", "SMB_RPC_OPNUMS",
          "SMB_RPC_CALLS")


def compare(expected: list[model.Expected], written: dict[tuple, list]) -> list[str]:
    """Per connection and group of records with the same six fields, the identity and
    remote-call values as multisets; leftovers are paired and reported field by field."""
    exp_by = defaultdict(list)
    for e in expected:
        exp_by[(e.client, e.client_port)].append((smbdiff.expected_fields(e), e.who.values()))
    diffs = []
    for conn in sorted(set(exp_by) | set(written), key=str):
        want = Counter(exp_by.get(conn, []))
        got = Counter(written.get(conn, []))
        missing, extra = list((want - got).elements()), list((got - want).elements())
        for six, values in missing:
            pair = next((g for g in extra if g[0] == six), None)
            if pair is None:
                diffs.append(f"{conn[0]}:{conn[1]} record {six}: expected {values}, no record "
                             "with these six fields written")
                continue
            extra.remove(pair)
            parts = [f"{LABELS[i]} tshark {values[i]!r}, smbflow {pair[1][i]!r}"
                     for i in range(len(LABELS)) if values[i] != pair[1][i]]
            diffs.append(f"{conn[0]}:{conn[1]} record tree {six[2]!r} file {six[3]!r}: "
                         + "; ".join(parts))
        for six, values in extra:
            diffs.append(f"{conn[0]}:{conn[1]} unexpected record {six}: {values}")
    return diffs


def check_capture(cap: wire.Capture, path: str, run: activity.Run, args):
    sizes, params = run.sizes, run.params
    if run.queues > 1:
        sizes, _, _ = smbdiff.sizes_without_shared_slots(cap, run, run.sizes)
        params = smbdiff.with_sizes(run.params, sizes)
    timeouts = smbdiff.covering_timeouts(cap)
    settings = {"port": run.port, "sizes": sizes, "create_response_min": run.create_min}
    if timeouts:
        settings["timeouts"] = timeouts
    m = WhoModel(**settings)
    expected = m.run(cap)
    lines = smbdiff.run_smbflow(args.smbflow, args.plugin, path, params, run.queues, timeouts)
    diffs = compare(expected, read_written(lines, run.port))
    services, service_diffs = service_differences(lines, m.parser.service_names)
    diffs += service_diffs
    whos = [e.who for e in expected]
    info = Counter(records=len(expected),
                   identities=sum(1 for w in whos if w.user is not None),
                   users=len({(w.domain, w.user) for w in whos if w.user is not None}),
                   pipe_records=sum(1 for w in whos if w.interface or w.calls),
                   interfaces=sum(1 for w in whos if w.interface),
                   opnums=sum(bin(w.opnums).count("1") for w in whos),
                   calls=sum(w.calls for w in whos), services=services)
    return info, diffs, m.parser.who_rules


# What --require-all wants to have been compared.
COVERED = ("identities", "users", "pipe_records", "interfaces", "services", "opnums", "calls")


def describe(info: Counter) -> str:
    return (f"{info['records']} records, {info['identities']} with an identity "
            f"({info['users']} users), {info['pipe_records']} pipe records, "
            f"{info['interfaces']} interfaces ({info['services']} service names), "
            f"{info['opnums']} opnums, {info['calls']} calls")


def main(argv=None) -> int:
    args, runs, status = activity.command_line("identity", __doc__.split("\n\n")[0], argv)
    if runs is None:
        return status
    sums = [(Counter(), Counter(), [0]) for _ in runs]
    for path in args.captures:
        try:
            cap = wire.read_capture(path, args.tshark, runs[0].port)
            for i, run in enumerate(runs):
                info, diffs, rules = check_capture(cap, path, run, args)
                print(f"{Path(path).name} ({run.name()}): {describe(info)}; "
                      f"{len(diffs)} differences")
                for d in diffs:
                    print(f"  DIFFERENCE {d}")
                sums[i][0].update(info)
                sums[i][1].update(rules)
                sums[i][2][0] += len(diffs)
        except (RuntimeError, OSError, subprocess.TimeoutExpired, ValueError) as err:
            print(f"identity: {err}", file=sys.stderr)
            return 2
    failed = 0
    for run, (info, rules, ndiff) in zip(runs, sums):
        print(f"identity total, {len(args.captures)} captures, {run.name()}: {describe(info)}; "
              f"{ndiff[0]} differences")
        print("  rules applied: " + (", ".join(f"{k} {v}" for k, v in sorted(rules.items()))
                                     or "none"))
        failed += ndiff[0]
        if args.require_all:
            failed += activity.not_compared("identity", run, info, COVERED)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
