"""Tests of the identity and remote-call check on a hand-made conversation: which records get
a session's names (not before its AUTHENTICATE, none for an anonymous logon), which get the
calls of a pipe (only on IPC$, the interface of the last REQUEST), and that the comparison
reports every field that differs."""

from __future__ import annotations

import sys
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))

import identity  # noqa: E402
import smbdiff  # noqa: E402
from test_smbdiff import CLIENT, CPORT, Conversation, msg, open_file, u16  # noqa: E402
from wire import (IOCTL, NEGOTIATE, SESSION_SETUP, TREE_CONNECT, WRITE,  # noqa: E402
                  DcerpcPdu)

SRVSVC = "4b324fc8-1670-01d3-1278-5a47bf6ee188"
SVCCTL = "367abb81-9844-35f1-ad32-98f038001003"
ALICE = (u16("alice"), u16("CORP"), u16("WS01"))
S1, S2 = 0x1001, 0x2002
IOCTL_SIZE = 64 + 56 + 72


def bind(*contexts):
    return DcerpcPdu(11, 3, [c + (None,) for c in contexts])


def request(ctx, opnum, flags=3):
    return DcerpcPdu(0, flags, [], ctx, opnum)


def conversation(share: str = "IPC$"):
    c = Conversation()
    c.send(True, msg(NEGOTIATE, mid=0))
    c.send(False, msg(NEGOTIATE, True, mid=0))
    c.send(True, msg(SESSION_SETUP, mid=1, session_id=S1, auth=ALICE))
    c.send(False, msg(SESSION_SETUP, True, mid=1, session_id=S1))
    c.send(True, msg(TREE_CONNECT, mid=2, session_id=S1, path=u16(f"\\\\srv\\{share}")))
    c.send(False, msg(TREE_CONNECT, True, mid=2, tid=5, session_id=S1))
    open_file(c, 3, "svcctl", 7)
    c.send(True, msg(WRITE, mid=4, tid=5, file_id=7, session_id=S1,
                     rpc=[bind((0, SRVSVC), (1, SVCCTL))]))
    c.send(True, msg(WRITE, mid=5, tid=5, file_id=7, session_id=S1,
                     rpc=[request(1, 15), request(1, 15, flags=2)]))
    c.send(True, msg(IOCTL, mid=6, tid=5, file_id=7, session_id=S1, ctl_code=0x0011C017,
                     size=IOCTL_SIZE, rpc=[request(0, 70)]))
    c.send(True, msg(IOCTL, mid=7, tid=5, file_id=7, session_id=S1, ctl_code=0x00140204,
                     size=IOCTL_SIZE, rpc=[request(0, 3)]))  # not a pipe transceive
    # A second session, anonymous, on the same connection.
    c.send(True, msg(SESSION_SETUP, mid=8, session_id=S2, auth=(b"", b"", u16("WS01"))))
    c.send(False, msg(SESSION_SETUP, True, mid=8, session_id=S2))
    return c.capture()


def expected(cap):
    return identity.WhoModel().run(cap)


class ModelTest(unittest.TestCase):
    def test_pipe_record_on_ipc(self):
        recs = expected(conversation())
        pipe = [r for r in recs if r.who.calls]
        self.assertEqual(len(pipe), 1)
        w = pipe[0].who
        self.assertEqual(w.values(), ("alice", "CORP", "WS01", SRVSVC, 1 << 15 | 1 << 63, 2))

    def test_calls_dropped_off_ipc(self):
        m = identity.WhoModel()
        recs = m.run(conversation("data"))
        self.assertFalse(any(r.who.calls or r.who.interface for r in recs))
        self.assertGreater(m.parser.who_rules["not-ipc"], 0)

    def test_names_follow_the_last_session_and_not_before_auth(self):
        m = identity.WhoModel()
        recs = m.run(conversation())
        conn = [r for r in recs if r.label == "connection"][0]
        # Its last session message is the anonymous logon's: no names.
        self.assertEqual(conn.who.user, None)
        self.assertEqual(m.parser.who_rules["anonymous"], 1)
        self.assertEqual(m.parser.who_rules["later-fragment"], 1)


class CompareTest(unittest.TestCase):
    def test_each_differing_field_is_reported(self):
        recs = expected(conversation())
        good = {}
        for e in recs:
            good.setdefault((e.client, e.client_port), []).append(
                (smbdiff.expected_fields(e), e.who.values()))
        self.assertEqual(identity.compare(recs, good), [])
        pipe_index = next(i for i, e in enumerate(recs) if e.who.calls)
        for field, value in enumerate(("bob", "OTHER", "WS02", SVCCTL, 1, 9)):
            with self.subTest(field=identity.LABELS[field]):
                bad = {k: list(v) for k, v in good.items()}
                six, values = bad[(CLIENT, CPORT)][pipe_index]
                changed = list(values)
                changed[field] = value
                bad[(CLIENT, CPORT)][pipe_index] = (six, tuple(changed))
                diffs = identity.compare(recs, bad)
                self.assertEqual(len(diffs), 1)
                self.assertIn(identity.LABELS[field], diffs[0])

    def test_missing_record_is_reported(self):
        recs = expected(conversation())
        self.assertEqual(len(identity.compare(recs, {})), len(recs))


if __name__ == "__main__":
    unittest.main()
