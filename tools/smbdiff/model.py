"""The flow records that the plug-in should write for a capture, derived from tshark's dissection.

The plug-in does not report SMB traffic as tshark shows it: it splits a connection into flow
records by tree and file, keeps names in 128-byte buffers, remembers requests until their
responses in tables, and hands some command bits to exactly one record. This module applies
those reporting rules, message by message in capture order, to what tshark dissected, and
yields the records to expect. Where the rules make a record differ from what tshark shows,
the rule is counted under its name (RULES) so that the check can say what it allowed for.
"""

from __future__ import annotations

import ipaddress
import math
from collections import Counter, defaultdict
from dataclasses import dataclass, field

import wire
from wire import (CANCEL, CHANGE_NOTIFY, CLOSE, CREATE, ECHO, FLUSH, IOCTL, LOCK, OPLOCK_BREAK,
                  QUERY_DIRECTORY, QUERY_INFO, READ, SET_INFO, TREE_CONNECT, TREE_DISCONNECT,
                  WRITE, Pdu, Segment, Smb2Message)

CMD_INVALID = 0x000000FF
TYPE_INVALID = 0xFF
OP_INVALID = 0x3F
TRANSFORM_BIT = 0x80000000
MAX_BUFFERED = 8192  # largest compound message that is reassembled
REMOVE_AFTER = 10  # packets without a record after which a flow leaves the update hook
INACTIVE_TIMEOUT, ACTIVE_TIMEOUT = 30.0, 300.0  # smbflow's defaults, in capture seconds


def bit(command: int) -> int:
    return 1 << (8 + command)


CREATE_BIT, SET_INFO_BIT, TREE_CONNECT_BIT = bit(CREATE), bit(SET_INFO), bit(TREE_CONNECT)

# File id offset and minimum body length of the requests on an open file (MS-SMB2 2.2.x).
FILE_REQUESTS = {CLOSE: (8, 24), FLUSH: (8, 24), READ: (16, 49), WRITE: (16, 49),
                 LOCK: (8, 48), IOCTL: (8, 56), QUERY_DIRECTORY: (8, 33),
                 CHANGE_NOTIFY: (8, 32), QUERY_INFO: (24, 40), SET_INFO: (16, 33)}

# Why a reported record may differ from what tshark shows. Each is counted when it applies.
RULES = {
    "split": "one connection gives separate records per tree (TREE_CONNECT response and "
             "TREE_DISCONNECT) and per opened file; the rest stays in the connection's own record",
    "name-tail": "a file name longer than 63 UTF-16 units keeps its last 63 (62 when a "
                 "surrogate pair would be split)",
    "path-head": "a share path longer than 63 UTF-16 units keeps its first 63 (62 when a "
                 "surrogate pair would be split)",
    "root-as-name": "an open of the share root (empty name) reports the share path as file name",
    "one-way": "a record whose packets all go one way exports only that way's command mask; "
               "the other is the invalid marker",
    "one-shot": "command bits of later messages in compound chains are parked in the tree and "
                "file tables and go to the first record of that tree or file that is exported",
    "interim": "an interim response (STATUS_PENDING) to CREATE counts as a failed open of its own",
    "failed-delete": "a delete request sets the delete bit in its file's record even when the "
                     "server refuses it",
    "unrelated-hidden": "later messages of an unrelated chain appear in no record of their own "
                        "(their bits only through the tables, commands 0-2, 12, 13 not at all)",
    "related-first": "a related chain is reported in the record of its first message; a later "
                     "CREATE of the chain gives its file no record of its own",
    "encrypted": "encrypted messages are reported by the transform bit alone, without commands "
                 "or names",
    "smb1": "SMB1 messages give one record per command code, the code as the command word",
    "mid-segment": "a session message that begins inside a TCP segment, behind the end of "
                   "another, is not parsed",
    "first-segment": "a single message spanning several segments is parsed from its first "
                     "segment alone; what lies beyond it is not read",
    "large-compound": "a compound message over 8192 bytes is reported by its first message only",
    "continuation": "segments without an SMB header take the identifiers of the last message "
                    "that spanned segments in their direction (a record without SMB fields when "
                    "that message had none)",
    "unknown-request": "a response whose request was not parsed gets no name",
    "first-record": "a record keeps the operation, type, ids and names of its first message; "
                    "later messages of the same tree or file add only command bits and delete",
    "collision": "a table record was taken over by another key that hashed to its slot, so "
                 "a name or file id is not known when it is needed",
    "short-create": "a successful CREATE response needs the 89-byte body of its StructureSize; "
                    "one without create contexts (88 bytes, as Samba sends for a plain open) is "
                    "rejected, so that open gives no record, name, type or operation",
    "unmodelled": "something the model does not follow (listed with the differences)",
}


def capture_head(raw: bytes) -> bytes:
    """A share path fitted into 128 bytes, keeping its beginning."""
    if len(raw) <= 127:
        return raw + bytes(128 - len(raw))
    buf = bytearray(raw[:128])
    unit = int.from_bytes(buf[124:126], "little")
    keep = 124 if 0xD800 <= unit <= 0xDBFF else 126
    buf[keep:] = bytes(128 - keep)
    return bytes(buf)


def capture_tail(raw: bytes) -> bytes:
    """A file name fitted into 128 bytes, keeping its end."""
    if len(raw) <= 127:
        return raw + bytes(128 - len(raw))
    end = len(raw)
    unit = int.from_bytes(raw[end - 128:end - 126], "little")
    keep = 124 if 0xD800 <= unit <= 0xDBFF else 126
    return raw[end - keep:] + bytes(128 - keep)


def render(buf: bytes | None) -> str | None:
    """A 128-byte UTF-16LE name buffer as UTF-8 text: up to the first zero unit, lone
    surrogates replaced by U+FFFD."""
    if buf is None:
        return None
    units = []
    for i in range(0, len(buf) - 1, 2):
        u = int.from_bytes(buf[i:i + 2], "little")
        if u == 0:
            break
        units.append(u)
    out, i = [], 0
    while i < len(units):
        u = units[i]
        if 0xD800 <= u <= 0xDBFF and i + 1 < len(units) and 0xDC00 <= units[i + 1] <= 0xDFFF:
            out.append(chr(0x10000 + ((u - 0xD800) << 10) + (units[i + 1] - 0xDC00)))
            i += 2
            continue
        out.append("\ufffd" if 0xD800 <= u <= 0xDFFF else chr(u))
        i += 1
    return "".join(out)


def empty(name: bytes | None) -> bool:
    return name is None or name[:2] == b"\0\0"


@dataclass
class Record:
    """The plug-in's per-packet and per-flow SMB record."""
    version: int = 0
    is_response: int = 0xFF
    commands: list[int] = field(default_factory=lambda: [CMD_INVALID, CMD_INVALID])
    message_id: int = 0
    op: int = OP_INVALID
    tree_id: int = 0
    tree_name: bytes | None = None
    file_name: bytes | None = None
    file_type: int = 0
    file_id: int = 0
    label: str = ""  # what the record stands for, for messages


@dataclass
class MsgEntry:
    name: bytes
    op: int
    tree_id: int
    commands: int = 0
    linked: int = 0


@dataclass
class Msg2Entry:
    file_id: int
    tree_id: int
    delete: int


@dataclass
class TreeEntry:
    name: bytes
    pending: list[int]


@dataclass
class FileEntry:
    name: bytes
    name_empty: int
    file_type: int
    op: int
    pending: list[int]
    tree_id: int
    delete_flags: int = 0
    label: str = ""


@dataclass
class DataEntry:
    tree_id: int = 0
    file_id: int = 0
    pdu: Pdu | None = None  # a pending compound message
    total: int = 0
    saved: int = 0


def _crc32c_table() -> list[int]:
    table = []
    for i in range(256):
        c = i
        for _ in range(8):
            c = (c >> 1) ^ 0x82F63B78 if c & 1 else c >> 1
        table.append(c)
    return table


_CRC32C = _crc32c_table()


def crc32c(data: bytes, seed: int = 0) -> int:
    """CRC-32C with the register starting at the seed itself and the result complemented,
    as the plug-in's tables place their keys (seed 0)."""
    c = seed
    for b in data:
        c = (c >> 8) ^ _CRC32C[(c ^ b) & 0xFF]
    return c ^ 0xFFFFFFFF


def slot_count(requested: int) -> int:
    """The power of two nearest to the requested size (a tie going up), at least 1024."""
    if requested <= 0:
        return 1024
    e = math.log(requested) * 1.4426950408889634
    if e - int(e) >= 0.5:
        e += 1.0
    return 1 << int(max(e, 10.0))


class SlotTable:
    """One of the plug-in's hash tables: one record per slot, the slot chosen by the CRC-32C of
    the packed key, a colliding key taking the slot over. Keys are (client address word,
    client port, identifier); `layout` gives the identifier's size and whether it leads."""

    def __init__(self, requested: int, id_size: int, id_first: bool = True) -> None:
        self.mask = slot_count(requested) - 1
        self.id_size, self.id_first = id_size, id_first
        self.slots: dict[int, tuple[tuple, object]] = {}
        self.users: dict[int, set] = defaultdict(set)  # slot -> connections whose keys use it

    def index(self, key: tuple) -> int:
        addr, port, ident = key
        k = addr.to_bytes(4, "little") + port.to_bytes(2, "little")
        i = ident.to_bytes(self.id_size, "little")
        slot = crc32c(i + k if self.id_first else k + i) & self.mask
        self.users[slot].add((addr, port))
        return slot

    def shared_slots(self) -> int:
        """Slots that keys of more than one connection map to. Connections may run on
        different queues, and then which of them takes such a slot last is up to the threads."""
        return sum(1 for conns in self.users.values() if len(conns) > 1)

    def state(self, key: tuple):
        """("empty" | "same" | "other", the slot's entry)."""
        slot = self.slots.get(self.index(key))
        if slot is None:
            return "empty", None
        return ("same" if slot[0] == key else "other"), slot[1]

    def get(self, key: tuple):
        kind, entry = self.state(key)
        return entry if kind == "same" else None

    def insert(self, key: tuple, entry) -> None:
        """The first insert of a key wins; another key overwrites the slot."""
        if self.state(key)[0] != "same":
            self.slots[self.index(key)] = (key, entry)

    def __setitem__(self, key: tuple, entry) -> None:
        """Replaces the slot's record whatever key it held (the data table's rule)."""
        self.slots[self.index(key)] = (key, entry)

    def remove(self, key: tuple) -> None:
        if self.state(key)[0] == "same":
            del self.slots[self.index(key)]


DEFAULT_SIZES = {"messagetable-size": 1024, "messagetable2-size": 65536,
                 "treetable-size": 2048, "filetable-size": 1048576, "datatable-size": 1024}


class Tables:
    """The plug-in's tables, slot collisions included, as one queue sees them: with several
    queues each queue has message tables of its own, and keys of connections on different
    queues that share a slot meet in an order the threads decide (see `shared_slots`)."""

    def __init__(self, sizes: dict | None = None) -> None:
        sz = dict(DEFAULT_SIZES, **(sizes or {}))
        self.msg = SlotTable(sz["messagetable-size"], 8)
        self.msg2 = SlotTable(sz["messagetable2-size"], 8)
        self.tree = SlotTable(sz["treetable-size"], 4)
        self.file = SlotTable(sz["filetable-size"], 8)
        self.data = SlotTable(sz["datatable-size"], 1, id_first=False)

    def shared_slots(self) -> dict[str, int]:
        """Per table parameter, the slots that more than one connection's keys map to."""
        tables = {"messagetable-size": self.msg, "messagetable2-size": self.msg2,
                  "treetable-size": self.tree, "filetable-size": self.file,
                  "datatable-size": self.data}
        return {name: t.shared_slots() for name, t in tables.items()}

    def msg_insert(self, name: bytes | None, op: int, tree_id: int, key: tuple, mid: int) -> None:
        self.msg.insert(key + (mid,), MsgEntry(name or bytes(128), op, tree_id))

    def msg2_insert(self, fid: int, tid: int, key: tuple, mid: int, delete: int) -> None:
        self.msg2.insert(key + (mid,), Msg2Entry(fid, tid, delete))

    def tree_insert(self, name: bytes | None, pending, key: tuple, tid: int) -> None:
        self.tree.insert(key + (tid,), TreeEntry(name or bytes(128), list(pending or (0, 0))))

    def file_insert(self, name, name_empty, ftype, op, pending, tid, key, fid, label="") -> None:
        self.file.insert(key + (fid,), FileEntry(name or bytes(128), name_empty, ftype, op,
                                                 list(pending or (0, 0)), tid, 0, label))

    def file_add_command(self, key: tuple, fid: int, masks) -> None:
        kind, e = self.file.state(key + (fid,))
        if kind == "empty":
            self.file.insert(key + (fid,), FileEntry(bytes(128), 0, 0, 63, list(masks), 0))
        elif kind == "same":
            e.pending[0] |= masks[0]
            e.pending[1] |= masks[1]

    def file_set_delete_flag(self, key: tuple, fid: int, value: int) -> None:
        kind, e = self.file.state(key + (fid,))
        if kind == "empty":
            e = FileEntry(bytes(128), 0, 0, 63, [0, 0], 0)
            self.file.insert(key + (fid,), e)
        if kind != "other":
            e.delete_flags = value


def addr32(ip: str) -> int:
    """The client address word as the plug-in keys it: the last four address bytes in wire
    order, read as a little-endian word (table keys are packed little-endian again)."""
    packed = ipaddress.ip_address(ip).packed
    return int.from_bytes(packed[-4:], "little")


class Packet:
    """A segment as the plug-in's hooks see it: its connection key and its hash folds."""

    def __init__(self, seg: Segment, port: int) -> None:
        self.seg = seg
        self.port = port
        self.to_server = seg.dport == port
        self.folds: list[tuple] = []

    def key(self, is_response: int) -> tuple:
        """The connection key: the client's side, the source of a request."""
        s = self.seg
        if is_response:
            return (addr32(s.dst), s.dport)
        return (addr32(s.src), s.sport)

    def fold(self, kind: str, *ids: int) -> None:
        """Chains identifiers into the packet's flow hash; only their bytes matter."""
        sizes = {"t": (4,), "tf": (4, 8), "m": (8,), "smb1": (4,)}[kind]
        self.folds.append(b"".join(v.to_bytes(n, "little") for v, n in zip(ids, sizes)))


# The plug-in takes a successful CREATE response only with the 89-byte body that its
# StructureSize names (MS-SMB2 2.2.14). The fixed part ends after CreateContextsLength, 88 bytes
# in, and Samba sends exactly 88 bytes when a response has no create contexts: such opens are
# not reported (rule "short-create").
CREATE_RESPONSE_MIN = 89


class Parser:
    """The parser's handling of one capture, in capture order."""

    def __init__(self, port: int = 445, create_response_min: int = CREATE_RESPONSE_MIN,
                 sizes: dict | None = None) -> None:
        self.port = port
        self.create_response_min = create_response_min
        self.t = Tables(sizes)
        self.rules: Counter = Counter()
        self.rule_examples: dict[str, str] = {}
        self.checked = Counter()  # what tshark showed that the records were compared against

    def lookup(self, table: SlotTable, key: tuple):
        """A table lookup that notes when the record was lost to a colliding key."""
        kind, entry = table.state(key)
        if kind == "other":
            self.rule("collision", f"key {key}")
        return entry if kind == "same" else None

    def rule(self, name: str, example: str = "") -> None:
        self.rules[name] += 1
        if example and name not in self.rule_examples:
            self.rule_examples[name] = example

    # -- single messages ---------------------------------------------------------------------

    def parse_normal(self, pkt: Packet, rec: Record, m: Smb2Message, available: int) -> int:
        rec.version = 2
        rec.is_response = 1 if m.is_response else 0
        self.async_ = m.is_async
        if not m.is_async:
            rec.tree_id = m.tree_id or 0
        rec.message_id = m.message_id
        if m.command > 18:
            return 1
        rec.commands[0] |= bit(m.command)
        body = (available - 64) & 0xFFFFFFFF
        key = pkt.key(rec.is_response)
        c, resp = m.command, rec.is_response
        self.checked["commands"] += 1
        if c == TREE_CONNECT:
            return self.tree_connect_response(pkt, rec, m, key) if resp else \
                self.path_request(m, key, body)
        if c == TREE_DISCONNECT:
            pkt.fold("t", rec.tree_id)
            return 0
        if c == CREATE:
            if not resp:
                return self.create_request(rec, m, key, body)
            if m.status == 0:
                return self.create_success(pkt, rec, m, key, body)
            return self.create_failure(pkt, rec, m, key)
        if c in FILE_REQUESTS:
            if resp:
                return self.file_response(pkt, rec, m, key)
            offset, minimum = FILE_REQUESTS[c]
            if body < minimum:
                return -1
            rec.file_id = m.file_id or 0
            delete = 0
            if c == SET_INFO and self.delete_test(m):
                rec.op |= 0x40
                delete = 1
            self.t.msg2_insert(rec.file_id, rec.tree_id, key, m.message_id, delete)
            pkt.fold("tf", rec.tree_id, rec.file_id)
            rec.label = f"file id {rec.file_id:#x}"
            return 0
        if c == OPLOCK_BREAK:
            if body < 24:
                return -1
            rec.file_id = m.file_id or 0
            if resp and rec.tree_id == 0:
                e = self.lookup(self.t.file, key + (rec.file_id,))
                rec.tree_id = e.tree_id if e else 0
            pkt.fold("tf", rec.tree_id, rec.file_id)
            return 0
        return 0  # NEGOTIATE, SESSION_SETUP, LOGOFF, CANCEL, ECHO

    @staticmethod
    def delete_test(m: Smb2Message) -> bool:
        return m.info_type == 1 and m.info_class == 13 and m.delete_pending == 1

    def path_request(self, m: Smb2Message, key: tuple, body: int) -> int:
        if body < 9:
            return -1
        path = m.path or b""
        if not path:
            self.t.msg_insert(None, 255, 0, key, m.message_id)
            return 2
        if body < 8 + len(path):
            self.rule("first-segment", m.label())
            return -1
        if len(path) > 127:
            self.rule("path-head", path.decode("utf-16le", "replace"))
        self.t.msg_insert(capture_head(path), 255, 0, key, m.message_id)
        return 2

    def tree_connect_response(self, pkt, rec, m, key) -> int:
        e = self.lookup(self.t.msg, key + (m.message_id,))
        if e is not None and not empty(e.name):
            self.t.tree_insert(e.name, None, key, rec.tree_id)
            if m.status == 0:
                self.checked["trees"] += 1
        pkt.fold("t", rec.tree_id)
        rec.commands[1] |= TREE_CONNECT_BIT
        rec.label = f"tree {render(e.name) if e else '?'} (tree id {rec.tree_id:#x})"
        return 0

    def request_op(self, m: Smb2Message) -> int:
        op = (m.disposition or 0) & 0xFF
        if (m.create_options or 0) & wire.FILE_DELETE_ON_CLOSE:
            op |= 0x40
        return op

    def create_request(self, rec, m, key, body) -> int:
        if body < 57:
            return -1
        rec.op = self.request_op(m)
        name = m.name or b""
        if not name:
            self.t.msg_insert(None, rec.op, rec.tree_id, key, m.message_id)
            return 2
        if body < 56 + len(name):
            self.rule("first-segment", m.label())
            return -1
        if len(name) > 127:
            self.rule("name-tail", name.decode("utf-16le", "replace"))
        self.t.msg_insert(capture_tail(name), rec.op, rec.tree_id, key, m.message_id)
        return 2

    def create_success(self, pkt, rec, m, key, body) -> int:
        if body < self.create_response_min:
            self.rule("short-create", m.label())
            return -1
        rec.file_type = 1 if (m.attributes or 0) & wire.FILE_ATTRIBUTE_DIRECTORY else 2
        rec.op = (m.action or 0) & 0xFF
        rec.file_id = m.file_id or 0
        e = self.lookup(self.t.msg, key + (m.message_id,))
        req_op, commands, linked = 0xFF, 0, 0
        if e is not None:
            req_op, commands, linked = e.op, e.commands, e.linked
            if self.async_:
                rec.tree_id = e.tree_id
        rec.commands[1] |= commands
        if req_op != 0xFF and req_op & 0x40:
            rec.op |= 0x40
        label = f"file {self.name_label(e)} (file id {rec.file_id:#x})"
        if e is not None:
            self.t.file_insert(e.name, 1 if empty(e.name) else 0, rec.file_type, rec.op, None,
                               rec.tree_id, key, rec.file_id, label)
            self.checked["files"] += 1
            self.checked["operations"] += 1
        else:
            self.rule("unknown-request", m.label())
        mid = m.message_id
        if linked and (linked - 1 - mid) & 0xFFFFFFFFFFFFFFFF <= 6 and mid + 1 <= linked:
            for i in range(mid + 1, linked + 1):
                self.t.msg2_insert(rec.file_id, rec.tree_id, key, i, 0)
        pkt.fold("tf", rec.tree_id, rec.file_id)
        rec.commands[1] |= CREATE_BIT
        rec.label = label
        return 0

    @staticmethod
    def name_label(e: MsgEntry | None) -> str:
        if e is None:
            return "?"
        return render(e.name) if not empty(e.name) else "(share root)"

    def create_failure(self, pkt, rec, m, key) -> int:
        e = self.lookup(self.t.msg, key + (m.message_id,))
        req_op, commands = 0xFF, CMD_INVALID
        if e is not None:
            req_op, commands = e.op, e.commands
            if self.async_:
                rec.tree_id = e.tree_id
            if not empty(e.name):
                rec.file_name = e.name
        if m.status == wire.STATUS_PENDING:
            self.rule("interim", m.label())
        failure = {0xFF: rec.op | 0x80, 0x03: 0x84, 0x04: 0x83, 0x43: 0xC4, 0x44: 0xC3}
        rec.op = failure.get(req_op, req_op | 0x80)
        rec.commands[1] |= commands
        pkt.fold("tf", rec.tree_id, rec.file_id)
        pkt.fold("m", rec.message_id)
        rec.commands[1] |= CREATE_BIT
        rec.label = f"failed open {render(e.name) if e else '?'} (status {m.status:#010x})"
        self.checked["operations"] += 1
        return 0

    def file_response(self, pkt, rec, m, key) -> int:
        e = self.lookup(self.t.msg2, key + (m.message_id,))
        delete = 0
        rec.file_id = 0
        if e is not None:
            rec.file_id = e.file_id
            delete = e.delete
            if self.async_:
                rec.tree_id = e.tree_id
        if delete:
            rec.op |= 0x40 if m.status == 0 else 0xC0
            self.checked["operations"] += 1
            if m.status != 0:
                self.rule("failed-delete", m.label())
        pkt.fold("tf", rec.tree_id, rec.file_id)
        rec.label = f"file id {rec.file_id:#x}"
        return 0

    # -- compound chains ---------------------------------------------------------------------

    @staticmethod
    def message_at(pdu: Pdu, offset: int) -> Smb2Message | None:
        for m in pdu.messages:
            if m.offset == offset:
                return m
        return None

    def compound(self, pkt: Packet, rec: Record, pdu: Pdu, available: int) -> int:
        first = pdu.messages[0]
        nxt, avail = first.next_command, available
        if nxt > avail or avail < nxt + 64:
            return -1
        second = self.message_at(pdu, nxt)
        if second is None:
            self.rule("unmodelled", f"chain at frame {pdu.last_frame}: tshark shows no message "
                                    f"at offset {nxt}")
            return -1
        if second.is_related:
            return self.related(pkt, rec, pdu, available)
        return self.unrelated(pkt, rec, pdu, available)

    def walk(self, pdu: Pdu, available: int):
        """Yields (message, its available bytes) for every later message of a chain; raises
        ValueError when a NextCommand leaves no room for a header."""
        nxt, avail, offset = pdu.messages[0].next_command, available, 0
        while nxt:
            offset += nxt
            avail -= nxt
            m = self.message_at(pdu, offset)
            if m is None:
                self.rule("unmodelled", f"chain at frame {pdu.last_frame}: no message at {offset}")
                raise ValueError
            yield m, avail
            nxt = m.next_command
            if nxt and (nxt > avail or avail < nxt + 64):
                raise ValueError

    def related(self, pkt: Packet, rec: Record, pdu: Pdu, available: int) -> int:
        result = self.parse_normal(pkt, rec, pdu.messages[0], available)
        first_id = rec.message_id
        resp = rec.is_response
        key = pkt.key(resp)
        try:
            for m, avail in self.walk(pdu, available):
                rec.message_id = m.message_id
                c, body = m.command, (avail - 64) & 0xFFFFFFFF
                if c < 3 or c in (CANCEL, ECHO) or c > 18:
                    continue
                had_set_info = rec.commands[0] & SET_INFO_BIT
                rec.commands[0] |= bit(c)
                self.checked["commands"] += 1
                if c == TREE_CONNECT and not resp:
                    self.path_request(m, key, body)
                elif c == TREE_CONNECT:
                    e = self.lookup(self.t.msg, key + (m.message_id,))
                    if e is not None and not empty(e.name):
                        self.t.tree_insert(e.name, (0, TREE_CONNECT_BIT), key, rec.tree_id)
                        self.rule("one-shot", m.label())
                elif c == CREATE and not resp:
                    if body >= 57:
                        self.rule("related-first", m.label())
                        rec.op = self.request_op(m)
                        name = m.name or b""
                        if not name:
                            self.t.msg_insert(None, rec.op, rec.tree_id, key, m.message_id)
                        elif body >= 56 + len(name):
                            self.t.msg_insert(capture_tail(name), rec.op, rec.tree_id, key,
                                              m.message_id)
                elif c == CREATE:
                    self.related_create_response(rec, m, key, body)
                elif c in FILE_REQUESTS and c != SET_INFO:
                    if resp and had_set_info:
                        self.delete_check(rec, m, key)
                elif c == SET_INFO:
                    if not resp:
                        if body >= 33 and self.delete_test(m):
                            rec.op |= 0x40
                            self.t.msg2_insert(rec.file_id, rec.tree_id, key, m.message_id, 1)
                    else:
                        self.delete_check(rec, m, key)
                elif c == OPLOCK_BREAK and resp:
                    if body >= 24 and rec.tree_id == 0:
                        e = self.lookup(self.t.file, key + (rec.file_id,))
                        rec.tree_id = e.tree_id if e else 0
        except ValueError:
            return -1
        if resp == 0 and rec.commands[0] & CREATE_BIT:
            e = self.lookup(self.t.msg, key + (first_id,))
            if e is not None:
                e.commands |= rec.commands[0]
                e.linked = rec.message_id
        return result

    def related_create_response(self, rec: Record, m: Smb2Message, key: tuple, body: int) -> None:
        if m.status != 0 or body < self.create_response_min:
            return
        rec.file_type = 1 if (m.attributes or 0) & wire.FILE_ATTRIBUTE_DIRECTORY else 2
        rec.op = (m.action or 0) & 0xFF
        rec.file_id = m.file_id or 0
        e = self.lookup(self.t.msg, key + (m.message_id,))
        if e is None:
            self.rule("unknown-request", m.label())
            return
        if self.async_:
            rec.tree_id = e.tree_id
        if e.op != 0xFF and e.op & 0x40:
            rec.op |= 0x40
        self.t.file_insert(e.name, 1 if empty(e.name) else 0, rec.file_type, rec.op,
                           (0, CREATE_BIT), rec.tree_id, key, rec.file_id,
                           f"file {render(e.name)} (file id {rec.file_id:#x})")
        self.checked["files"] += 1
        self.checked["operations"] += 1
        self.rule("related-first", m.label())

    def delete_check(self, rec: Record, m: Smb2Message, key: tuple) -> None:
        e = self.lookup(self.t.msg2, key + (m.message_id,))
        if e is not None and e.delete:
            rec.op |= 0x40 if m.status == 0 else 0xC0
            self.checked["operations"] += 1

    def unrelated(self, pkt: Packet, rec: Record, pdu: Pdu, available: int) -> int:
        try:
            for m, avail in self.walk(pdu, available):
                self.unrelated_message(pkt, m, avail)
        except ValueError:
            return -1
        total = pdu.length + 4
        if total < 68:
            return -1
        return self.parse_normal(pkt, rec, pdu.messages[0], total - 4)

    def unrelated_message(self, pkt: Packet, m: Smb2Message, avail: int) -> None:
        resp = 1 if m.is_response else 0
        tree_id = 0 if m.is_async else (m.tree_id or 0)
        key = pkt.key(resp)
        c, body = m.command, (avail - 64) & 0xFFFFFFFF
        self.rule("unrelated-hidden", m.label())
        if c < 3 or c > 18:
            return
        word = CMD_INVALID | bit(c)
        if c not in (TREE_DISCONNECT, CANCEL, ECHO, OPLOCK_BREAK):
            self.checked["commands"] += 1
        if c == TREE_CONNECT and not resp:
            self.path_request(m, key, body)
        elif c == TREE_CONNECT:
            e = self.lookup(self.t.msg, key + (m.message_id,))
            if e is not None and not empty(e.name):
                self.t.tree_insert(e.name, (0, TREE_CONNECT_BIT), key, tree_id)
        elif c == CREATE and not resp:
            if body >= 57:
                op = self.request_op(m)
                name = m.name or b""
                if not name:
                    self.t.msg_insert(None, op, tree_id, key, m.message_id)
                elif body >= 56 + len(name):
                    self.t.msg_insert(capture_tail(name), op, tree_id, key, m.message_id)
        elif c == CREATE:
            if m.status != 0 or body < self.create_response_min:
                return
            op = (m.action or 0) & 0xFF
            ftype = 1 if (m.attributes or 0) & wire.FILE_ATTRIBUTE_DIRECTORY else 2
            fid = m.file_id or 0
            e = self.lookup(self.t.msg, key + (m.message_id,))
            if e is None:
                return
            if m.is_async:
                tree_id = e.tree_id
            if e.op != 0xFF and e.op & 0x40:
                op |= 0x40
            self.t.file_insert(e.name, 1 if empty(e.name) else 0, ftype, op, (0, CREATE_BIT),
                               tree_id, key, fid, f"file {render(e.name)} (file id {fid:#x})")
            self.checked["files"] += 1
            self.checked["operations"] += 1
        elif c in FILE_REQUESTS and not resp:
            offset, minimum = FILE_REQUESTS[c]
            if body < minimum:
                return
            fid = m.file_id or 0
            delete = 1 if c == SET_INFO and self.delete_test(m) else 0
            self.t.msg2_insert(fid, tree_id, key, m.message_id, delete)
            self.t.file_add_command(key, fid, (word, 0))
            self.rule("one-shot", m.label())
        elif c in FILE_REQUESTS:
            e = self.lookup(self.t.msg2, key + (m.message_id,))
            fid, delete = (e.file_id, e.delete) if e else (0, 0)
            if delete:
                self.t.file_set_delete_flag(key, fid, 1 if m.status == 0 else 2)
                self.checked["operations"] += 1
            self.t.file_add_command(key, fid, (0, word))
            self.rule("one-shot", m.label())

    # -- payload entry -------------------------------------------------------------------------

    def packet(self, seg: Segment) -> tuple[Packet, Record | None]:
        """Parses one segment; returns its hash folds and the record that the filter keeps."""
        pkt = Packet(seg, self.port)
        rec = Record()
        self.async_ = False
        n = seg.payload_len
        pdu = seg.starts
        if n >= 8 and pdu is not None and pdu.kind in ("smb2", "smb1", "transform"):
            result = self.signature_branch(pkt, rec, pdu, n)
        else:
            result = self.continuation(pkt, rec, seg, n)
        return pkt, (rec if result in (0, 5) else None)

    def signature_branch(self, pkt: Packet, rec: Record, pdu: Pdu, n: int) -> int:
        if pdu.kind == "smb1":
            if n - 4 < 32:
                return -1
            rec.version = 1
            rec.commands[0] = pdu.smb1_command or 0
            pkt.fold("smb1", rec.commands[0])
            rec.label = f"SMB1 command {rec.commands[0]:#04x}"
            self.rule("smb1")
            self.checked["commands"] += 1
            return 0
        if pdu.kind == "transform":
            rec.commands[0] |= TRANSFORM_BIT
            rec.version = 2
            self.rule("encrypted")
            return 0
        if n - 4 < 64 or not pdu.messages:
            return -1
        total = pdu.length + 4
        first = pdu.messages[0]
        if n >= total:
            if first.next_command:
                return self.compound(pkt, rec, pdu, n - 4)
            return self.parse_normal(pkt, rec, first, n - 4)
        if not first.next_command:
            r = self.parse_normal(pkt, rec, first, n - 4)
            if r != 0:
                return r
            self.t.data[pkt.key(rec.is_response) + (rec.is_response,)] = DataEntry(
                rec.tree_id, rec.file_id)
            return 5
        client = pkt.key(1 if first.is_response else 0) + (1 if first.is_response else 0,)
        if total <= MAX_BUFFERED:
            self.t.data[client] = DataEntry(pdu=pdu, total=total, saved=n)
            return 2
        self.rule("large-compound", first.label())
        r = self.parse_normal(pkt, rec, first, n - 4)
        if r != 0:
            return r
        self.t.data[pkt.key(rec.is_response) + (rec.is_response,)] = DataEntry(
            rec.tree_id, rec.file_id)
        return 5

    def continuation(self, pkt: Packet, rec: Record, seg: Segment, n: int) -> int:
        if seg.dport == self.port:
            key = (addr32(seg.src), seg.sport, 0)
        elif seg.sport == self.port:
            key = (addr32(seg.dst), seg.dport, 1)
        else:
            return 1
        e = self.t.data.get(key)
        if e is None:
            return 3
        if e.pdu is None:
            rec.tree_id, rec.file_id = e.tree_id, e.file_id
            pkt.fold("tf", rec.tree_id, rec.file_id)
            if n:
                self.rule("continuation")
            return 0
        e.saved += min(n, e.total - e.saved)
        if e.saved < e.total:
            return 2
        pdu = e.pdu
        self.t.data.remove(key)
        return self.compound(pkt, rec, pdu, e.total - 4)


@dataclass
class Flow:
    """A flow record of the host: a connection and its hash folds."""
    first: Segment
    folds: tuple
    record: Record | None = None
    packets: list[int] = field(default_factory=lambda: [0, 0])
    removed: bool = False
    order: int = 0
    last: float = 0.0


@dataclass
class Expected:
    """The six fields of one flow record, and what it stands for."""
    client: str
    client_port: int
    server: str
    server_port: int
    cmd_request: int | None  # None: the field has no value (the host writes its default)
    cmd_response: int | None
    tree: str | None
    file_name: str | None
    file_type: int
    op: int
    label: str
    packets: int

    def fields(self) -> tuple:
        return (self.cmd_request, self.cmd_response, self.tree, self.file_name, self.file_type,
                self.op)


class Model:
    """Runs a capture through the parser and the host's flow handling, then exports."""

    def __init__(self, port: int = 445, timeouts: tuple[float, float] = (INACTIVE_TIMEOUT,
                                                                           ACTIVE_TIMEOUT),
                 create_response_min: int = CREATE_RESPONSE_MIN,
                 sizes: dict | None = None) -> None:
        self.port = port
        self.parser = Parser(port, create_response_min, sizes)
        self.inactive_timeout, self.active_timeout = timeouts
        self.flows: dict[tuple, Flow] = {}

    def run(self, capture: wire.Capture) -> list[Expected]:
        for pdu in capture.pdus:
            if not pdu.at_segment_start:
                self.parser.rule("mid-segment", f"frame {pdu.first_frame}")
        for seg in capture.segments:
            if self.port not in (seg.sport, seg.dport):
                continue
            pkt, rec = self.parser.packet(seg)
            self.update(pkt, rec)
        return self.export()

    def update(self, pkt: Packet, rec: Record | None) -> None:
        s = pkt.seg
        ends = tuple(sorted([(s.src, s.sport), (s.dst, s.dport)]))
        key = (ends, tuple(pkt.folds))
        flow = self.flows.get(key)
        if flow is None:
            flow = self.flows[key] = Flow(first=s, folds=key[1], order=len(self.flows),
                                          last=s.time)
        same_way = s.dport == flow.first.dport
        # The update hook sees the flow's counters before the host adds this packet to them.
        before = list(flow.packets)
        flow.packets[0 if same_way else 1] += 1
        if (s.time - flow.last >= self.inactive_timeout
                or s.time - flow.first.time >= self.active_timeout):
            self.parser.rule("unmodelled", f"frame {s.number}: the host's flow timeouts split "
                                           "this flow record, which the model does not follow")
        flow.last = s.time
        if flow.removed:
            return
        if flow.record is None:
            if rec is not None:
                flow.record = rec
            elif sum(before) > REMOVE_AFTER:
                flow.removed = True
            return
        if rec is None:
            return
        r = flow.record
        if rec.version == 1:
            # The first SMB1 message against the flow's first direction gives the response word.
            if not same_way and before[1] == 0:
                r.commands[1] = rec.commands[0]
            return
        r.commands[0 if same_way else 1] |= rec.commands[0]
        if (rec.commands[0] | rec.commands[1]) & SET_INFO_BIT:
            r.op |= rec.op & 0x40
        elif rec.version == 2 and (rec.op != OP_INVALID or rec.file_type):
            self.parser.rule("first-record", rec.label)

    def postprocess(self, flow: Flow) -> None:
        r = flow.record
        t = self.parser.t
        if r is None or r.version != 2 or r.commands[0] & TRANSFORM_BIT:
            return
        masks, file_op, flag = [0, 0], OP_INVALID, 0
        first = flow.first
        if r.is_response:
            client = (addr32(first.dst), first.dport)
        else:
            client = (addr32(first.src), first.sport)
        if r.file_id and r.file_name is None:
            e = self.parser.lookup(t.file, client + (r.file_id,))
            if e is not None:
                r.file_type = e.file_type
                file_op, flag = e.op, e.name_empty
                masks = list(e.pending)
                if masks != [0, 0]:
                    self.parser.rule("one-shot")
                e.pending = [0, 0]
                if not empty(e.name) and flag == 0:
                    r.file_name = e.name
                if not r.label:
                    r.label = e.label
            self.fold_masks(r, masks)
            if r.commands[0] & CREATE_BIT:
                if r.op & 0x3F == 0x3F:
                    r.op = (r.op & 0xC0) | (file_op & 0x3F)
                if not r.op & 0x40:
                    r.op |= file_op & 0x40
                    self.set_info_delete(r, client)
            else:
                self.set_info_delete(r, client)
        if r.tree_id and r.tree_name is None:
            e = self.parser.lookup(t.tree, client + (r.tree_id,))
            if e is not None:
                masks = list(e.pending)
                e.pending = [0, 0]
                if not empty(e.name):
                    r.tree_name = e.name
                    if flag == 1:
                        r.file_name = e.name
                        self.parser.rule("root-as-name", render(e.name))
                self.fold_masks(r, masks)

    def set_info_delete(self, r: Record, client: tuple) -> None:
        if r.commands[0] & SET_INFO_BIT and not r.op & 0x40:
            e = self.parser.t.file.get(client + (r.file_id,))
            if e is not None and e.delete_flags & 1:
                e.delete_flags &= ~1
                r.op |= 0x40

    @staticmethod
    def fold_masks(r: Record, masks) -> None:
        if r.is_response:
            r.commands[1] |= masks[0]
            r.commands[0] |= masks[1]
        else:
            r.commands[0] |= masks[0]
            r.commands[1] |= masks[1]

    def export(self) -> list[Expected]:
        out = []
        for flow in sorted(self.flows.values(), key=lambda f: f.order):
            self.postprocess(flow)
            out.append(self.fields(flow))
        return out

    def fields(self, flow: Flow) -> Expected:
        r = flow.record
        s = flow.first
        if s.dport == self.port:
            client, cport, server, sport = s.src, s.sport, s.dst, s.dport
        else:
            client, cport, server, sport = s.dst, s.dport, s.src, s.sport
        exp = Expected(client, cport, server, sport, None, None, None, None, TYPE_INVALID,
                       OP_INVALID, "no SMB record", sum(flow.packets))
        if r is None:
            return exp
        exp.label = r.label or ("connection" if not flow.folds else "continuation segments")
        two_way = flow.packets[1] > 0
        words = [None, None]  # request, response
        if r.version in (1, 2):
            w = [c | CMD_INVALID if r.version == 2 else c for c in r.commands]
            if two_way:
                words = [w[0], w[1]] if s.dport < s.sport else [w[1], w[0]]
            elif s.dport < s.sport:
                words = [w[0], None]
            elif s.dport > s.sport:
                words = [None, w[0]]
            if not two_way and r.version == 2:
                self.parser.rule("one-way", exp.label)
        exp.cmd_request, exp.cmd_response = words
        if r.version == 2:
            exp.tree = render(r.tree_name) if r.tree_name is not None else None
            exp.file_name = render(r.file_name) if r.file_name is not None else None
            if r.file_type in (1, 2):
                exp.file_type = r.file_type
            op = r.op
            if 0x00 <= op <= 0x03 or 0x40 <= op <= 0x43 or 0x7F <= op <= 0x85 or \
                    0xC0 <= op <= 0xC5:
                exp.op = op
        if flow.folds:
            self.parser.rule("split")
        return exp
