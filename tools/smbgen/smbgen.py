#!/usr/bin/env python3
"""Makes real SMB captures: a throwaway Samba server, scripted smbclient/smbtorture sessions.

The server and the client live in two network namespaces made here and joined by a veth pair
(MTU 1500, segmentation and checksum offloads off), so the capture holds wire-sized TCP
segments as on a LAN. IPv4 addresses come from 198.18.0.0/15 (RFC 2544 benchmark range), IPv6
from 2001:db8::/32 (RFC 3849 documentation range). Where namespaces cannot be made the run falls
back to loopback and says so. Every process started here is stopped by its pid.

    tools/smbgen/smbgen.py --out DIR [--scenario NAME ...] [--list] [--keep]

Writes DIR/<scenario>.pcap per scenario and DIR/MANIFEST.txt (what each one holds).
Only the Python standard library is used.
"""

from __future__ import annotations

import argparse
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
from dataclasses import dataclass, field
from pathlib import Path

PASSWORD = "smbgen-Pa55"
USER = "root"  # smbd maps the SMB user to a Unix account; root exists everywhere
GUEST_USER = "smbgen_guest"  # unknown to the server, so mapped to its guest account
# Two more accounts, which the server's username map maps to USER (with its password): the
# NTLMSSP AUTHENTICATE messages name them, their domains and their workstations.
ACCOUNTS = {"alice": ("SMBGEN", "WS-ALICE"), "bob": ("OTHERDOM", "WS-BOB")}
ADMIN_SHARE = "ADMIN$"
SAMBA_DCERPCD = "/usr/libexec/samba/samba-dcerpcd"
SERVER_V4, CLIENT_V4 = "198.18.0.1", "198.18.0.2"
SERVER_V6, CLIENT_V6 = "2001:db8::1", "2001:db8::2"

# Share names: a short one, one that requires encryption, and one whose UNC path is longer than
# 63 UTF-16 units (the share path capture keeps only the beginning of such a path).
SHARE = "share"
SHARE_ENC = "secure"
SHARE_RO = "readonly"  # writes to it fail with STATUS_ACCESS_DENIED
# Over IPv4 its UNC path puts the high half of a surrogate pair at unit 63, where a cut after
# 63 units would split the pair.
SHARE_LONG = "projects_archive_" + "x" * 32 + "\U0001F4C1" + "_Ünïcødé"

# File names exercising the name capture: longer than 63 UTF-16 units, non-ASCII in the Basic
# Multilingual Plane, and one with a character outside it (a UTF-16 surrogate pair).
LONG_NAME = "a_rather_long_file_name_that_needs_more_than_sixty_three_utf16_units_0123456789.txt"
BMP_NAME = "Grüße_日本語_файл.txt"
ASTRAL_NAME = "emoji_\U0001F600_notes.txt"
# A surrogate pair placed so that a 63-unit tail cut would split it (66 units, the pair at units
# 3 and 4 from the start, the 64th and 63rd from the end).
ASTRAL_LONG_NAME = "ab\U0001F4C1" + "y" * 58 + ".txt"

NAMES = [LONG_NAME, BMP_NAME, ASTRAL_NAME, ASTRAL_LONG_NAME]

LARGE_SIZE = 192 * 1024  # READ/WRITE of this span well over a hundred 1448-byte segments
# Single READ and WRITE messages of several MiB (Samba offers 8 MiB reads and writes), each over
# thousands of segments.
HUGE_SIZE = 3 * 1024 * 1024


def log(msg: str) -> None:
    print(f"smbgen: {msg}", file=sys.stderr, flush=True)


class Fatal(Exception):
    pass


class Processes:
    """Every long-running process started by the run, stopped by pid in reverse order."""

    def __init__(self) -> None:
        self.started: list[tuple[str, subprocess.Popen]] = []

    def start(self, name: str, argv: list[str], **kw) -> subprocess.Popen:
        proc = subprocess.Popen(argv, start_new_session=True, **kw)
        self.started.append((name, proc))
        return proc

    def stop(self, proc: subprocess.Popen, sig: int = signal.SIGTERM, wait: float = 10.0) -> None:
        if proc.poll() is None:
            try:
                os.kill(proc.pid, sig)
                proc.wait(timeout=wait)
            except ProcessLookupError:
                pass
            except subprocess.TimeoutExpired:
                os.kill(proc.pid, signal.SIGKILL)
                proc.wait()
        # The process led a session and process group of its own (start_new_session): whatever
        # it forked and left behind (smbd's per-connection children) is still in that group.
        try:
            os.killpg(proc.pid, signal.SIGKILL)
        except (ProcessLookupError, PermissionError):
            pass

    def stop_all(self) -> None:
        for _, proc in reversed(self.started):
            self.stop(proc)
        self.started.clear()


def run(argv: list[str], *, check: bool = True, timeout: float = 60, input: str | None = None,
        quiet: bool = False) -> subprocess.CompletedProcess:
    """Runs a short command to completion in a session of its own (so that a timeout can stop
    its whole tree by the pid we started)."""
    stdin = subprocess.PIPE if input is not None else subprocess.DEVNULL
    proc = subprocess.Popen(argv, stdin=stdin, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                            text=True, start_new_session=True)
    try:
        out, _ = proc.communicate(input=input, timeout=timeout)
    except subprocess.TimeoutExpired:
        os.killpg(proc.pid, signal.SIGKILL)
        out, _ = proc.communicate()
        log(f"timed out after {timeout:.0f}s: {' '.join(argv[:6])} ...")
        return subprocess.CompletedProcess(argv, -9, out, None)
    except BaseException:  # interrupted: the command's group goes with us
        os.killpg(proc.pid, signal.SIGKILL)
        proc.wait()
        raise
    if check and proc.returncode != 0:
        raise Fatal(f"command failed ({proc.returncode}): {' '.join(argv)}\n{out}")
    if not quiet and proc.returncode != 0:
        log(f"exit {proc.returncode}: {' '.join(argv[:8])} ...")
    return subprocess.CompletedProcess(argv, proc.returncode, out, None)


# ---------------------------------------------------------------------------------------------
# Network: two namespaces and a veth pair, or loopback


class Network:
    mode = "none"
    note = ""

    def __init__(self, tag: str) -> None:
        self.tag = tag
        self.server_ns = f"smbgen-s-{tag}"
        self.client_ns = f"smbgen-c-{tag}"
        self.veth_s = f"sgs{tag}"[:15]
        self.veth_c = f"sgc{tag}"[:15]
        self.made_ns: list[str] = []
        self.server_v4, self.client_v4 = SERVER_V4, CLIENT_V4
        self.server_v6, self.client_v6 = SERVER_V6, CLIENT_V6
        self.capture_if = self.veth_c

    def server(self, argv: list[str]) -> list[str]:
        return ["ip", "netns", "exec", self.server_ns, *argv] if self.mode == "netns" else argv

    def client(self, argv: list[str]) -> list[str]:
        return ["ip", "netns", "exec", self.client_ns, *argv] if self.mode == "netns" else argv

    def setup(self, allow_loopback: bool, force_loopback: bool = False) -> None:
        if force_loopback:
            self._setup_loopback()
            return
        try:
            self._setup_netns()
            self.mode = "netns"
            self.note = (f"network namespaces {self.server_ns}/{self.client_ns}, veth MTU 1500, "
                         "offloads off")
            return
        except Fatal as err:
            self.teardown()
            if not allow_loopback:
                raise
            log(f"cannot make network namespaces ({str(err).splitlines()[0]})")
        self._setup_loopback()

    def _setup_netns(self) -> None:
        if os.geteuid() != 0:
            raise Fatal("network namespaces need root")
        for ns in (self.server_ns, self.client_ns):
            run(["ip", "netns", "add", ns])
            self.made_ns.append(ns)
        run(["ip", "link", "add", self.veth_s, "mtu", "1500", "type", "veth", "peer", "name",
             self.veth_c, "mtu", "1500"])
        run(["ip", "link", "set", self.veth_s, "netns", self.server_ns])
        run(["ip", "link", "set", self.veth_c, "netns", self.client_ns])
        for ns, dev, v4, v6 in ((self.server_ns, self.veth_s, SERVER_V4, SERVER_V6),
                                (self.client_ns, self.veth_c, CLIENT_V4, CLIENT_V6)):
            ex = ["ip", "netns", "exec", ns]
            run(ex + ["ip", "link", "set", "lo", "up"])
            run(ex + ["ip", "addr", "add", f"{v4}/24", "dev", dev])
            run(ex + ["ip", "-6", "addr", "add", f"{v6}/64", "dev", dev, "nodad"])
            # Without these the kernel hands the capture 64 KiB super-segments.
            run(ex + ["ethtool", "-K", dev, "tso", "off", "gso", "off", "gro", "off", "tx", "off",
                      "rx", "off"], quiet=True, check=False)
            run(ex + ["ip", "link", "set", dev, "up"])

    def set_mtu(self, mtu: int) -> None:
        if self.mode != "netns":
            return  # loopback keeps its own MTU
        for ns, dev in ((self.server_ns, self.veth_s), (self.client_ns, self.veth_c)):
            run(["ip", "netns", "exec", ns, "ip", "link", "set", dev, "mtu", str(mtu)])

    def _setup_loopback(self) -> None:
        self.mode = "loopback"
        self.server_v4 = self.client_v4 = "127.0.0.1"
        self.server_v6 = self.client_v6 = "::1"
        self.capture_if = "lo"
        self.note = ("LOOPBACK FALLBACK: no network namespaces; segments are loopback-sized (up to "
                     "64 KiB), not wire-sized, so reassembly across segments is barely exercised")
        log(self.note)
        with socket.socket() as s:
            if s.connect_ex(("127.0.0.1", 445)) == 0:
                raise Fatal("loopback fallback: something already listens on 127.0.0.1:445")

    def teardown(self) -> None:
        for ns in reversed(self.made_ns):
            # Anything still running in a namespace we made was started by this run.
            pids = run(["ip", "netns", "pids", ns], check=False, quiet=True).stdout.split()
            for pid in pids:
                try:
                    os.kill(int(pid), signal.SIGKILL)
                except (ProcessLookupError, ValueError):
                    pass
            run(["ip", "netns", "del", ns], check=False, quiet=True)
        self.made_ns.clear()


# ---------------------------------------------------------------------------------------------
# Samba server and client configuration


class Samba:
    def __init__(self, root: Path, net: Network, procs: Processes) -> None:
        self.root, self.net, self.procs = root, net, procs
        self.conf = root / "smb.conf"
        self.client_conf = root / "client.conf"
        self.auth = root / "auth.txt"
        self.smbd: subprocess.Popen | None = None
        self.dcerpcd: subprocess.Popen | None = None
        self.smb1 = False
        # "default" offers signing; "mandatory" sets SMB2_NEGOTIATE_SIGNING_REQUIRED in the
        # NEGOTIATE response (this Samba still lets a guest session, which cannot sign, go on
        # unsigned).
        self.signing = "default"

    def shares(self) -> dict[str, Path]:
        return {SHARE: self.root / "share", SHARE_ENC: self.root / "secure",
                SHARE_LONG: self.root / "long", SHARE_RO: self.root / "readonly",
                ADMIN_SHARE: self.root / "admin"}

    def write_config(self) -> None:
        r = self.root
        self.write_server_config()
        (r / "users.map").write_text(f"{USER} = {' '.join(ACCOUNTS)}\n")
        self.client_conf.write_text(f"""[global]
{self.dirs("c")}   client min protocol = NT1
   client max protocol = SMB3
""")
        self.auth.write_text(f"username = {USER}\npassword = {PASSWORD}\ndomain = SMBGEN\n")
        self.auth.chmod(0o600)
        for user, (domain, _) in ACCOUNTS.items():
            for tag, password in (("", PASSWORD), ("-wrong", PASSWORD + "-wrong")):
                f = r / f"auth-{user}{tag}.txt"
                f.write_text(f"username = {user}\npassword = {password}\ndomain = {domain}\n")
                f.chmod(0o600)
        run(["smbpasswd", "-c", str(self.conf), "-L", "-s", "-a", USER],
            input=f"{PASSWORD}\n{PASSWORD}\n")

    def dirs(self, prefix: str) -> str:
        r = self.root
        return f"""   private dir = {r}/{prefix}private
   lock directory = {r}/{prefix}lock
   state directory = {r}/{prefix}state
   cache directory = {r}/{prefix}cache
   pid directory = {r}/run
   ncalrpc dir = {r}/run/ncalrpc
   binddns dir = {r}/run/bind-dns
   workgroup = SMBGEN
   disable netbios = yes
   load printers = no
   printing = bsd
   printcap name = /dev/null
   disable spoolss = yes
"""

    def write_server_config(self) -> None:
        r = self.root
        for d in ("private", "lock", "state", "cache", "run", "log", "cprivate", "clock",
                  "cstate", "ccache"):
            (r / d).mkdir(parents=True, exist_ok=True)
        for p in self.shares().values():
            p.mkdir(exist_ok=True)
        interfaces = f"{self.net.server_v4} {self.net.server_v6}"
        signing = "" if self.signing == "default" else f"   server signing = {self.signing}\n"
        self.conf.write_text(f"""[global]
{self.dirs("")}   netbios name = SMBGEN
   server role = standalone server
   security = user
   passdb backend = tdbsam:{r}/private/passdb.tdb
   username map = {r}/users.map
   log file = {r}/log/smbd.%m.log
   log level = 1
   max log size = 0
   interfaces = {interfaces}
   bind interfaces only = yes
   smb ports = 445
   server min protocol = NT1
   server max protocol = SMB3
   ntlm auth = yes
{signing}   map to guest = bad user
   obey pam restrictions = no
   kernel oplocks = no
   kernel change notify = no
   store dos attributes = no
   ea support = no
   rpc start on demand helpers = no

[{SHARE}]
   path = {r}/share
   read only = no

[{SHARE_ENC}]
   path = {r}/secure
   read only = no
   server smb encrypt = required

[{SHARE_LONG}]
   path = {r}/long
   read only = no

[{SHARE_RO}]
   path = {r}/readonly
   read only = yes

[{ADMIN_SHARE}]
   path = {r}/admin
   read only = no
""")

    def start(self, probe_smb1: bool = True) -> None:
        out = open(self.root / "log" / "smbd.stdout", "a")
        # smbd signals its process group when it exits: it gets a session of its own
        # (Processes.start uses setsid) and is told not to make a process group of its own.
        self.smbd = self.procs.start(
            "smbd", self.net.server(["smbd", "--foreground", "--no-process-group",
                                     "--debug-stdout", f"--configfile={self.conf}"]),
            stdout=out, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL)
        deadline = time.time() + 20
        while True:
            if self.smbd.poll() is not None:
                raise Fatal(f"smbd exited with {self.smbd.returncode}; see {self.root}/log")
            ss = run(self.net.server(["ss", "-Hltn", "sport", "= :445"]), check=False, quiet=True)
            if ":445" in ss.stdout and self.net.server_v4 in ss.stdout:
                break
            if time.time() > deadline:
                raise Fatal("smbd does not listen on port 445")
            time.sleep(0.2)
        if probe_smb1:
            self.smb1 = self._probe_smb1()

    def restart_smbd(self, signing: str) -> None:
        """smbd again under another signing setting (a global one in Samba); the RPC servers
        and what the first start found out about SMB1 stay."""
        if signing == self.signing:
            return
        if self.smbd is not None:
            self.procs.stop(self.smbd)
            self.smbd = None
        self.signing = signing
        self.write_server_config()
        self.start(probe_smb1=False)

    def _probe_smb1(self) -> bool:
        r = run(self.smbclient(SHARE, "NT1", ["ls"], family=4), check=False, quiet=True,
                timeout=30)
        return r.returncode == 0

    def start_rpc(self) -> None:
        """The RPC servers behind the named pipes (smbd starts none on demand here)."""
        if self.dcerpcd is not None:
            return
        out = open(self.root / "log" / "dcerpcd.stdout", "w")
        self.dcerpcd = self.procs.start(
            "samba-dcerpcd", self.net.server([SAMBA_DCERPCD, "--libexec-rpcds", "--foreground",
                                              "--no-process-group", "--debug-stdout",
                                              f"--configfile={self.conf}"]),
            stdout=out, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL)
        deadline = time.time() + 20
        while not any((self.root / "run" / "ncalrpc" / "np").glob("*")):
            if self.dcerpcd.poll() is not None:
                raise Fatal(f"samba-dcerpcd exited with {self.dcerpcd.returncode}")
            if time.time() > deadline:
                raise Fatal("samba-dcerpcd does not serve the named pipes")
            time.sleep(0.2)

    def stop(self) -> None:
        if self.dcerpcd is not None:
            self.procs.stop(self.dcerpcd)
            self.dcerpcd = None
        if self.smbd is not None:
            self.procs.stop(self.smbd)
            self.smbd = None

    def unc(self, share: str, family: int) -> str:
        host = self.net.server_v4 if family == 4 else self.net.server_v6
        return f"//{host}/{share}"

    def credentials(self, account: str) -> list[str]:
        """smbclient's and rpcclient's options for an account: "" the default user, "alice" or
        "bob" (with ":wrong" a wrong password), "anonymous" none at all. Each named account
        logs on from a workstation of its own."""
        if account == "anonymous":
            return ["-U", "%", "-N"]
        if not account:
            return ["-A", str(self.auth)]
        user, _, wrong = account.partition(":")
        return ["-A", str(self.root / f"auth-{user}{'-wrong' if wrong else ''}.txt"),
                f"--netbiosname={ACCOUNTS[user][1]}"]

    def smbclient(self, share: str, proto: str, cmds: list[str], family: int = 4,
                  protection: str = "", guest: bool = False, account: str = "") -> list[str]:
        """An smbclient session running cmds on the share; a guest one (a user name the server
        does not know, mapped to guest) lists the server's shares instead, and so does one
        without commands."""
        who = ["-U", f"{GUEST_USER}%x"] if guest else self.credentials(account)
        what = ["-L", self.unc("", family).rstrip("/")] if guest or not cmds else [
            self.unc(share, family), "-c", "; ".join(cmds)]
        argv = ["smbclient", "-s", str(self.client_conf), *who, "-m", proto, "--option",
                f"client min protocol={proto}" if proto == "NT1" else
                "client min protocol=SMB2_02", *what]
        if protection:
            argv += [f"--client-protection={protection}"]
        return self.net.client(argv)

    def impacket(self, share: str, dialect: str, tag: str, activity: bool = False) -> list[str]:
        """The impacket client (Debian's python3-impacket, for the system interpreter)."""
        host = self.net.server_v4
        extra = [SHARE_RO, str(HUGE_SIZE)] if activity else []
        return self.net.client([IMPACKET_PYTHON, str(Path(__file__).with_name("impacket_client.py")),
                                host, share, USER, PASSWORD, dialect, tag, *extra])

    def rpcclient(self, cmds: list[str], account: str = "") -> list[str]:
        host = self.net.server_v4
        return self.net.client(["rpcclient", "-s", str(self.client_conf),
                                *self.credentials(account), "-c", "; ".join(cmds), host])

    def impacket_rpc(self, account: str) -> list[str]:
        """impacket's service control and task scheduler calls (impacket_rpc.py)."""
        domain = ACCOUNTS[account][0]
        return self.net.client([IMPACKET_PYTHON, str(Path(__file__).with_name("impacket_rpc.py")),
                                self.net.server_v4, account, PASSWORD, domain])

    def smbtorture(self, share: str, tests: list[str]) -> list[str]:
        return self.net.client(["smbtorture", "-s", str(self.client_conf), "-A", str(self.auth),
                                self.unc(share, 4), *tests])


# ---------------------------------------------------------------------------------------------
# Capture


class Capture:
    def __init__(self, net: Network, procs: Processes, path: Path) -> None:
        self.net, self.procs, self.path = net, procs, path
        self.proc: subprocess.Popen | None = None
        self.errlog = path.with_suffix(".tcpdump.log")

    def __enter__(self) -> "Capture":
        err = open(self.errlog, "w")
        # Whole packets, each written at once, a 16 MiB kernel buffer (loopback bursts).
        argv = ["tcpdump", "-i", self.net.capture_if, "-s", "0", "-U", "--immediate-mode",
                "-B", "16384", "-n", "-Z", "root", "-w", str(self.path), "tcp port 445"]
        self.proc = self.procs.start("tcpdump", self.net.client(argv), stdout=subprocess.DEVNULL,
                                     stderr=err, stdin=subprocess.DEVNULL)
        deadline = time.time() + 10
        while "listening on" not in self.errlog.read_text():
            if self.proc.poll() is not None:
                raise Fatal(f"tcpdump exited: {self.errlog.read_text()}")
            if time.time() > deadline:
                raise Fatal("tcpdump does not start")
            time.sleep(0.05)
        return self

    def __exit__(self, *exc) -> None:
        time.sleep(0.3)  # let the last FIN/ACKs reach the buffer
        if self.proc is not None:
            self.procs.stop(self.proc, signal.SIGINT)
        stats = self.errlog.read_text()
        self.errlog.unlink(missing_ok=True)
        dropped = [ln for ln in stats.splitlines() if "dropped by kernel" in ln]
        if dropped and not dropped[0].startswith("0 "):
            raise Fatal(f"tcpdump lost packets: {dropped[0]}")


# ---------------------------------------------------------------------------------------------
# Scenarios


@dataclass
class Session:
    kind: str  # "smbclient", "smbtorture", "impacket", "rpcclient" or "impacket_rpc"
    share: str = SHARE
    proto: str = "SMB3"
    family: int = 4
    protection: str = ""  # smbclient: "sign" or "encrypt"
    guest: bool = False  # smbclient: a guest session listing the shares
    activity: bool = False  # impacket: renames, deletes, failures and several-MiB I/O too
    cmds: list[str] = field(default_factory=list)
    tests: list[str] = field(default_factory=list)
    dialect: str = ""  # impacket: 1, 2.0.2, 2.1 or 3.0
    timeout: float = 60
    account: str = ""  # see Samba.credentials


@dataclass
class Scenario:
    name: str
    what: str
    sessions: list[Session]
    needs_smb1: bool = False
    needs_impacket: bool = False
    needs_rpc: bool = False  # the RPC servers behind the named pipes
    mtu: int = 1500
    server_signing: str = "default"  # "mandatory": smbd restarted to require signing


COMPOUND_TESTS = [f"smb2.compound.{t}" for t in (
    "related1", "related2", "related3", "related4", "related5", "related6", "related7", "related8",
    "related9", "unrelated1", "invalid1", "invalid2", "invalid3", "invalid4", "compound-padding",
    "create-write-close")] + [
    "smb2.compound_find.compound_find_related", "smb2.compound_find.compound_find_unrelated",
    "smb2.compound_async"]
OPLOCK_LOCK_TESTS = [
    "smb2.oplock.exclusive1", "smb2.oplock.batch1", "smb2.oplock.levelii500", "smb2.oplock.doc",
    "smb2.notify.dir", "smb2.notify.tdis", "smb2.lock.valid-request", "smb2.lock.cancel",
    "smb2.compound.interim1", "smb2.compound.compound-break",
    "smb2.delete-on-close-perms.READONLY", "smb2.delete-on-close-perms.CREATE"]
# Handle and lease state across reconnects: leases (v1 and v2, breaks, upgrades, renames and
# unlinks under a lease) and durable handles (v1 and v2, reopened on a new connection).
LEASE_DURABLE_TESTS = [
    "smb2.lease.request", "smb2.lease.break", "smb2.lease.upgrade", "smb2.lease.v2_request",
    "smb2.lease.v2_rename", "smb2.lease.unlink", "smb2.lease.breaking3",
    "smb2.durable-open.open-oplock", "smb2.durable-open.reopen1",
    "smb2.durable-open.delete_on_close1", "smb2.durable-v2-open.create-blob",
    "smb2.durable-v2-open.reopen2", "smb2.durable-v2-open.durable-v2-setinfo"]
# The rest of what a file server sees: change notify (completions, cancels at close and
# logoff), IOCTLs (resume keys, server-side copy, sparse files, VALIDATE_NEGOTIATE), info
# classes, directory listings, streams, renames, reads at and past the end, create contexts,
# reconnects and re-authentication.
SERVER_TESTS = [
    "smb2.notify.valid-req", "smb2.notify.close", "smb2.notify.logoff",
    "smb2.notify.double", "smb2.ioctl.shadow_copy", "smb2.ioctl.req_resume_key",
    "smb2.ioctl.copy_chunk_simple", "smb2.ioctl.copy_chunk_bad_key",
    "smb2.ioctl.sparse_file_flag", "smb2.ioctl.bug14788.VALIDATE_NEGOTIATE",
    "smb2.getinfo.complex", "smb2.getinfo.fsinfo", "smb2.setinfo", "smb2.dir.find",
    "smb2.dir.one", "smb2.streams.io", "smb2.streams.rename", "smb2.rename.simple",
    "smb2.read.eof", "smb2.read.position", "smb2.create.open", "smb2.create.blob",
    "smb2.session.reconnect1", "smb2.session.reauth1"]
# compound_find_close is left out: it creates 5000 files (10 MB of capture).
SEGMENTED_TESTS = [f"smb2.compound.{t}" for t in (
    "related1", "related3", "unrelated1", "create-write-close")] + [
    "smb2.compound_find.compound_find_related"]


def q(name: str) -> str:
    return f'"{name}"'


def file_ops(tag: str) -> list[str]:
    """The everyday file operations, in a directory of their own."""
    d = f"dir_{tag}"
    return [f"mkdir {d}", f"cd {d}", "put small.txt a.txt", "ls", "get a.txt got_a.txt",
            "rename a.txt b.txt", "put small.txt c.txt", "ls", "rm b.txt", "rm c.txt", "cd ..",
            f"rmdir {d}", "get no_such_file.txt missing.txt", "ls"]


SCENARIOS: list[Scenario] = [
    Scenario("smb2_ops", "SMB 2.1 and 2.0.2 dialects: mkdir, put, get, ls, rename, rm, rmdir "
             "(delete by disposition), failed open",
             [Session("smbclient", proto="SMB2_10", cmds=file_ops("smb2")),
              Session("smbclient", proto="SMB2_02", cmds=["put small.txt s202.txt", "ls",
                                                          "get s202.txt got.txt", "rm s202.txt"])]),
    Scenario("smb3_ops", "SMB 3.1.1 dialect: the same operations and a delete by disposition",
             [Session("smbclient", proto="SMB3_11", cmds=file_ops("smb3")),
              Session("smbtorture", tests=["smb2.delete-on-close-perms.FIND_and_set_DOC"])]),
    Scenario("smb3_encrypted", "SMB 3.1.1 on a share that requires encryption",
             [Session("smbclient", share=SHARE_ENC, proto="SMB3_11", protection="encrypt",
                      cmds=["mkdir enc", "put small.txt enc/a.txt", "ls enc/*",
                            "get enc/a.txt got.txt", "rm enc/a.txt", "rmdir enc"])]),
    Scenario("smb1_ops", "SMB1 (NT1) dialect: the everyday operations",
             [Session("smbclient", proto="NT1", cmds=file_ops("smb1"))], needs_smb1=True),
    Scenario("ipv6_ops", "SMB 3.1.1 over IPv6",
             [Session("smbclient", proto="SMB3_11", family=6, cmds=file_ops("v6"))]),
    Scenario("names", "long and non-ASCII names, a share path longer than 63 UTF-16 units",
             [Session("smbclient", proto="SMB3_11",
                      cmds=[f"put small.txt {q(n)}" for n in NAMES] + [
                          f"mkdir {q('Verzeichnis_ä')}", "ls", f"get {q(ASTRAL_NAME)} got.txt"]
                      + [f"rm {q(n)}" for n in NAMES] + [f"rmdir {q('Verzeichnis_ä')}"]),
              Session("smbclient", share=SHARE_LONG, proto="SMB3_11",
                      cmds=["put small.txt in_long_share.txt", "ls", "rm in_long_share.txt"])]),
    Scenario("large_io", f"a {LARGE_SIZE // 1024} KiB file written and read back: READ and WRITE "
             "span many TCP segments",
             [Session("smbclient", proto="SMB3_11",
                      cmds=["put large.bin large.bin", "get large.bin got_large.bin",
                            "rm large.bin"])]),
    Scenario("compound", "compound chains from smbtorture: related, unrelated and invalid",
             [Session("smbtorture", tests=COMPOUND_TESTS, timeout=120)]),
    Scenario("oplocks_locks", "oplock breaks and their acknowledgments, change notify and its "
             "cancel, byte-range locks and a cancelled wait, delete-on-close checks (smbtorture)",
             [Session("smbtorture", tests=OPLOCK_LOCK_TESTS, timeout=120)]),
    Scenario("leases_durable", "leases and durable handles (smbtorture): breaks, upgrades, "
             "renames and unlinks under a lease, handles reopened on a new connection",
             [Session("smbtorture", tests=LEASE_DURABLE_TESTS, timeout=240)]),
    Scenario("server_ops", "change notify, IOCTLs (server-side copy, sparse files), info "
             "classes, directory listings, streams, renames, reads past the end, reconnects "
             "(smbtorture)",
             [Session("smbtorture", tests=SERVER_TESTS, timeout=240)]),
    Scenario("impacket_ops", "another client (impacket) in SMB 2.0.2, 2.1 and 3.0: mkdir, put, "
             "get, ls, rename, rm, rmdir, failed open",
             [Session("impacket", dialect=d) for d in ("2.0.2", "2.1", "3.0")],
             needs_impacket=True),
    Scenario("impacket_smb1", "another client (impacket) in SMB1: the same operations",
             [Session("impacket", dialect="1")], needs_smb1=True, needs_impacket=True),
    Scenario("compound_segmented", "compound chains over a 296-byte MTU, so that chains span "
             "several TCP segments",
             [Session("smbtorture", tests=SEGMENTED_TESTS, timeout=120)], mtu=296),
    Scenario("activity_smbclient", f"SMB 3.0.2 with signing: a {HUGE_SIZE >> 20} MiB file "
             "written and read back, renamed twice and deleted, an open that is not found and "
             "writes refused on a read-only share; a guest session listing the shares",
             [Session("smbclient", proto="SMB3_02", protection="sign",
                      cmds=["put huge.bin huge.bin", "get huge.bin got_huge.bin",
                            "rename huge.bin moved.bin", "rename moved.bin final.bin",
                            "rm final.bin", "get no_such_file.txt missing.txt"]),
              Session("smbclient", share=SHARE_RO, proto="SMB3_11",
                      cmds=["put small.txt denied.txt", "mkdir denied_dir", "ls"]),
              Session("smbclient", proto="SMB3_11", guest=True)]),
    Scenario("activity_impacket", "another client (impacket) in SMB 3.0 and 2.1: "
             f"{HUGE_SIZE >> 20} MiB in single READ and WRITE messages, renames, deletes by "
             "FileDispositionInformation and its Ex form, access denied and not found",
             [Session("impacket", dialect="3.0", activity=True),
              Session("impacket", dialect="2.1", activity=True)], needs_impacket=True),
    Scenario("identities", "sessions of two accounts in two domains from two workstations "
             "(alice, bob), a failed logon (wrong password) and an anonymous session",
             [Session("smbclient", proto="SMB3_11", account="alice",
                      cmds=["put small.txt alice.txt", "ls", "rm alice.txt"]),
              Session("smbclient", proto="SMB2_10", account="bob",
                      cmds=["put small.txt bob.txt", "get bob.txt got_bob.txt", "rm bob.txt"]),
              Session("smbclient", proto="SMB3_11", account="alice:wrong", cmds=["ls"]),
              Session("smbclient", proto="SMB3_11", account="anonymous")], needs_rpc=True),
    Scenario("rpc_rpcclient", "Samba's rpcclient over IPC$: srvsvc, wkssvc, samr and lsarpc "
             "calls from two accounts",
             [Session("rpcclient", account="alice",
                      cmds=["srvinfo", "netshareenumall", "wkssvc_wkstagetinfo", "enumdomusers",
                            "querydominfo", "lsaquery", "lookupnames root"]),
              Session("rpcclient", account="bob",
                      cmds=["netsharegetinfo share", "wkssvc_enumerateusers", "enumdomgroups",
                            "lsaenumsid"])], needs_rpc=True),
    Scenario("signing_required", "a server that requires signing: SMB 3.1.1, 3.0.2 and 2.0.2 "
             "sessions of two accounts (AES-CMAC and HMAC-SHA256 signatures), impacket in 2.1, "
             "and a guest session that cannot sign",
             [Session("smbclient", proto="SMB3_11",
                      cmds=["put small.txt signed.txt", "ls", "get signed.txt got_signed.txt",
                            "rename signed.txt signed2.txt", "rm signed2.txt"]),
              Session("smbclient", proto="SMB3_02", account="bob",
                      cmds=["put large.bin signed_large.bin", "get signed_large.bin got.bin",
                            "rm signed_large.bin", "get no_such_file.txt missing.txt"]),
              Session("smbclient", proto="SMB2_02", account="alice",
                      cmds=["put small.txt s202.txt", "ls", "rm s202.txt"]),
              Session("impacket", dialect="2.1"),
              Session("smbclient", proto="SMB3_11", guest=True)],
             needs_impacket=True, server_signing="mandatory"),
    Scenario("rpc_impacket", "impacket writes to ADMIN$ and calls svcctl (OpenSCManagerW, "
             "CreateServiceW, OpenServiceW, StartServiceW, DeleteService), then binds and calls "
             "ITaskSchedulerService and atsvc",
             [Session("impacket_rpc", account="bob")], needs_impacket=True, needs_rpc=True),
]


# Debian's python3-impacket is installed for the system interpreter, which need not be the
# python3 first on PATH.
IMPACKET_PYTHON = "/usr/bin/python3"


def have_impacket() -> bool:
    return run([IMPACKET_PYTHON, "-c", "import impacket.smbconnection"], check=False,
               quiet=True).returncode == 0


def make_local_files(work: Path) -> None:
    (work / "small.txt").write_text("hello from smbgen\n" * 4)
    chunk = bytes(range(256)) * 4
    with open(work / "large.bin", "wb") as f:
        for i in range(LARGE_SIZE // len(chunk)):
            f.write(bytes((b + i) & 0xFF for b in chunk))
    with open(work / "huge.bin", "wb") as f:
        for i in range(HUGE_SIZE // len(chunk)):
            f.write(chunk[i & 0xFF:] + chunk[:i & 0xFF])


def run_scenario(sc: Scenario, samba: Samba, net: Network, procs: Processes, out: Path,
                 work: Path) -> str:
    pcap = out / f"{sc.name}.pcap"
    tmp = work / f"{sc.name}.pcap"
    tmp.unlink(missing_ok=True)
    results = []
    if sc.needs_rpc:
        samba.start_rpc()
    samba.restart_smbd(sc.server_signing)
    net.set_mtu(sc.mtu)
    with Capture(net, procs, tmp):
        for s in sc.sessions:
            if s.kind == "smbclient":
                argv = samba.smbclient(s.share, s.proto, s.cmds, s.family, s.protection,
                                       s.guest, s.account)
            elif s.kind == "rpcclient":
                argv = samba.rpcclient(s.cmds, s.account)
            elif s.kind == "impacket_rpc":
                argv = samba.impacket_rpc(s.account)
            elif s.kind == "impacket":
                argv = samba.impacket(s.share, s.dialect, f"{sc.name}{len(results)}", s.activity)
            else:
                argv = samba.smbtorture(s.share, s.tests)
            r = run(argv, check=False, timeout=s.timeout, quiet=True)
            results.append(r.returncode)
            (work / f"{sc.name}.{len(results)}.log").write_text(r.stdout)
    net.set_mtu(1500)
    shutil.copyfile(tmp, pcap)
    count = run(["tshark", "-r", str(pcap), "-T", "fields", "-e", "frame.number"], check=False,
                quiet=True, timeout=120).stdout.count("\n")
    log(f"{sc.name}: {count} packets, {pcap.stat().st_size} bytes, session exits {results}")
    return f"{sc.name}.pcap: {sc.what} ({count} packets)"


def _terminate(signum, frame) -> None:
    raise SystemExit(128 + signum)  # unwinds through the clean-up below


def main() -> int:
    signal.signal(signal.SIGTERM, _terminate)
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--out", required=True, help="directory for the captures")
    ap.add_argument("--scenario", action="append", help="run only these (repeatable)")
    ap.add_argument("--list", action="store_true", help="list the scenarios and exit")
    ap.add_argument("--keep", action="store_true", help="keep the work directory")
    ap.add_argument("--no-loopback", action="store_true",
                    help="fail instead of falling back to loopback")
    ap.add_argument("--loopback", action="store_true",
                    help="use loopback without trying network namespaces")
    args = ap.parse_args()
    if args.list:
        for sc in SCENARIOS:
            print(f"{sc.name:16} {sc.what}")
        return 0
    chosen = [sc for sc in SCENARIOS if not args.scenario or sc.name in args.scenario]
    unknown = set(args.scenario or []) - {sc.name for sc in SCENARIOS}
    if unknown:
        log(f"unknown scenario(s): {', '.join(sorted(unknown))}")
        return 2
    for tool in ("smbd", "smbclient", "smbpasswd", "tcpdump", "tshark", "ip"):
        if shutil.which(tool) is None:
            log(f"SKIP: {tool} is not installed (tools/install-deps.sh installs it)")
            return 77
    if os.geteuid() != 0:
        log("SKIP: smbd on port 445, network namespaces and tcpdump need root")
        return 77
    out = Path(args.out).resolve()
    out.mkdir(parents=True, exist_ok=True)
    work = Path(tempfile.mkdtemp(prefix="smbgen-"))
    os.chmod(work, 0o755)
    procs = Processes()
    net = Network(str(os.getpid()))
    samba = Samba(work, net, procs)
    status = 0
    lines = []
    try:
        net.setup(allow_loopback=not args.no_loopback, force_loopback=args.loopback)
        make_local_files(work)
        samba.write_config()
        samba.start()
        log(f"network: {net.note}; SMB1 {'allowed' if samba.smb1 else 'refused by the server'}")
        os.chdir(work)
        for sc in chosen:
            skip = None
            if sc.needs_smb1 and not samba.smb1:
                skip = "the server does not accept SMB1"
            elif sc.needs_impacket and not have_impacket():
                skip = "python3-impacket is not installed"
            if skip:
                log(f"{sc.name}: skipped, {skip}")
                lines.append(f"# skipped {sc.name}: {skip}")
                continue
            lines.append(run_scenario(sc, samba, net, procs, out, work))
        (out / "MANIFEST.txt").write_text(f"# network: {net.note}\n" + "\n".join(lines) + "\n")
    except Fatal as err:
        log(f"error: {err}")
        status = 1
    finally:
        samba.stop()
        procs.stop_all()
        net.teardown()
        if args.keep:
            log(f"work directory kept: {work}")
        else:
            shutil.rmtree(work, ignore_errors=True)
    return status


if __name__ == "__main__":
    sys.exit(main())
