#!/usr/bin/python3
"""Makes a capture of mixed traffic from an SMB capture: after each SMB packet, K packets of
other traffic at the same time (HTTPS-like TCP flows with wire-sized segments and DNS over
UDP, spread over many hosts), so that SMB is 1/(K+1) of the packets. Ethernet frames, pcap
with microsecond stamps.

    tools/mixed-traffic.py SMB.pcap OUT.pcap [K]
"""
import struct
import sys

src, dst = sys.argv[1], sys.argv[2]
k = int(sys.argv[3]) if len(sys.argv) > 3 else 7

ETH = b"\x02\0\0\0\0\x02" + b"\x02\0\0\0\0\x01" + b"\x08\x00"
PAYLOAD = bytes(range(256)) * 6  # up to 1536 bytes


def checksum(header):
    s = sum(struct.unpack("!10H", header))
    s = (s & 0xFFFF) + (s >> 16)
    return (~((s & 0xFFFF) + (s >> 16))) & 0xFFFF


def ipv4(proto, a, b, payload):
    h = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 20 + len(payload), 0, 0x4000, 64, proto, 0, a, b)
    return h[:10] + struct.pack("!H", checksum(h)) + h[12:] + payload


def other_packet(n):
    """Packet n of the other traffic: 9 of 10 in one of 4096 TCP flows to port 443 (three
    full-sized segments from the server for each small one from the client), 1 of 10 DNS.
    The flow is n mod 4096 and the direction follows n // 4096, so that every TCP flow sees
    both directions (a direction taken from n mod 4 would fix it per flow)."""
    client = bytes([10, 8, (n >> 8) & 15, n & 255])
    server = bytes([192, 0, 2, 1 + (n & 7)])
    port = 40000 + (n % 4096)
    if n % 10 == 9:
        udp = struct.pack("!HHHH", port, 53, 8 + 40, 0) + PAYLOAD[:40]
        return ipv4(17, client, server, udp)
    to_server = (n // 4096) % 4 == 0
    size = 200 if to_server else 1448
    sport, dport = (port, 443) if to_server else (443, port)
    tcp = struct.pack("!HHIIBBHHH", sport, dport, n, n, 5 << 4, 0x18, 65535, 0, 0)
    a, b = (client, server) if to_server else (server, client)
    return ipv4(6, a, b, tcp + PAYLOAD[:size])


with open(src, "rb") as f, open(dst, "wb") as out:
    header = f.read(24)
    magic, = struct.unpack("<I", header[:4])
    if magic != 0xA1B2C3D4 or struct.unpack("<I", header[20:24])[0] != 1:
        sys.exit("the SMB capture must be a little-endian microsecond Ethernet pcap")
    out.write(header)
    n = 0
    while True:
        rec = f.read(16)
        if len(rec) < 16:
            break
        secs, usecs, caplen, wire = struct.unpack("<IIII", rec)
        out.write(rec + f.read(caplen))
        for _ in range(k):
            frame = ETH + other_packet(n)
            out.write(struct.pack("<IIII", secs, usecs, len(frame), len(frame)) + frame)
            n += 1
