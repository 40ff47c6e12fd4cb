"""What tshark dissects in a capture: TCP segments, NetBIOS session messages, SMB messages.

tshark's PDML output keeps the order of the protocol layers inside a frame, so the SMB2
messages of a compound chain stay with the session message that carries them. Each session
message (PDU) is placed at the segment where it begins, as the plug-in meets it on the wire:
the first segment of a message that spans several carries its header.
"""

from __future__ import annotations

import codecs
import re
import subprocess
import xml.etree.ElementTree as ET
from dataclasses import dataclass, field

# SMB2 command codes (MS-SMB2 2.2.1)
NEGOTIATE, SESSION_SETUP, LOGOFF, TREE_CONNECT, TREE_DISCONNECT, CREATE, CLOSE, FLUSH, READ, \
    WRITE, LOCK, IOCTL, CANCEL, ECHO, QUERY_DIRECTORY, CHANGE_NOTIFY, QUERY_INFO, SET_INFO, \
    OPLOCK_BREAK = range(19)

COMMAND_NAMES = ["NEGOTIATE", "SESSION_SETUP", "LOGOFF", "TREE_CONNECT", "TREE_DISCONNECT",
                 "CREATE", "CLOSE", "FLUSH", "READ", "WRITE", "LOCK", "IOCTL", "CANCEL", "ECHO",
                 "QUERY_DIRECTORY", "CHANGE_NOTIFY", "QUERY_INFO", "SET_INFO", "OPLOCK_BREAK"]

FLAG_RESPONSE, FLAG_ASYNC, FLAG_RELATED, FLAG_SIGNED = 0x1, 0x2, 0x4, 0x8
STATUS_PENDING = 0x00000103
FILE_DELETE_ON_CLOSE = 0x00001000
FILE_ATTRIBUTE_DIRECTORY = 0x10


@dataclass
class Smb2Message:
    """One SMB2 message as tshark dissects it. Body fields are None when tshark shows none."""
    offset: int  # of its header from the start of the session message's SMB data
    size: int  # bytes tshark gives the message (to the next one in a chain)
    command: int
    flags: int
    status: int
    message_id: int
    tree_id: int | None  # None for an async header
    next_command: int
    path: bytes | None = None  # TREE_CONNECT request: share path, raw UTF-16LE
    name: bytes | None = None  # CREATE request: file name, raw UTF-16LE
    disposition: int | None = None  # CREATE request
    create_options: int | None = None  # CREATE request
    action: int | None = None  # CREATE response
    attributes: int | None = None  # CREATE response
    file_id: int | None = None  # first 8 bytes of the FileId (or an oplock break's lease key)
    info_type: int | None = None  # SET_INFO
    info_class: int | None = None  # SET_INFO
    delete_pending: int | None = None  # SET_INFO FileDispositionInformation
    # What the activity counters read (None where tshark shows nothing):
    dialect: int | None = None  # NEGOTIATE response DialectRevision
    security_mode: int | None = None  # NEGOTIATE response
    session_flags: int | None = None  # SESSION_SETUP response
    data_length: int | None = None  # READ response DataLength
    write_count: int | None = None  # WRITE response Count
    rename_to: bytes | None = None  # SET_INFO FileRenameInformation: the new name, UTF-16LE
    info_flags: int | None = None  # SET_INFO FileDispositionInformationEx: Flags
    # What the identity and remote-call fields read:
    session_id: int = 0
    auth: tuple | None = None  # SESSION_SETUP request AUTHENTICATE: raw user, domain, host
    ctl_code: int | None = None  # IOCTL request
    rpc: list = field(default_factory=list)  # DcerpcPdu the message carries

    @property
    def is_response(self) -> bool:
        return bool(self.flags & FLAG_RESPONSE)

    @property
    def is_async(self) -> bool:
        return bool(self.flags & FLAG_ASYNC)

    @property
    def is_related(self) -> bool:
        return bool(self.flags & FLAG_RELATED)

    def label(self) -> str:
        name = COMMAND_NAMES[self.command] if self.command < 19 else f"cmd {self.command}"
        return f"{name} {'response' if self.is_response else 'request'} mid {self.message_id}"


@dataclass
class DcerpcPdu:
    """A connection-oriented DCE/RPC PDU as tshark dissects it."""
    ptype: int
    flags: int
    contexts: list  # BIND / ALTER_CONTEXT: (context id, interface UUID text, tshark's name)
    context_id: int | None = None  # REQUEST
    opnum: int | None = None  # REQUEST


@dataclass
class Pdu:
    """One NetBIOS session message and what it carries."""
    kind: str  # "smb2", "smb1", "transform", "other"
    length: int  # session message length (without the 4-byte header)
    first_frame: int
    last_frame: int
    messages: list[Smb2Message] = field(default_factory=list)
    smb1_command: int | None = None
    at_segment_start: bool = True  # begins at the first byte of its first segment
    session_id: int = 0  # a transform header's SessionId


@dataclass
class Segment:
    """One TCP segment on the SMB port."""
    number: int
    time: float
    ip_version: int
    src: str
    dst: str
    sport: int
    dport: int
    payload_len: int
    starts: Pdu | None = None  # the session message that begins at its first payload byte


@dataclass
class Capture:
    segments: list[Segment]
    pdus: list[Pdu]


def _int(text: str | None, default: int | None = None) -> int | None:
    if text is None or text == "":
        return default
    return int(text, 0)


def _le(value: str | None) -> int | None:
    """A little-endian integer from a PDML raw value (hex bytes in wire order)."""
    if not value:
        return None
    return int.from_bytes(bytes.fromhex(value), "little")


def _fields(elem: ET.Element, parent: str = "") -> list[tuple[str, str, ET.Element]]:
    """Every field below elem, depth first, with the name of the field that contains it."""
    out = []
    for child in elem:
        if child.tag != "field":
            continue
        name = child.get("name", "")
        out.append((name, parent, child))
        out.extend(_fields(child, name))
    return out


def _first(fields, name: str, *, not_under: str = "", sized: bool = True) -> ET.Element | None:
    for fname, parent, elem in fields:
        if fname == name and not (not_under and parent == not_under) and (
                not sized or int(elem.get("size", "0"))):
            return elem
    return None


def _raw(fields, name: str, **kw) -> int | None:
    """The little-endian value of the first sized field of that name, or None."""
    elem = _first(fields, name, **kw)
    return _le(elem.get("value")) if elem is not None else None


def _smb2_message(proto: ET.Element, base: int) -> Smb2Message | None:
    fields = _fields(proto)
    cmd = _first(fields, "smb2.cmd")
    if cmd is None:
        return None
    flags = _raw(fields, "smb2.flags") or 0
    tid = _first(fields, "smb2.tid")
    msg = Smb2Message(
        offset=int(proto.get("pos", "0")) - base,
        size=int(proto.get("size", "0")),
        command=_int(cmd.get("show")),
        flags=flags,
        status=_raw(fields, "smb2.nt_status") or 0,  # requests of 3.x carry a channel sequence
        message_id=_raw(fields, "smb2.msg_id") or 0,
        tree_id=_le(tid.get("value")) if tid is not None and not flags & FLAG_ASYNC else None,
        next_command=_raw(fields, "smb2.chain_offset") or 0,
    )
    response = msg.is_response
    msg.session_id = _raw(fields, "smb2.sesid") or 0
    if msg.command == SESSION_SETUP and not response:
        msg.auth = _ntlmssp_names(proto)
    elif msg.command == IOCTL and not response:
        msg.ctl_code = _raw(fields, "smb2.ioctl.function")
    if msg.command == TREE_CONNECT and not response:
        path = _first(fields, "smb2.tree", not_under="smb2.tid")
        msg.path = bytes.fromhex(path.get("value")) if path is not None else b""
    elif msg.command == CREATE and not response:
        name = _first(fields, "smb2.filename")
        msg.name = bytes.fromhex(name.get("value")) if name is not None else b""
        msg.disposition = _raw(fields, "smb2.create.disposition")
        msg.create_options = _raw(fields, "smb.create_options")
    elif msg.command == CREATE:
        msg.action = _raw(fields, "smb2.create.action")
        msg.attributes = _raw(fields, "smb2.file_attribute")
    if msg.command in (CLOSE, FLUSH, READ, WRITE, LOCK, IOCTL, QUERY_DIRECTORY, CHANGE_NOTIFY,
                       QUERY_INFO, SET_INFO, OPLOCK_BREAK) and (
            not response or msg.command == OPLOCK_BREAK) or (msg.command == CREATE and response):
        fid = _first(fields, "smb2.fid")
        if fid is None and msg.command == OPLOCK_BREAK:
            fid = _first(fields, "smb2.lease.lease_key")
        if fid is not None and fid.get("value"):
            msg.file_id = int.from_bytes(bytes.fromhex(fid.get("value"))[:8], "little")
    if msg.command == SET_INFO and not response:
        msg.info_type = _raw(fields, "smb2.class")
        for level in ("smb2.file_info.infolevel", "smb2.fs_info.infolevel",
                      "smb2.sec_info.infolevel", "smb2.infolevel"):
            msg.info_class = _raw(fields, level)
            if msg.info_class is not None:
                break
        dp = _first(fields, "smb2.disposition.delete_on_close")
        if dp is not None:  # the whole DeletePending byte, not tshark's one-bit view of it
            msg.delete_pending = int(dp.get("unmaskedvalue") or dp.get("value"), 16)
        _activity_set_info(fields, msg)
    elif response:
        _activity_response(fields, msg)
    return msg


def _ntlmssp_names(proto: ET.Element) -> tuple | None:
    """The raw UTF-16LE user, domain and workstation names of an NTLMSSP AUTHENTICATE message
    anywhere in the message (raw or inside SPNEGO); b"" for an empty one."""
    names = {}
    auth = False
    for f in proto.iter("field"):
        name = f.get("name")
        if name == "ntlmssp.messagetype" and f.get("show") == "0x00000003":
            auth = True
        elif auth and name in ("ntlmssp.auth.username", "ntlmssp.auth.domain",
                               "ntlmssp.auth.hostname") and name not in names:
            # A name that is there has its length as a child; an empty one shows the
            # descriptor itself (tshark's "NULL").
            there = any(c.get("name") == "ntlmssp.string.length" for c in f)
            names[name] = bytes.fromhex(f.get("value", "")) if there else b""
    if not auth:
        return None
    return tuple(names.get(f"ntlmssp.auth.{k}", b"") for k in ("username", "domain", "hostname"))


def _dcerpc_pdu(proto: ET.Element) -> DcerpcPdu | None:
    fields = _fields(proto)
    ptype = _first(fields, "dcerpc.pkt_type")
    if ptype is None:
        return None
    pdu = DcerpcPdu(ptype=_int(ptype.get("show")), flags=_int(
        (_first(fields, "dcerpc.cn_flags") or ptype).get("show"), 0), contexts=[])
    if pdu.ptype in (11, 14):
        ctx = None
        for name, _, e in fields:
            if name == "dcerpc.cn_ctx_id":
                ctx = _int(e.get("show"))
            elif name == "dcerpc.cn_bind_to_uuid" and ctx is not None:
                # showname: "Interface: SRVSVC UUID: 4b324fc8-...", or "Interface: 4b32..."
                shown = e.get("showname", "").removeprefix("Interface: ").split(" UUID: ")
                pdu.contexts.append((ctx, e.get("show"), shown[0] if len(shown) == 2 else None))
                ctx = None
    elif pdu.ptype == 0:
        c, o = _first(fields, "dcerpc.cn_ctx_id"), _first(fields, "dcerpc.opnum")
        pdu.context_id = _int(c.get("show")) if c is not None else None
        pdu.opnum = _int(o.get("show")) if o is not None else None
    return pdu


def _activity_set_info(fields, msg: Smb2Message) -> None:
    if msg.info_type != 1:
        return
    if msg.info_class == 10:
        name = next((e for n, parent, e in fields if n == "smb2.filename"
                     and parent == "smb2.file_rename_info"), None)
        msg.rename_to = bytes.fromhex(name.get("value") or "") if name is not None else b""
    elif msg.info_class == 64:
        # tshark does not dissect FileDispositionInformationEx: its 4-byte Flags are "unknown"
        raw = _first(fields, "smb2.unknown")
        if raw is not None and len(raw.get("value", "")) >= 8:
            msg.info_flags = _le(raw.get("value")[:8])


def _activity_response(fields, msg: Smb2Message) -> None:
    if msg.command == NEGOTIATE:
        msg.dialect = _raw(fields, "smb2.dialect")
        msg.security_mode = _raw(fields, "smb2.sec_mode")
    elif msg.command == SESSION_SETUP:
        msg.session_flags = _raw(fields, "smb2.session_flags")
    elif msg.command == READ:
        msg.data_length = _raw(fields, "smb2.olb.length")  # DataLength, as the data blob's
    elif msg.command == WRITE:
        msg.write_count = _raw(fields, "smb2.write.count")


def _layer(proto_list, name):
    for p in proto_list:
        if p.get("name") == name:
            return p
    return None


def parse_pdml(stream, port: int = 445) -> Capture:
    segments: list[Segment] = []
    pdus: list[Pdu] = []
    last_pdu: dict[tuple, Pdu] = {}  # per stream direction: the latest session message
    for _, packet in ET.iterparse(stream, events=("end",)):
        if packet.tag != "packet":
            continue
        protos = [p for p in packet if p.tag == "proto"]
        tcp = _layer(protos, "tcp")
        ip = _layer(protos, "ip") or _layer(protos, "ipv6")
        frame = _layer(protos, "frame")
        if tcp is None or ip is None:
            packet.clear()
            continue
        tf = _fields(tcp)
        wrapper = _layer(protos, "fake-field-wrapper")  # holds tcp.segments
        wf = _fields(wrapper) if wrapper is not None else []
        f_num = int(_first(_fields(frame), "frame.number", sized=False).get("show"))
        f_time = float(_first(_fields(frame), "frame.time_epoch", sized=False).get("show"))
        v6 = ip.get("name") == "ipv6"
        ipf = _fields(ip)
        src = _first(ipf, "ipv6.src" if v6 else "ip.src").get("show")
        dst = _first(ipf, "ipv6.dst" if v6 else "ip.dst").get("show")
        seg = Segment(number=f_num, time=f_time, ip_version=6 if v6 else 4, src=src, dst=dst,
                      sport=int(_first(tf, "tcp.srcport").get("show")),
                      dport=int(_first(tf, "tcp.dstport").get("show")),
                      payload_len=int(_first(tf, "tcp.len", sized=False).get("show")))
        segments.append(seg)
        reassembled = [int(e.get("show")) for n, _, e in tf + wf if n == "tcp.segment"]
        # Walk the layers above TCP in order: each nbss layer opens a session message and the
        # smb/smb2 layers behind it belong to it.
        current: Pdu | None = None
        nbss_pos = 0
        in_frame: list[Pdu] = []
        for p in protos[protos.index(tcp) + 1:]:
            pname = p.get("name")
            if pname == "nbss":
                nf = _fields(p)
                length = _first(nf, "nbss.length")
                if _first(nf, "nbss.type") is None:
                    current = None  # continuation bytes that tshark could not place
                    continue
                pos = int(p.get("pos", "0"))
                first = f_num
                if reassembled and pos == 0 and not in_frame:
                    first = min(reassembled)
                current = Pdu(kind="other", length=_int(length.get("show"), 0) if length is not None
                              else 0, first_frame=first, last_frame=f_num)
                nbss_pos = pos
                in_frame.append(current)
            elif pname == "smb2" and current is not None:
                pid = _first(_fields(p), "smb2.protocol_id")
                if pid is not None and pid.get("value", "").lower() == "fd534d42":
                    current.kind = "transform"
                    current.session_id = _raw(_fields(p), "smb2.sesid") or 0
                    continue
                msg = _smb2_message(p, nbss_pos + 4)
                if msg is not None:
                    current.kind = "smb2"
                    current.messages.append(msg)
            elif pname == "dcerpc" and current is not None and current.messages:
                rpc = _dcerpc_pdu(p)
                if rpc is not None:
                    current.messages[-1].rpc.append(rpc)
            elif pname == "smb" and current is not None:
                current.kind = "smb1"
                cmd = _first(_fields(p), "smb.cmd")
                current.smb1_command = _int(cmd.get("show")) if cmd is not None else None
        key = (src, seg.sport, dst, seg.dport)
        for pdu in in_frame:
            prev = last_pdu.get(key)
            # A message begins at a segment's first byte unless the one before it in the same
            # direction ends in that segment.
            pdu.at_segment_start = prev is None or prev.last_frame != pdu.first_frame
            last_pdu[key] = pdu
            pdus.append(pdu)
        packet.clear()
    by_number = {s.number: s for s in segments}
    for pdu in pdus:
        seg = by_number.get(pdu.first_frame)
        if seg is not None and pdu.at_segment_start and seg.starts is None:
            seg.starts = pdu
    return Capture(segments=segments, pdus=pdus)


class _Utf8Clean:
    """A byte stream passed on as valid UTF-8: tshark writes some strings (a tree name taken
    from its own state) in another encoding into its PDML, which an XML parser refuses."""

    def __init__(self, raw) -> None:
        self.raw = raw
        self.decoder = codecs.getincrementaldecoder("utf-8")(errors="replace")
        self.held: list[bytes] = []  # the unfinished last line of what was read, in parts

    def read(self, size: int = -1) -> bytes:
        while True:
            data = self.raw.read(size if size and size > 0 else 65536)
            if not data:
                rest, self.held = b"".join(self.held), []
                return self.decoder.decode(rest, final=True).encode("utf-8")
            if b"\n" not in data:  # a long line goes on: no copying it over and over
                self.held.append(data)
                continue
            head, _, tail = data.rpartition(b"\n")
            lines = _BULK.sub(b"", b"".join(self.held) + head + b"\n")
            self.held = [tail]
            if lines:
                return self.decoder.decode(lines).encode("utf-8")


# Payload bytes shown as hex (segment data, reassembled data, read and write buffers): a
# capture of several-MiB reads and writes gives hundreds of MB of them, and nothing here reads
# them. Such single-line fields are dropped before parsing; names and the few fields read from
# a message body are kept whatever their length.
_BULK = re.compile(rb'^[ \t]*<field name="(?!smb2\.filename|smb2\.tree|smb2\.unknown)[^"]*"'
                   rb'[^\n]{4096,}/>\n', re.M)


def read_capture(path: str, tshark: str = "tshark", port: int = 445) -> Capture:
    """Runs tshark over a capture (TCP reassembly on, as by default) and reads its PDML.

    Out-of-order reassembly is on as well: on a busy veth a segment of a multi-megabyte READ
    response can be captured after its successors (a retransmission), and without it tshark
    leaves the whole response undissected although its header was on the wire."""
    proc = subprocess.Popen([tshark, "-r", path, "-n", "-T", "pdml", "-o",
                             "tcp.desegment_tcp_streams:TRUE", "-o",
                             "tcp.reassemble_out_of_order:TRUE", "-o",
                             "nbss.desegment_nbss_commands:TRUE", f"tcp.port == {port}"],
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    try:
        cap = parse_pdml(_Utf8Clean(proc.stdout), port)
    finally:
        proc.stdout.close()
        err = proc.stderr.read().decode(errors="replace")
        proc.wait()
    if proc.returncode != 0:
        raise RuntimeError(f"tshark failed on {path}: {err.strip()}")
    return cap
