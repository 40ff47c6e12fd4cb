"""Tests of the activity check's counting rules on a hand-made conversation, where real
captures cannot reach (a response without its request, a READ cut by STATUS_BUFFER_OVERFLOW,
an interim response before the final one), and of its comparison."""

from __future__ import annotations

import sys
import unittest
from collections import Counter
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))

import activity  # noqa: E402
import wire  # noqa: E402
from test_smbdiff import CLIENT, CPORT, Conversation, msg, u16  # noqa: E402
from wire import CREATE, NEGOTIATE, READ, SESSION_SETUP, SET_INFO, WRITE  # noqa: E402

ASYNC, SIGNED = wire.FLAG_ASYNC, wire.FLAG_SIGNED


def conversation() -> wire.Capture:
    """Segment n is at n seconds, so a latency is a whole number of seconds."""
    c = Conversation()
    c.send(True, msg(NEGOTIATE, mid=0))  # 1
    c.send(False, msg(NEGOTIATE, True, mid=0, dialect=0x02FF))  # 2: wildcard, not a dialect
    c.send(True, msg(NEGOTIATE, mid=1))  # 3
    c.send(False, msg(NEGOTIATE, True, mid=1, dialect=0x0311, security_mode=0x03))  # 4
    c.send(True, msg(SESSION_SETUP, mid=2))  # 5
    c.send(False, msg(SESSION_SETUP, True, mid=2, status=0xC0000016))  # 6: not an error
    c.send(True, msg(SESSION_SETUP, mid=3))  # 7
    c.send(False, msg(SESSION_SETUP, True, mid=3, session_flags=0x1, flags=SIGNED))  # 8
    c.send(True, msg(WRITE, mid=4, file_id=7))  # 9
    c.send(False, msg(WRITE, True, mid=4, status=wire.STATUS_PENDING, flags=ASYNC))  # 10
    c.send(False, msg(WRITE, True, mid=4, flags=ASYNC, write_count=1000))  # 11: 2 s
    c.send(True, msg(READ, mid=5, file_id=7))  # 12
    c.send(False, msg(READ, True, mid=5, status=0x80000005, data_length=100))  # 13
    c.send(True, msg(READ, mid=6, file_id=7))  # 14
    c.send(False, msg(READ, True, mid=6, data_length=500))  # 15
    c.send(False, msg(READ, True, mid=99, data_length=30))  # 16: no request, not timed
    c.send(True, msg(CREATE, mid=7, name=u16("secret.txt")))  # 17
    c.send(False, msg(CREATE, True, mid=7, status=0xC0000022))  # 18
    for mid, info in ((8, dict(info_class=10, rename_to=u16("a.txt"))),
                      (9, dict(info_class=10, rename_to=u16("b.txt"))),
                      (10, dict(info_class=13, delete_pending=0)),
                      (11, dict(info_class=64, info_flags=0x1)),
                      (12, dict(info_class=13, delete_pending=1))):
        c.send(True, msg(SET_INFO, mid=mid, file_id=7, info_type=1, **info))
        c.send(False, msg(SET_INFO, True, mid=mid, status=0xC0000034 if mid == 12 else 0))
    return wire.Capture(c.segments, [s.starts for s in c.segments if s.starts])


class CountingTest(unittest.TestCase):
    def test_conversation(self):
        rules = Counter()
        exp = activity.expected(conversation(), 445, {}, rules)
        c = exp[(CLIENT, CPORT)]
        # 11 requests are answered (one only by an interim response first), 1 response has none
        want = {"smb_bytes_read": 530, "smb_bytes_written": 1000, "smb_reads": 2,
                "smb_writes": 1, "smb_errors": 2, "smb_renames": 2, "smb_deletes": 1,
                "smb_latency_count": 13, "smb_latency_sum_us": 14_000_000,
                "smb_latency_max_us": 2_000_000, "smb_security": 0x1 | 0x2 | 0x8}
        self.assertEqual(c.totals(), want)
        self.assertEqual(c.dialect, 0x0311)
        self.assertEqual(c.errors, [0xC0000022, 0xC0000034])
        self.assertEqual(c.renames, {7: "b.txt"})
        for rule in ("interim", "buffer-overflow", "more-processing", "untimed", "wildcard",
                     "last-rename"):
            self.assertEqual(rules[rule], 1, rule)


class CompareTest(unittest.TestCase):
    def test_each_kind_of_difference_is_reported(self):
        e = activity.Conn(dialect=0x0302, security=0x1, errors=[0xC0000022],
                          renames={1: "b.txt"})
        e.counts.update(smb_reads=1, smb_bytes_read=10)
        e.files["f.txt"][0] = 10
        key = (CLIENT, CPORT)

        def written(**change):
            w = activity.Written(dialects={0x0302}, last_errors={0xC0000022},
                                 renames={"b.txt"})
            w.totals.update(smb_reads=1, smb_bytes_read=10, smb_security=0x1)
            w.files["f.txt"][0] = 10
            for k, v in change.items():
                if k in activity.COUNTERS:
                    w.totals[k] = v
                else:
                    setattr(w, k, v)
            return w

        self.assertEqual(activity.compare({key: e}, {key: written()}, Counter()), [])
        cases = [("SMB_READS", dict(smb_reads=2)), ("SMB_SECURITY", dict(smb_security=2)),
                 ("SMB_DIALECT", dict(dialects={0x0302, 0x0311})),
                 ("SMB_DIALECT", dict(smb2_records=3, without_dialect=1)),
                 ("SMB_SECURITY", dict(smb2_records=3, without_signing_required=1)),
                 ("SMB_LAST_ERROR", dict(last_errors={0xC0000034})),
                 ("SMB_RENAME_TO", dict(renames={"a.txt"})),
                 ("'f.txt'", dict(files={"f.txt": [9, 0]})),
                 ("'g.txt'", dict(files={"f.txt": [10, 0], "g.txt": [0, 1]}))]
        for what, change in cases:
            with self.subTest(what):
                diffs = activity.compare({key: e}, {key: written(**change)}, Counter())
                self.assertTrue(diffs and all(what in d for d in diffs), diffs)


class RequireAllTest(unittest.TestCase):
    def test_a_quantity_never_compared_fails_the_run(self):
        run = activity.Run("activity=1", 4)
        everything = {k: 1 for k in activity.COVERED}
        self.assertEqual(activity.not_compared("activity", run, everything, activity.COVERED), 0)
        for key in ("smb_renames", "signing_required", "files"):
            with self.subTest(key):
                values = {**everything, key: 0}
                self.assertEqual(activity.not_compared("activity", run, values,
                                                       activity.COVERED), 1)
        # A key that the run's totals lack altogether counts as zero.
        del everything["guest"]
        self.assertEqual(activity.not_compared("activity", run, everything, activity.COVERED), 1)


if __name__ == "__main__":
    unittest.main()
