"""Checks of the generator that need no root: the names it uses hit the cases they are meant
to hit, and its scenarios are well formed."""

from __future__ import annotations

import sys
import tempfile
import unittest
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent))

import smbgen  # noqa: E402


def unit(raw: bytes, index: int) -> int:
    return int.from_bytes(raw[2 * index:2 * index + 2], "little")


class NamesTest(unittest.TestCase):
    def test_names_cross_the_capture_limits(self):
        long_name = smbgen.LONG_NAME.encode("utf-16le")
        self.assertGreater(len(long_name) // 2, 63)
        # The tail cut of 63 units would start at a low surrogate: its high half is the unit
        # 64 from the end.
        astral = smbgen.ASTRAL_LONG_NAME.encode("utf-16le")
        self.assertTrue(0xD800 <= unit(astral, len(astral) // 2 - 64) <= 0xDBFF)
        # Over IPv4 the share path has a high surrogate as its 63rd unit.
        unc = f"\\\\{smbgen.SERVER_V4}\\{smbgen.SHARE_LONG}".encode("utf-16le")
        self.assertTrue(0xD800 <= unit(unc, 62) <= 0xDBFF)
        self.assertTrue(any(ord(c) > 0xFFFF for c in smbgen.ASTRAL_NAME))
        self.assertTrue(any(ord(c) > 0x7F for c in smbgen.BMP_NAME))

    def test_scenarios(self):
        names = [sc.name for sc in smbgen.SCENARIOS]
        self.assertEqual(len(names), len(set(names)))
        for sc in smbgen.SCENARIOS:
            with self.subTest(sc.name):
                self.assertTrue(sc.sessions)
                self.assertGreaterEqual(sc.mtu, 68)
                self.assertIn(sc.server_signing, ("default", "mandatory"))
                for s in sc.sessions:
                    what = {"smbclient": s.cmds or s.guest or s.account, "smbtorture": s.tests,
                            "impacket": s.dialect, "rpcclient": s.cmds,
                            "impacket_rpc": s.account in smbgen.ACCOUNTS}
                    self.assertTrue(what[s.kind])


    def test_server_config_names_the_signing_setting(self):
        # Written only when it is not Samba's own default, so that the other scenarios run
        # under the configuration they always had.
        with tempfile.TemporaryDirectory() as d:
            net = smbgen.Network("test")
            samba = smbgen.Samba(Path(d), net, smbgen.Processes())
            samba.write_server_config()
            self.assertNotIn("server signing", samba.conf.read_text())
            samba.signing = "mandatory"
            samba.write_server_config()
            self.assertIn("   server signing = mandatory\n", samba.conf.read_text())


if __name__ == "__main__":
    unittest.main()
