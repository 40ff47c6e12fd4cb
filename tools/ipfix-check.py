#!/usr/bin/python3
"""Checks smbflow's IPFIX export with decoders that share no code with it: libfixbuf's
ipfixDump (the SMB elements by name, from the RFC 5610 records smbflow sends), tshark's IPFIX
dissector, and nfdump's collector nfcapd, biflow and --ipfix-uniflow. Each must show the flows
of smbflow's CSV output for every committed capture; and the values of all six SMB elements
that ipfixDump decodes must be the records that the differential check's model
(tools/smbdiff) expects from tshark's dissection of the capture, not only what smbflow's own
writers say.

    tools/ipfix-check.py [path/to/smbflow]
"""
import collections
import csv
import glob
import ipaddress
import json
import os
import re
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
import xml.etree.ElementTree as ET

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(ROOT, "tools", "smbdiff"))
import smbdiff  # noqa: E402
import wire  # noqa: E402
SMBFLOW = sys.argv[1] if len(sys.argv) > 1 else os.path.join(ROOT, "build", "smbflow")
CAPTURES = [os.path.join(ROOT, "tests/data/sample-smb2.pcap")] + sorted(
    glob.glob(os.path.join(ROOT, "tests/data/captures/*.pcap")))
failures = []


def check(ok, what):
    print(("ok      " if ok else "FAILED  ") + what)
    if not ok:
        failures.append(what)


def smbflow(*args):
    return subprocess.run([SMBFLOW, "-q", *args], check=True, capture_output=True, text=True)


def free_udp_port():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def csv_rows(capture, work):
    out = os.path.join(work, "flows.csv")
    smbflow(capture, "-F", "csv", "-o", out)
    with open(out, newline="") as f:
        return list(csv.DictReader(f))


def flow_keys(rows, uniflow=False):
    """The flows as (src, dst, sport, dport, proto, packets, bytes), one way per key when
    uniflow, both counts in one key otherwise."""
    keys = collections.Counter()
    for r in rows:
        fwd = (r["src_addr"], r["dst_addr"], r["src_port"], r["dst_port"], r["proto"])
        if uniflow:
            keys[fwd + (r["packets"], r["bytes"])] += 1
            if int(r["rev_packets"]) > 0:
                keys[(r["dst_addr"], r["src_addr"], r["dst_port"], r["src_port"], r["proto"],
                      r["rev_packets"], r["rev_bytes"])] += 1
        else:
            keys[fwd + (r["packets"], r["bytes"], r["rev_packets"], r["rev_bytes"])] += 1
    return keys


def ipfixdump_names(capture, rows, work):
    """ipfixDump --rfc5610 learns the SMB elements from smbflow's type records and prints
    their values by name."""
    out = os.path.join(work, "flows.ipfix")
    smbflow(capture, "--ipfix", "file:" + out)
    dump = subprocess.run(["ipfixDump", "--rfc5610", "-d", "--hexdump=16", "-i", out], check=True,
                          capture_output=True, text=True).stdout
    trees = re.findall(r"^\s+\(32473/3\)\s+smbTree : \(len: \d+\) ?(.*)$", dump, re.M)
    names = re.findall(r"^\s+\(32473/4\)\s+smbFileName : \(len: \d+\) ?(.*)$", dump, re.M)
    smb_rows = [r for r in rows if r["smb_cmd_request"]]
    check(trees == [r["smb_tree"] for r in smb_rows] and
          names == [r["smb_file_name"] for r in smb_rows],
          f"ipfixDump --rfc5610 names the SMB elements: {os.path.basename(capture)} "
          f"({len(trees)} records)")


# ipfixDump's element names, as the JSON keys that smbdiff reads records by.
DUMP_KEYS = {"sourceIPv4Address": "src_addr", "sourceIPv6Address": "src_addr",
             "destinationIPv4Address": "dst_addr", "destinationIPv6Address": "dst_addr",
             "sourceTransportPort": "src_port", "destinationTransportPort": "dst_port",
             "packetDeltaCount": "packets", "reversePacketDeltaCount": "rev_packets",
             "smbCommandRequest": "smb_cmd_request", "smbCommandResponse": "smb_cmd_response",
             "smbTree": "smb_tree", "smbFileName": "smb_file_name",
             "smbFileType": "smb_file_type_code", "smbOperation": "smb_op_code"}
DUMP_FIELD = re.compile(r"^\t\([0-9/]+\)\s+(\w+) : (?:\(len: (\d+)\) ?)?(.*)$")


def dump_records(dump):
    """The data records of an `ipfixDump --rfc5610` listing, by smbdiff's JSON keys."""
    records = []
    for line in dump.splitlines():
        if line.startswith("--- data record"):
            records.append({})
            continue
        m = DUMP_FIELD.match(line)
        if records and m and m.group(1) in DUMP_KEYS:
            length, value = m.group(2), m.group(3)
            # An empty string element is a field without value.
            key = DUMP_KEYS[m.group(1)]
            if key.endswith("_addr"):
                value = ipaddress.ip_address(value).compressed  # ipfixDump keeps zeros
            records[-1][key] = None if length == "0" else value
    # The RFC 5610 element type records are data records too: flows have ports.
    return [r for r in records if "src_port" in r]


def ipfixdump_smb_values(capture, work):
    """ipfixDump's values of the six SMB elements against the model's expected records."""
    cap = wire.read_capture(capture)
    timeouts = smbdiff.covering_timeouts(cap)
    settings = {"timeouts": timeouts} if timeouts else {}
    expected = smbdiff.model.Model(**settings).run(cap)
    out = os.path.join(work, "values.ipfix")
    args = ["--inactive-timeout", str(timeouts[0]), "--active-timeout", str(timeouts[1])] \
        if timeouts else []
    smbflow(capture, *args, "--ipfix", "file:" + out)
    dump = subprocess.run(["ipfixDump", "--rfc5610", "-d", "--hexdump=16", "-i", out], check=True,
                          capture_output=True, text=True).stdout
    written = smbdiff.read_records(
        [smbdiff.json.dumps(r) for r in dump_records(dump)], smbdiff.model.Model().port)
    diffs = smbdiff.compare(expected, written)
    with_fields = sum(1 for w in written if w.fields() != smbdiff.DEFAULTS)
    check(not diffs and with_fields > 0,
          f"ipfixDump's SMB element values are the records expected from tshark: "
          f"{os.path.basename(capture)} ({len(written)} records, {with_fields} with SMB fields)"
          + "".join(f"\n        {d.connection} {d.label}: {d.text}" for d in diffs[:10]))


DIALECTS = {"2.0.2": 0x0202, "2.1": 0x0210, "3.0": 0x0300, "3.0.2": 0x0302, "3.1.1": 0x0311}


def activity_elements():
    """The elements beyond the six in the shipped element file: (id, name, JSON column)."""
    ns = {"i": "http://www.iana.org/assignments"}
    tree = ET.parse(os.path.join(ROOT, "host/smbflow/smb-elements.xml"))
    out = []
    for rec in tree.getroot().iter("{http://www.iana.org/assignments}record"):
        eid = int(rec.find("i:elementId", ns).text)
        name = rec.find("i:name", ns).text
        if eid > 6:
            out.append((eid, name, re.sub(r"([A-Z])", r"_\1", name).lower()))
    return out


STRING_COLUMNS = ("smb_rename_to", "smb_user", "smb_domain", "smb_workstation")


def as_ipfix_text(column, value):
    """A JSON value of an activity column as ipfixDump prints the element (absent: zero or
    empty, as a record that cannot leave an element out)."""
    if column == "smb_rpc_interface":  # octets, dumped as hex (--hexdump=16)
        return "0x" + (value.replace("-", "") if value else "0" * 32)
    if value is None:
        return "" if column in STRING_COLUMNS else "0"
    if column == "smb_dialect" and isinstance(value, str):
        return str(DIALECTS.get(value) or int(value, 16))
    if isinstance(value, str) and value.startswith("0x"):
        return str(int(value, 16))
    return str(value)


def ipfixdump_activity(capture, work):
    """With activity=1 the activity elements carry the JSON output's values, record by
    record."""
    out, js = os.path.join(work, "activity.ipfix"), os.path.join(work, "activity.json")
    smbflow(capture, "--params", "activity=1", "-F", "json", "-o", js, "--ipfix", "file:" + out)
    dump = subprocess.run(["ipfixDump", "--rfc5610", "-d", "--hexdump=16", "-i", out], check=True,
                          capture_output=True, text=True).stdout
    with open(js) as f:
        rows = [json.loads(line) for line in f]
    elements = activity_elements()
    smb_rows = [r for r in rows if any(r.get(col) is not None for _, _, col in elements)]
    same = bool(elements)
    for eid, name, col in elements:
        got = re.findall(rf"^\s+\(32473/{eid}\)\s+{name} : (?:\(len: \d+\) ?)?(.*)$", dump,
                         re.M)
        same = same and got == [as_ipfix_text(col, r.get(col)) for r in smb_rows]
    check(same, f"ipfixDump --rfc5610 shows the activity elements of the JSON output: "
                f"{os.path.basename(capture)} ({len(smb_rows)} records, {len(elements)} elements)")


def udp_datagrams(run):
    """Runs `run` while a UDP socket on loopback takes what it sends."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        s.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4 << 20)
        s.bind(("127.0.0.1", 0))
        run(f"udp://127.0.0.1:{s.getsockname()[1]}")
        s.setblocking(False)
        grams = []
        while True:
            try:
                grams.append(s.recv(65536))
            except BlockingIOError:
                return grams


def write_pcap(path, grams, port=4739):
    with open(path, "wb") as f:
        f.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 101))  # raw IP
        for g in grams:
            udp = struct.pack("!HHHH", 50000, port, 8 + len(g), 0) + g
            ip = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + len(udp), 0, 0, 64, 17, 0,
                             b"\x7f\0\0\1", b"\x7f\0\0\1") + udp
            f.write(struct.pack("<IIII", 0, 0, len(ip), len(ip)) + ip)


def tshark_flows(pcap):
    """The flows tshark's IPFIX dissector finds. Reverse elements carry the same field names
    as forward ones and follow them in the template, so the first of each name is forward."""
    pdml = subprocess.run(["tshark", "-r", pcap, "-d", "udp.port==4739,cflow", "-T", "pdml"],
                          check=True, capture_output=True, text=True).stdout
    keys = collections.Counter()
    for flow in ET.fromstring(pdml).iter("field"):
        if not flow.get("show", "").startswith("Flow "):
            continue
        first = {}
        for f in flow:
            first.setdefault(f.get("name"), f.get("show"))
        if "cflow.srcport" not in first:
            continue
        keys[(first.get("cflow.srcaddr") or first.get("cflow.srcaddrv6"),
              first.get("cflow.dstaddr") or first.get("cflow.dstaddrv6"),
              first["cflow.srcport"], first["cflow.dstport"], first["cflow.protocol"],
              first["cflow.packets"], first["cflow.octets"])] += 1
    return keys


def udp_receive_queue(port):
    """Bytes waiting in the receive queue of the UDP socket bound to `port` (ss -uln)."""
    for line in subprocess.run(["ss", "-Huln"], capture_output=True, text=True).stdout.splitlines():
        v = line.split()
        if len(v) >= 4 and v[3].endswith(f":{port}"):
            return int(v[1])
    return 0


def nfdump_flows(uniflow, captures, work):
    """nfcapd receives the UDP export of every capture; nfdump lists what it stored."""
    port = free_udp_port()
    store = tempfile.mkdtemp(dir=work)
    nfcapd = subprocess.Popen(["nfcapd", "-b", "127.0.0.1", "-p", str(port), "-w", store],
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        deadline = time.monotonic() + 20
        while f":{port} " not in subprocess.run(["ss", "-Huln"], capture_output=True,
                                                 text=True).stdout:
            if time.monotonic() > deadline or nfcapd.poll() is not None:
                raise RuntimeError("nfcapd did not start")
            time.sleep(0.05)
        for c in captures:
            smbflow(c, "--ipfix", f"udp://127.0.0.1:{port}", *(["--ipfix-uniflow"] if uniflow else []))
        # smbflow is done when its last datagram is in nfcapd's socket, not when nfcapd has
        # read it: stopped before then, nfcapd would lose the last capture's records.
        deadline = time.monotonic() + 20
        while udp_receive_queue(port) and time.monotonic() < deadline:
            time.sleep(0.05)
    finally:
        nfcapd.send_signal(signal.SIGTERM)  # it writes out what it holds
        nfcapd.wait(timeout=30)
    fmt = "fmt:%sa|%da|%sp|%dp|%pr|%ipkt|%ibyt" + ("" if uniflow else "|%opkt|%obyt")
    out = subprocess.run(["nfdump", "-q", "-N", "-R", store, "-o", fmt], check=True,
                         capture_output=True, text=True).stdout
    protocols = {"TCP": "6", "UDP": "17", "ICMP": "1", "ICMP6": "58"}
    keys = collections.Counter()
    for line in out.splitlines():
        v = [x.strip() for x in line.split("|")]
        if len(v) < 7:
            continue
        v[4] = protocols.get(v[4], v[4])
        keys[tuple(v)] += 1
    return keys


def main():
    with tempfile.TemporaryDirectory() as work:
        rows = {c: csv_rows(c, work) for c in CAPTURES}
        for c in CAPTURES:
            ipfixdump_names(c, rows[c], work)
        for c in CAPTURES:
            ipfixdump_activity(c, work)
        # The real captures, whose records the differential check's model follows.
        for c in CAPTURES[1:]:
            ipfixdump_smb_values(c, work)

        grams = []
        for c in CAPTURES:
            grams += udp_datagrams(lambda url: smbflow(c, "--ipfix", url))
        pcap = os.path.join(work, "export.pcap")
        write_pcap(pcap, grams)
        # tshark shows the forward direction of each biflow record.
        forward = collections.Counter()
        for c in CAPTURES:
            for r in rows[c]:
                forward[(r["src_addr"], r["dst_addr"], r["src_port"], r["dst_port"], r["proto"],
                         r["packets"], r["bytes"])] += 1
        got = tshark_flows(pcap)
        check(got == forward, f"tshark decodes the UDP export: {sum(got.values())} flows in "
                              f"{len(grams)} messages")

        for uniflow in (False, True):
            want = sum((flow_keys(rows[c], uniflow) for c in CAPTURES), collections.Counter())
            got = nfdump_flows(uniflow, CAPTURES, work)
            check(got == want, f"nfcapd/nfdump list the {'uniflow' if uniflow else 'biflow'} "
                               f"export: {sum(got.values())} records"
                               + ("" if got == want else f"; missing {want - got}, extra {got - want}"))
    print("ipfix-check: " + ("FAILED: " + "; ".join(failures) if failures else "passed"))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
