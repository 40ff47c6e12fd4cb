#!/usr/bin/python3
"""smbflow into pmacct's nfacctd: every committed capture is exported over UDP (one record a
direction, --ipfix-uniflow) to one nfacctd that loads the shipped aggregate primitives and
feeds its print plugin (JSON) and its SQLite plugin. Both must hold, per flow and SMB values,
the packets and bytes of smbflow's JSON output: the same shares, file names and numeric SMB
values.

    tools/nfacctd-check.py [path/to/smbflow]
"""
import collections
import glob
import json
import os
import signal
import socket
import sqlite3
import subprocess
import sys
import tempfile
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SMBFLOW = sys.argv[1] if len(sys.argv) > 1 else os.path.join(ROOT, "build", "smbflow")
PRIMITIVES = os.path.join(ROOT, "host/smbflow/dist/pmacct/smb-primitives.lst")
CAPTURES = [os.path.join(ROOT, "tests/data/sample-smb2.pcap")] + sorted(
    glob.glob(os.path.join(ROOT, "tests/data/captures/*.pcap")))
KEY = ["ip_src", "ip_dst", "port_src", "port_dst", "ip_proto", "smb_cmd_request",
       "smb_cmd_response", "smb_tree", "smb_file_name", "smb_file_type", "smb_op"]
PRIMITIVE_LIST = ("src_host, dst_host, src_port, dst_port, proto, smb_cmd_request, "
                  "smb_cmd_response, smb_tree, smb_file_name, smb_file_type, smb_op")
# The SQLite plugin writes into a table of the operator's making, one column a primitive.
SCHEMA = """CREATE TABLE smb_flows (
    ip_src CHAR(45) NOT NULL, ip_dst CHAR(45) NOT NULL, src_port INT NOT NULL,
    dst_port INT NOT NULL, ip_proto CHAR(6) NOT NULL, smb_cmd_request INT NOT NULL DEFAULT 0,
    smb_cmd_response INT NOT NULL DEFAULT 0, smb_tree TEXT NOT NULL DEFAULT '',
    smb_file_name TEXT NOT NULL DEFAULT '', smb_file_type INT NOT NULL DEFAULT 0,
    smb_op INT NOT NULL DEFAULT 0, packets INT NOT NULL, bytes BIGINT NOT NULL,
    stamp_inserted DATETIME, stamp_updated DATETIME)"""
PROTO = {6: "tcp", 17: "udp", 1: "icmp", 58: "ipv6-icmp"}
# The identity and remote-call primitives (activity=1), checked by a second nfacctd run with
# the print plugin: strings and numbers as smbflow's JSON has them.
WHO = ["smb_user", "smb_domain", "smb_workstation", "smb_rpc_opnums", "smb_rpc_calls"]


def free_udp_port():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def number(v):
    return 0 if v is None else int(v, 16) if isinstance(v, str) else int(v)


def expected_totals(records, who=False):
    """smbflow's JSON records as nfacctd aggregates them: a record a direction, keyed by the
    flow and its SMB values (a record without them has nfacctd's empty values)."""
    out = collections.Counter()
    for r in records:
        smb = (number(r["smb_cmd_request"]), number(r["smb_cmd_response"]), r["smb_tree"] or "",
               r["smb_file_name"] or "", number(r["smb_file_type_code"]), number(r["smb_op_code"]))
        if who:
            smb += tuple(r[k] or "" for k in WHO[:3]) + tuple(number(r[k]) for k in WHO[3:])
        proto = PROTO.get(r["proto"], str(r["proto"]))
        fwd = (r["src_addr"], r["dst_addr"], r["src_port"], r["dst_port"], proto) + smb
        rev = (r["dst_addr"], r["src_addr"], r["dst_port"], r["src_port"], proto) + smb
        for key, packets, octets in ((fwd, r["packets"], r["bytes"]),
                                     (rev, r["rev_packets"], r["rev_bytes"])):
            if packets:
                out[key + ("packets",)] += packets
                out[key + ("bytes",)] += octets
    return out


def totals_of(rows, who=False):
    out = collections.Counter()
    numbers = ("port_src", "port_dst", "smb_cmd_request", "smb_cmd_response", "smb_file_type",
               "smb_op", "smb_rpc_opnums", "smb_rpc_calls")
    for r in rows:
        key = tuple(int(r[k]) if k in numbers else r[k] for k in KEY + (WHO if who else []))
        out[key + ("packets",)] += int(r["packets"])
        out[key + ("bytes",)] += int(r["bytes"])
    return out


def json_rows(path):
    if not os.path.exists(path):
        return []
    with open(path, encoding="utf-8") as f:
        return [json.loads(line) for line in f if line.startswith("{")]


def db_rows(path):
    db = sqlite3.connect(path)
    db.row_factory = sqlite3.Row
    rows = []
    for r in db.execute("SELECT * FROM smb_flows"):
        d = dict(r)
        d["port_src"], d["port_dst"] = d.pop("src_port"), d.pop("dst_port")
        rows.append(d)
    db.close()
    return rows


def check(who: bool) -> list[str]:
    """One nfacctd fed with every capture: the six SMB primitives (print and SQLite plugins),
    or with `who` those and the identity and remote-call ones (print plugin, activity=1)."""
    failures = []
    primitives = PRIMITIVE_LIST + "".join(f", {k}" for k in WHO) if who else PRIMITIVE_LIST
    params = "short-create=1,activity=1" if who else "short-create=1"
    with tempfile.TemporaryDirectory() as tmp:
        port = free_udp_port()
        out_json, db, log = (os.path.join(tmp, n) for n in ("nfacctd.json", "smb.db", "log"))
        with sqlite3.connect(db) as c:
            c.execute(SCHEMA)
        conf = os.path.join(tmp, "nfacctd.conf")
        with open(conf, "w") as f:
            f.write(f"""daemonize: false
nfacctd_ip: 127.0.0.1
nfacctd_port: {port}
aggregate_primitives: {PRIMITIVES}
plugins: print[json]{"" if who else ", sqlite3[db]"}
aggregate[json]: {primitives}
print_output[json]: json
print_output_file[json]: {out_json}
print_output_file_append[json]: true
print_refresh_time[json]: 1
aggregate[db]: {PRIMITIVE_LIST}
sql_db[db]: {db}
sql_table[db]: smb_flows
sql_optimize_clauses[db]: true
sql_refresh_time[db]: 1
""")
        # A session of its own: its plugins are processes of its group, ended with it.
        nfacctd = subprocess.Popen(["nfacctd", "-f", conf], stdout=open(log, "w"),
                                   stderr=subprocess.STDOUT, start_new_session=True)
        try:
            # Listening once it says so.
            deadline = time.monotonic() + 30
            while "waiting for NetFlow/IPFIX data" not in open(log, errors="replace").read():
                if time.monotonic() > deadline or nfacctd.poll() is not None:
                    print(open(log, errors="replace").read())
                    print("FAILED  nfacctd did not start")
                    return ["start"]
                time.sleep(0.05)
            expected = collections.Counter()
            records = 0
            for capture in CAPTURES:
                run = subprocess.run(
                    [SMBFLOW, "-q", "--no-progress", "--params", params, "-F", "json",
                     "--ipfix-uniflow", "--ipfix", f"udp://127.0.0.1:{port}", capture],
                    check=True, capture_output=True, text=True)
                lines = [json.loads(line) for line in run.stdout.splitlines()]
                records += len(lines)
                expected += expected_totals(lines, who)
            # nfacctd writes every second: wait until the packets have all arrived.
            want = sum(v for k, v in expected.items() if k[-1] == "packets")
            deadline = time.monotonic() + 60
            while True:
                got_json = totals_of(json_rows(out_json), who)
                got_db = got_json if who else totals_of(db_rows(db))
                have = [sum(v for k, v in t.items() if k[-1] == "packets")
                        for t in (got_json, got_db)]
                if have == [want, want] or time.monotonic() > deadline:
                    break
                time.sleep(0.2)
        finally:
            # nfacctd's core says it exits on SIGTERM but may wait for its plugins for ever.
            os.killpg(nfacctd.pid, signal.SIGTERM)
            try:
                nfacctd.wait(timeout=5)
            except subprocess.TimeoutExpired:
                os.killpg(nfacctd.pid, signal.SIGKILL)
                nfacctd.wait()
        shares = {k[7] for k in expected if k[7]}
        files = {k[8] for k in expected if k[8]}
        print(f"smbflow: {len(CAPTURES)} captures, {records} records, {want} packets, "
              f"{len(shares)} shares, {len(files)} file names")
        users = {k[11:14] for k in expected if who and k[11]}
        if who:
            print(f"with activity=1: {len(users)} identities, "
                  f"{sum(1 for k in expected if k[-3] and k[-1] == 'packets')} aggregates "
                  "with calls")
        plugins = [("print plugin (JSON)", got_json)] + ([] if who else [("SQLite plugin",
                                                                             got_db)])
        for name, got in plugins:
            missing = expected - got
            extra = got - expected
            ok = not missing and not extra
            print(("ok      " if ok else "FAILED  ") + f"nfacctd {name}: {len(got) // 2} "
                  f"aggregates, {sum(v for k, v in got.items() if k[-1] == 'packets')} packets")
            for k in list(missing)[:5]:
                print("  missing", k, missing[k])
            for k in list(extra)[:5]:
                print("  unexpected", k, extra[k])
            if not ok:
                failures.append(name)
    return failures


def main():
    return 1 if check(False) + check(True) else 0


if __name__ == "__main__":
    sys.exit(main())
