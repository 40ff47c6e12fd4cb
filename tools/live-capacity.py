#!/usr/bin/env python3
"""Live capture capacity: SMB traffic through a veth pair at the rate Samba and smbclient reach.

A throwaway Samba server and an smbclient live in two network namespaces joined by a veth pair
(MTU 1500, offloads off, as tools/smbgen/smbgen.py sets them up: every segment wire-sized).
smbclient fetches and stores a large file over SMB3 while smbflow captures on the server's end of
the pair, once for each capture buffer size asked for. Printed for each: the SMB rate, the
packets the kernel saw and dropped (smbflow's summary), and smbflow's CPU time (user and system,
from /proc) as a share of one core over the transfer. The load average before the runs is
printed too: the machine may be shared. Needs root. Every process started here is stopped by
its pid.

    tools/live-capacity.py [--size MB] [--rounds N] [--buffer MB ...] [--smbflow PATH]

--buffer 0 is libpcap's default (2 MiB); default: 0 64 256.
"""

from __future__ import annotations

import argparse
import os
import re
import signal
import subprocess
import sys
import tempfile
import time
from pathlib import Path

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE / "smbgen"))
import smbgen  # noqa: E402  (the Samba and namespace set-up)

CLK_TCK = os.sysconf("SC_CLK_TCK")


def cpu_seconds(pid: int) -> float:
    fields = Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    # utime and stime are fields 14 and 15 of the whole line; the split starts at field 3.
    return (int(fields[11]) + int(fields[12])) / CLK_TCK


def wait_for_line(stream, pattern: str, timeout: float) -> str:
    """Reads smbflow's standard error until a line matches; fails loudly after the timeout."""
    deadline = time.time() + timeout
    seen = ""
    while time.time() < deadline:
        line = stream.readline()
        if not line:
            break
        seen += line
        if re.search(pattern, line):
            return seen
    raise smbgen.Fatal(f"smbflow did not write /{pattern}/ in {timeout:.0f}s:\n{seen}")


def measure(args, samba, net, procs, buffer_mb: int) -> dict:
    argv = [args.smbflow, "--no-progress", "-i", net.veth_s, "-f", "tcp port 445",
            "-o", "/dev/null", "--stats-interval", "3600"]
    if args.plugin:
        argv += ["--plugin", args.plugin]
    if buffer_mb:
        argv += ["--buffer-size", str(buffer_mb)]
    # Started with SIGUSR1 blocked: one sent before its handler is in place waits for it.
    proc = procs.start("smbflow", net.server(argv), stdout=subprocess.DEVNULL,
                       stderr=subprocess.PIPE, text=True,
                       preexec_fn=lambda: signal.pthread_sigmask(signal.SIG_BLOCK,
                                                                 [signal.SIGUSR1]))
    # The statistics line asked for at once says that the capture is open and reading.
    os.kill(proc.pid, signal.SIGUSR1)
    wait_for_line(proc.stderr, r"smbflow: stats", 30)
    cmds = []
    for i in range(args.rounds):
        cmds += ["get big /dev/null", f"put {args.local} up{i}"]
    cpu0, t0 = cpu_seconds(proc.pid), time.time()
    res = smbgen.run(samba.smbclient(smbgen.SHARE, "SMB3", cmds), timeout=600)
    elapsed = time.time() - t0
    cpu = cpu_seconds(proc.pid) - cpu0
    os.kill(proc.pid, signal.SIGTERM)
    _, err = proc.communicate(timeout=120)
    procs.started = [(n, p) for n, p in procs.started if p is not proc]
    received = re.search(r"received by the kernel\s+(\d+)", err)
    dropped = re.search(r"dropped by the kernel\s+(\d+)", err)
    if res.returncode != 0 or not received or not dropped:
        raise smbgen.Fatal(f"run failed: smbclient {res.returncode}\n{res.stdout}\n{err}")
    moved = 2 * args.rounds * args.size * 1024 * 1024
    return {"buffer": f"{buffer_mb} MiB" if buffer_mb else "default (2 MiB)",
            "rate": moved / elapsed / 1e6, "seconds": elapsed,
            "received": int(received.group(1)), "dropped": int(dropped.group(1)),
            "cpu": 100.0 * cpu / elapsed}


def main() -> int:
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--size", type=int, default=512, help="file size in MB (default 512)")
    ap.add_argument("--rounds", type=int, default=1, help="gets and puts per buffer size")
    ap.add_argument("--buffer", type=int, nargs="*", default=[0, 64, 256])
    ap.add_argument("--smbflow", default=str(HERE.parent / "build" / "smbflow"))
    ap.add_argument("--plugin", default="", help="another plug-in than smbflow's default")
    args = ap.parse_args()
    if os.geteuid() != 0:
        print("live-capacity: SKIP: namespaces, smbd on port 445 and capture need root",
              file=sys.stderr)
        return 77
    for tool in ("smbd", "smbclient", "smbpasswd", "ip"):
        if subprocess.run(["sh", "-c", f"command -v {tool}"], capture_output=True).returncode:
            print(f"live-capacity: {tool} is missing", file=sys.stderr)
            return 2
    procs = smbgen.Processes()
    net = smbgen.Network(f"lc{os.getpid() % 10000}")
    work = Path(tempfile.mkdtemp(prefix="live-capacity-", dir="/dev/shm"))
    try:
        net.setup(allow_loopback=False)
        samba = smbgen.Samba(work, net, procs)
        samba.write_config()
        samba.start()
        # Sparse files: neither end waits for a disk, so the rate is the SMB path's.
        for path in (samba.shares()[smbgen.SHARE] / "big", work / "local"):
            with open(path, "wb") as f:
                f.truncate(args.size * 1024 * 1024)
        args.local = str(work / "local")
        load = os.getloadavg()
        print(f"load average before: {load[0]:.2f} {load[1]:.2f} {load[2]:.2f} "
              f"({os.cpu_count()} CPUs); {net.note}")
        print(f"{'buffer':>16} {'MB/s':>7} {'seconds':>8} {'kernel recv':>12} "
              f"{'kernel drop':>12} {'drop %':>7} {'smbflow CPU %':>14}")
        for mb in args.buffer:
            r = measure(args, samba, net, procs, mb)
            share = 100.0 * r["dropped"] / max(1, r["received"])
            print(f"{r['buffer']:>16} {r['rate']:7.0f} {r['seconds']:8.1f} {r['received']:12d} "
                  f"{r['dropped']:12d} {share:7.2f} {r['cpu']:14.0f}", flush=True)
        load = os.getloadavg()
        print(f"load average after: {load[0]:.2f} {load[1]:.2f} {load[2]:.2f}")
        return 0
    except smbgen.Fatal as err:
        print(f"live-capacity: {err}", file=sys.stderr)
        return 1
    finally:
        procs.stop_all()
        net.teardown()
        subprocess.run(["rm", "-rf", str(work)])


if __name__ == "__main__":
    sys.exit(main())
