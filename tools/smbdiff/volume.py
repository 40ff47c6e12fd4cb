"""Volume check: the packets and bytes of a connection's flow records against the wire.

With the plug-in's wire-counts=1 every record counts its own packets only, so the records of
one TCP connection add up to what tshark counts for that connection: its frames, and the IP
bytes of those frames (the IPv4 total length, or the IPv6 payload length plus the fixed
header). Connections are keyed without direction: the two address and port pairs, sorted.
"""

from __future__ import annotations

import json
import subprocess
from collections import Counter


def _key(a: str, ap: int, b: str, bp: int) -> tuple:
    return tuple(sorted([(a, ap), (b, bp)]))


def wire_totals(path: str, tshark: str = "tshark") -> dict[tuple, tuple[int, int]]:
    """Per TCP connection: (packets, IP bytes), as tshark reads the capture."""
    fields = ["ip.src", "ipv6.src", "tcp.srcport", "ip.dst", "ipv6.dst", "tcp.dstport",
              "ip.len", "ipv6.plen"]
    argv = [tshark, "-r", path, "-n", "-Y", "tcp", "-T", "fields", "-E", "occurrence=f"]
    for f in fields:
        argv += ["-e", f]
    proc = subprocess.run(argv, capture_output=True, text=True, timeout=600)
    if proc.returncode != 0:
        raise RuntimeError(f"tshark failed on {path}: {proc.stderr.strip()}")
    packets, octets = Counter(), Counter()
    for line in proc.stdout.splitlines():
        v4src, v6src, sport, v4dst, v6dst, dport, v4len, v6plen = (line.split("\t") + [""] * 8)[:8]
        if not sport or not dport:
            continue  # a fragment without its TCP header
        key = _key(v4src or v6src, int(sport), v4dst or v6dst, int(dport))
        packets[key] += 1
        octets[key] += int(v4len) if v4len else int(v6plen or 0) + 40
    return {k: (packets[k], octets[k]) for k in packets}


def record_totals(lines) -> dict[tuple, tuple[int, int]]:
    """Per TCP connection: the packets and bytes of its records, both directions summed."""
    packets, octets = Counter(), Counter()
    for line in lines:
        line = line.strip()
        if not line:
            continue
        r = json.loads(line)
        if int(r.get("proto") or 0) != 6:
            continue
        key = _key(r["src_addr"], int(r["src_port"]), r["dst_addr"], int(r["dst_port"]))
        packets[key] += int(r.get("packets") or 0) + int(r.get("rev_packets") or 0)
        octets[key] += int(r.get("bytes") or 0) + int(r.get("rev_bytes") or 0)
    return {k: (packets[k], octets[k]) for k in packets}


def differences(wire: dict, records: dict) -> list[tuple[str, str]]:
    """(connection, text) for every connection whose totals differ."""
    out = []
    for key in sorted(set(wire) | set(records)):
        w, r = wire.get(key, (0, 0)), records.get(key, (0, 0))
        if w != r:
            (a, ap), (b, bp) = key
            out.append((f"{a}:{ap} {b}:{bp}",
                        f"records count {r[0]} packets and {r[1]} bytes, the wire {w[0]} "
                        f"and {w[1]}"))
    return out
