"""Tests of the differential check's own parts: name capture, rendering, the reporting-rule
model on small hand-made conversations, the record comparison and smbflow's output reader."""

from __future__ import annotations

import sys
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))

import model  # noqa: E402
import smbdiff  # noqa: E402
import volume  # noqa: E402
import wire  # noqa: E402
from wire import (CLOSE, CREATE, NEGOTIATE, READ, SET_INFO, TREE_CONNECT,  # noqa: E402
                  TREE_DISCONNECT, WRITE, Pdu, Segment, Smb2Message)

CLIENT, SERVER, CPORT = "198.18.0.2", "198.18.0.1", 50000
SHARE = "\\\\198.18.0.1\\share".encode("utf-16le")


def u16(text: str) -> bytes:
    return text.encode("utf-16le")


class Conversation:
    """Builds the segments of one connection the way wire.parse_pdml leaves them."""

    def __init__(self) -> None:
        self.segments: list[Segment] = []
        self.mid = 0

    def _segment(self, to_server: bool, payload: int, pdu: Pdu | None = None) -> Segment:
        n = len(self.segments) + 1
        src, sport, dst, dport = (CLIENT, CPORT, SERVER, 445) if to_server else \
            (SERVER, 445, CLIENT, CPORT)
        seg = Segment(n, float(n), 4, src, dst, sport, dport, payload, pdu)
        if pdu is not None:
            pdu.first_frame = pdu.last_frame = n
        self.segments.append(seg)
        return seg

    def send(self, to_server: bool, *messages: Smb2Message, mss: int | None = None) -> None:
        """One session message carrying the messages (a chain when more than one), cut into
        segments of mss bytes when given."""
        offset = 0
        for i, m in enumerate(messages):
            m.offset = offset
            m.next_command = m.size if i + 1 < len(messages) else 0
            offset += m.size
        pdu = Pdu("smb2", offset, 0, 0, list(messages))
        total = offset + 4
        if mss is None or total <= mss:
            self._segment(to_server, total, pdu)
            return
        self._segment(to_server, mss, pdu)
        sent = mss
        while sent < total:
            self._segment(to_server, min(mss, total - sent))
            sent += mss
        pdu.last_frame = len(self.segments)

    def ack(self, to_server: bool) -> None:
        self._segment(to_server, 0)

    def capture(self) -> wire.Capture:
        return wire.Capture(self.segments, [])


def msg(command: int, response: bool = False, *, mid: int, tid: int = 0, size: int = 0,
        status: int = 0, flags: int = 0, **body) -> Smb2Message:
    sizes = {CREATE: 89 if response else 57, READ: 17 if response else 49, WRITE: 48 + 100,
             CLOSE: 60 if response else 24, SET_INFO: 2 if response else 33,
             TREE_CONNECT: 16 if response else 8, TREE_DISCONNECT: 4, NEGOTIATE: 64}
    name = body.get("name") or body.get("path") or b""
    m = Smb2Message(offset=0, size=size or 64 + sizes.get(command, 16) + len(name),
                    command=command, flags=flags | (wire.FLAG_RESPONSE if response else 0),
                    status=status, message_id=mid,
                    tree_id=None if flags & wire.FLAG_ASYNC else tid, next_command=0)
    for k, v in body.items():
        setattr(m, k, v)
    return m


def session(conv: Conversation, tid: int = 5) -> None:
    """NEGOTIATE and a TREE_CONNECT to the share."""
    conv.send(True, msg(NEGOTIATE, mid=0))
    conv.send(False, msg(NEGOTIATE, True, mid=0))
    conv.send(True, msg(TREE_CONNECT, mid=1, path=SHARE))
    conv.send(False, msg(TREE_CONNECT, True, mid=1, tid=tid))


def open_file(conv: Conversation, mid: int, name: str, fid: int, *, tid: int = 5,
              disposition: int = 1, options: int = 0, action: int = 1, attrs: int = 0x20,
              status: int = 0) -> None:
    conv.send(True, msg(CREATE, mid=mid, tid=tid, name=u16(name), disposition=disposition,
                        create_options=options))
    if status:
        conv.send(False, msg(CREATE, True, mid=mid, tid=tid, status=status))
    else:
        conv.send(False, msg(CREATE, True, mid=mid, tid=tid, action=action, attributes=attrs,
                             file_id=fid))


def on_file(conv: Conversation, command: int, mid: int, fid: int, tid: int = 5, status: int = 0,
            **body) -> None:
    conv.send(True, msg(command, mid=mid, tid=tid, file_id=fid, **body))
    conv.send(False, msg(command, True, mid=mid, tid=tid, status=status))


def records(conv: Conversation) -> list[model.Expected]:
    return model.Model().run(conv.capture())


def by_label(recs, text):
    found = [r for r in recs if text in r.label]
    assert len(found) == 1, (text, [r.label for r in recs])
    return found[0]


B = model.bit


class NameCaptureTest(unittest.TestCase):
    def test_head_and_tail(self):
        pair = "\U0001F600"  # one surrogate pair, two units
        cases = [
            # (text, head keeps, tail keeps)
            ("a.txt", "a.txt", "a.txt"),
            ("x" * 63, "x" * 63, "x" * 63),
            ("x" * 64, "x" * 63, "x" * 63),
            ("a" * 10 + "b" * 90, "a" * 10 + "b" * 53, "b" * 63),
            ("y" * 62 + pair + "z" * 10, "y" * 62, "y" * 51 + pair + "z" * 10),
            ("ab" + pair + "y" * 62, "ab" + pair + "y" * 59, "y" * 62),
        ]
        for text, head, tail in cases:
            with self.subTest(text=text):
                self.assertEqual(model.render(model.capture_head(u16(text))), head)
                self.assertEqual(model.render(model.capture_tail(u16(text))), tail)
                self.assertEqual(len(model.capture_head(u16(text))), 128)
                self.assertEqual(len(model.capture_tail(u16(text))), 128)

    def test_127_bytes_are_copied_whole(self):
        raw = b"a" * 127
        self.assertEqual(model.capture_tail(raw)[:127], raw)
        self.assertEqual(model.capture_tail(raw)[127:], b"\0")

    def test_render(self):
        cases = [(u16("ab") + b"\0\0" + u16("cd"), "ab"),
                 (u16("a") + (0xD800).to_bytes(2, "little") + u16("b"), "a\ufffdb"),
                 (u16("\U0001F4C1x"), "\U0001F4C1x"),
                 (bytes(128), "")]
        for raw, text in cases:
            with self.subTest(text=text):
                self.assertEqual(model.render(raw + bytes(128 - len(raw))), text)


class TableTest(unittest.TestCase):
    def test_crc32c_and_sizing(self):
        self.assertEqual(model.crc32c(b"123456789", 0xFFFFFFFF), 0xE3069283)
        for requested, slots in ((0, 1024), (-5, 1024), (1, 1024), (1000, 1024), (1448, 1024),
                                 (1449, 2048), (2896, 2048), (2897, 4096), (65536, 65536)):
            with self.subTest(requested=requested):
                self.assertEqual(model.slot_count(requested), slots)

    def colliding(self, table: model.SlotTable) -> tuple[tuple, tuple]:
        first = (1, 2, 0)
        for ident in range(1, 100000):
            if table.index((1, 2, ident)) == table.index(first):
                return first, (1, 2, ident)
        raise AssertionError("no collision found")

    def test_slot_rules(self):
        small = {"filetable-size": 1024}
        t = model.Tables(small)
        a, b = self.colliding(t.file)
        t.file_insert(b"A" * 128, 0, 2, 1, None, 5, a[:2], a[2])
        t.file_add_command(b[:2], b[2], (0x1FF, 0))  # never displaces another key
        self.assertEqual(t.file.get(a).name, b"A" * 128)
        t.file_insert(b"A" * 128, 0, 2, 1, None, 5, a[:2], a[2])
        t.file_insert(b"B" * 128, 0, 1, 2, None, 5, b[:2], b[2])  # the newest key wins
        self.assertIsNone(t.file.get(a))
        self.assertEqual((t.file.get(b).file_type, t.file.get(b).pending), (1, [0, 0]))
        t.file_insert(b"C" * 128, 0, 2, 1, None, 5, b[:2], b[2])  # the first insert wins
        self.assertEqual(t.file.get(b).name, b"B" * 128)
        p = model.Parser(sizes=small)
        self.assertIsNone(p.lookup(p.t.file, a))
        p.t.file.insert(b, "x")
        self.assertIsNone(p.lookup(p.t.file, a))
        self.assertEqual(p.rules["collision"], 1)


class ModelTest(unittest.TestCase):
    def test_tree_and_file_records(self):
        conv = Conversation()
        session(conv)
        open_file(conv, 2, "dir\\a.txt", 0x11, action=2, disposition=2)
        on_file(conv, READ, 3, 0x11)
        on_file(conv, CLOSE, 4, 0x11)
        conv.send(True, msg(TREE_DISCONNECT, mid=5, tid=5))
        conv.send(False, msg(TREE_DISCONNECT, True, mid=5, tid=5))
        recs = records(conv)
        self.assertEqual(len(recs), 3)
        base = by_label(recs, "connection")
        self.assertEqual(base.fields(), (0x1FF, 0x1FF, None, None, 0xFF, 0x3F))
        tree = by_label(recs, "tree")
        self.assertEqual(tree.fields(), (B(TREE_CONNECT) | B(TREE_DISCONNECT) | 0xFF,
                                         B(TREE_CONNECT) | B(TREE_DISCONNECT) | 0xFF,
                                         "\\\\198.18.0.1\\share", None, 0xFF, 0x3F))
        f = by_label(recs, "dir\\a.txt")
        want = B(CREATE) | B(READ) | B(CLOSE) | 0xFF
        self.assertEqual(f.fields(), (want, want, "\\\\198.18.0.1\\share", "dir\\a.txt", 2, 2))

    def test_operations(self):
        # (what, create arguments, later request on the file, expected SMB_OP)
        cases = [
            ("opened", {}, None, 0x01),
            ("directory", {"attrs": 0x10}, None, 0x01),
            ("delete on close", {"options": wire.FILE_DELETE_ON_CLOSE}, None, 0x41),
            ("delete by disposition", {}, (0, 1), 0x41),
            ("refused delete", {}, (0xC0000022, 1), 0x41),
            ("rename", {}, (0, 0), 0x01),
        ]
        for what, kw, later, op in cases:
            with self.subTest(what):
                conv = Conversation()
                session(conv)
                open_file(conv, 2, "f", 0x22, **kw)
                if later is not None:
                    status, pending = later
                    on_file(conv, SET_INFO, 3, 0x22, status=status, info_type=1,
                            info_class=13 if pending else 10, delete_pending=pending or None)
                f = by_label(records(conv), "file f")
                self.assertEqual(f.op, op)
                self.assertEqual(f.file_type, 1 if kw.get("attrs") == 0x10 else 2)

    def test_failed_open_is_one_way(self):
        conv = Conversation()
        session(conv)
        open_file(conv, 2, "missing.txt", 0, disposition=3, status=0xC0000034)
        f = by_label(model.Model().run(conv.capture()), "failed open")
        # A one-way record from the server: no request mask; open-if failed reads as code 4.
        self.assertEqual(f.fields(), (None, B(CREATE) | 0xFF, "\\\\198.18.0.1\\share",
                                      "missing.txt", 0xFF, 0x84))

    def test_share_root_reports_the_share_path_as_name(self):
        conv = Conversation()
        session(conv)
        open_file(conv, 2, "", 0x33, attrs=0x10)
        f = by_label(records(conv), "share root")
        self.assertEqual((f.tree, f.file_name, f.file_type), ("\\\\198.18.0.1\\share",) * 2 + (1,))

    def test_related_chain_create_delete_close(self):
        conv = Conversation()
        session(conv)
        rel = wire.FLAG_RELATED
        conv.send(True, msg(CREATE, mid=2, tid=5, name=u16("gone.txt"), disposition=1, size=136),
                  msg(SET_INFO, mid=3, flags=rel, file_id=2**64 - 1, info_type=1,
                      info_class=13, delete_pending=1, size=104),
                  msg(CLOSE, mid=4, flags=rel, file_id=2**64 - 1, size=88))
        conv.send(False, msg(CREATE, True, mid=2, tid=5, action=1, attributes=0x20,
                             file_id=0x44, size=152),
                  msg(SET_INFO, True, mid=3, flags=rel, size=72),
                  msg(CLOSE, True, mid=4, flags=rel, size=124))
        f = by_label(records(conv), "gone.txt")
        want = B(CREATE) | B(SET_INFO) | B(CLOSE) | 0xFF
        # Only the response chain carries the file id: a one-way record, no request mask.
        self.assertEqual(f.fields()[:2], (None, want))
        self.assertEqual(f.op, 0x41)

    def test_unrelated_chain_parks_commands_for_the_file_record(self):
        conv = Conversation()
        session(conv)
        open_file(conv, 2, "a", 0xA)
        open_file(conv, 3, "b", 0xB)
        conv.send(True, msg(READ, mid=4, tid=5, file_id=0xA, size=120),
                  msg(READ, mid=5, tid=5, file_id=0xB, size=113))
        conv.send(False, msg(READ, True, mid=4, tid=5, size=88),
                  msg(READ, True, mid=5, tid=5, size=81))
        recs = records(conv)
        a, b = by_label(recs, "file a"), by_label(recs, "file b")
        both = B(CREATE) | B(READ) | 0xFF
        self.assertEqual(a.fields()[:2], (both, both))  # the chain's own record
        # b's flow holds its CREATE response alone (one-way); its READ response bit comes
        # through the one-shot mask.
        self.assertEqual(b.fields()[:2], (None, both))

    def test_large_write_gives_its_segments_and_later_acks_to_the_file(self):
        conv = Conversation()
        session(conv)
        open_file(conv, 2, "big", 0x77)
        conv.send(True, msg(WRITE, mid=3, tid=5, file_id=0x77, size=64 + 48 + 5000), mss=1448)
        conv.send(False, msg(WRITE, True, mid=3, tid=5))
        conv.ack(True)
        f = by_label(records(conv), "file big")
        # The CREATE response, four WRITE segments, the WRITE response and the client's ACK
        # (the CREATE request stays in the connection's record).
        self.assertEqual(f.packets, 1 + 4 + 1 + 1)

    def test_segmented_compound_is_parsed_when_complete(self):
        conv = Conversation()
        session(conv)
        rel = wire.FLAG_RELATED
        conv.send(True, msg(CREATE, mid=2, tid=5, name=u16("c.dat"), disposition=3, size=136),
                  msg(WRITE, mid=3, flags=rel, file_id=2**64 - 1, size=64 + 48 + 1024),
                  msg(CLOSE, mid=4, flags=rel, file_id=2**64 - 1, size=88), mss=256)
        conv.send(False, msg(CREATE, True, mid=2, tid=5, action=2, attributes=0x20,
                             file_id=0x55, size=152),
                  msg(WRITE, True, mid=3, flags=rel, size=80),
                  msg(CLOSE, True, mid=4, flags=rel, size=124))
        f = by_label(records(conv), "c.dat")
        want = B(CREATE) | B(WRITE) | B(CLOSE) | 0xFF
        self.assertEqual(f.fields(), (None, want, "\\\\198.18.0.1\\share", "c.dat", 2, 2))

    def test_interim_create_response_counts_as_a_failed_open(self):
        conv = Conversation()
        session(conv)
        conv.send(True, msg(CREATE, mid=2, tid=5, name=u16("slow"), disposition=1))
        conv.send(False, msg(CREATE, True, mid=2, status=wire.STATUS_PENDING,
                             flags=wire.FLAG_ASYNC))
        conv.send(False, msg(CREATE, True, mid=2, flags=wire.FLAG_ASYNC, action=1,
                             attributes=0x20, file_id=0x66))
        m = model.Model()
        recs = m.run(conv.capture())
        self.assertEqual(by_label(recs, "failed open slow").op, 0x81)
        self.assertEqual(by_label(recs, "file slow").tree, "\\\\198.18.0.1\\share")
        self.assertEqual(m.parser.rules["interim"], 1)


class SwitchTest(unittest.TestCase):
    """The model switches for the CREATE response minimum and the SMB1 response word."""

    def test_create_response_minimum(self):
        for minimum, named in ((89, True), (90, False)):  # the builder sends 89 bytes
            with self.subTest(minimum=minimum):
                conv = Conversation()
                session(conv)
                open_file(conv, 2, "f", 0x22)
                on_file(conv, CLOSE, 3, 0x22)
                names = [r.file_name for r in model.Model(create_response_min=minimum).run(
                    conv.capture())]
                self.assertEqual("f" in names, named)

    def test_smb1_response_word(self):
        conv = Conversation()
        for to_server in (True, False):
            pdu = Pdu("smb1", 100, 0, 0, smb1_command=0x72)
            conv._segment(to_server, 104, pdu)
        rec = model.Model().run(conv.capture())[0]
        self.assertEqual((rec.cmd_request, rec.cmd_response), (0x72, 0x72))


class CompareTest(unittest.TestCase):
    def rec(self, **kw):
        base = dict(client=CLIENT, client_port=CPORT, server=SERVER, server_port=445,
                    cmd_request=0x20FF, cmd_response=0x20FF, tree="t", file_name="f",
                    file_type=2, op=1, label="file f", packets=2)
        base.update(kw)
        return model.Expected(**base)

    def written(self, e: model.Expected, **kw):
        w = smbdiff.Written(e.client, e.client_port, *smbdiff.expected_fields(e), e.packets)
        for k, v in kw.items():
            setattr(w, k, v)
        return w

    def test_matching_and_differences(self):
        e1, e2 = self.rec(), self.rec(file_name="g", label="file g")
        one_way = self.rec(cmd_request=None, label="failed open")
        cases = [
            ("all match", [e1, e2, one_way], [self.written(e1), self.written(e2),
                                              self.written(one_way)], []),
            ("op differs", [e1], [self.written(e1, op=0x41)],
             ["SMB_OP expected 0x01, written 0x41"]),
            ("missing", [e1], [], ["no such record written"]),
            ("extra", [], [self.written(e1)], ["SMB_FILE_NAME='f'"]),
        ]
        for what, exp, got, texts in cases:
            with self.subTest(what):
                diffs = smbdiff.compare(exp, got)
                self.assertEqual(len(diffs), len(texts))
                for d, t in zip(diffs, texts):
                    self.assertIn(t, d.text)

    def test_read_records(self):
        lines = [
            '{"src_addr":"198.18.0.1","src_port":445,"dst_addr":"198.18.0.2","dst_port":50000,'
            '"packets":3,"rev_packets":2,"smb_cmd_request":"0x000020ff",'
            '"smb_cmd_response":"0x000060ff","smb_tree":"\\\\\\\\s\\\\x","smb_file_name":"a",'
            '"smb_file_type_code":2,"smb_op_code":"0x41"}',
            '{"src_addr":"198.18.0.2","src_port":50000,"dst_addr":"198.18.0.1","dst_port":445,'
            '"packets":1,"rev_packets":0,"smb_cmd_request":null,"smb_cmd_response":null,'
            '"smb_tree":null,"smb_file_name":null,"smb_file_type_code":255,"smb_op_code":"0x3f"}',
        ]
        a, b = smbdiff.read_records(lines, 445)
        self.assertEqual((a.client, a.client_port, a.packets), (CLIENT, CPORT, 5))
        self.assertEqual(a.fields(), (0x20FF, 0x60FF, "\\\\s\\x", "a", 2, 0x41))
        self.assertEqual(b.fields(), (0xFF, 0xFF, None, None, 0xFF, 0x3F))


class VolumeTest(unittest.TestCase):
    """A connection's records add up per connection, whichever end each record starts from."""

    def test_totals_and_differences(self):
        rec = ('{{"src_addr":"{}","src_port":{},"dst_addr":"{}","dst_port":{},"proto":{},'
               '"packets":{},"bytes":{},"rev_packets":{},"rev_bytes":{}}}')
        lines = [rec.format(CLIENT, CPORT, SERVER, 445, 6, 3, 300, 2, 200),
                 rec.format(SERVER, 445, CLIENT, CPORT, 6, 1, 100, "null", "null"),
                 rec.format(CLIENT, 53, SERVER, 53, 17, 1, 60, 1, 80)]  # UDP: not counted
        key = ((SERVER, 445), (CLIENT, CPORT)) if (SERVER, 445) < (CLIENT, CPORT) else \
            ((CLIENT, CPORT), (SERVER, 445))
        self.assertEqual(volume.record_totals(lines), {key: (6, 600)})
        cases = [({key: (6, 600)}, 0), ({key: (5, 600)}, 1), ({key: (6, 601)}, 1), ({}, 1)]
        for wire_counts, n in cases:
            with self.subTest(wire=wire_counts):
                self.assertEqual(len(volume.differences(wire_counts,
                                                        volume.record_totals(lines))), n)


if __name__ == "__main__":
    unittest.main()
