#!/usr/bin/python3
"""A second SMB client for the traffic generator, built on impacket (Debian's python3-impacket):
puts, gets, lists, renames and deletes files in a directory of its own, and fails to open a
file that is not there, in the dialect it is told to speak.

    impacket_client.py HOST SHARE USER PASSWORD DIALECT TAG

DIALECT is one of 1 (NT LM 0.12), 2.0.2, 2.1, 3.0. Exit status 0 when every step but the
failed open succeeded.
"""

import io
import sys

from impacket import smb, smb3structs
from impacket.smbconnection import SessionError, SMBConnection

DIALECTS = {
    "1": smb.SMB_DIALECT,
    "2.0.2": smb3structs.SMB2_DIALECT_002,
    "2.1": smb3structs.SMB2_DIALECT_21,
    "3.0": smb3structs.SMB2_DIALECT_30,
}
PAYLOAD = b"hello from the impacket client\n" * 8


def main(argv: list[str]) -> int:
    host, share, user, password, dialect, tag = argv
    conn = SMBConnection(host, host, sess_port=445, preferredDialect=DIALECTS[dialect],
                         timeout=30)
    conn.login(user, password)
    d = f"imp_{tag}"
    conn.createDirectory(share, d)
    conn.putFile(share, f"{d}\\a.txt", io.BytesIO(PAYLOAD).read)
    got = io.BytesIO()
    conn.getFile(share, f"{d}\\a.txt", got.write)
    if got.getvalue() != PAYLOAD:
        print("read back something else", file=sys.stderr)
        return 1
    names = [f.get_longname() for f in conn.listPath(share, f"{d}\\*")]
    conn.rename(share, f"{d}\\a.txt", f"{d}\\b.txt")
    conn.putFile(share, f"{d}\\c.txt", io.BytesIO(PAYLOAD).read)
    conn.deleteFile(share, f"{d}\\b.txt")
    conn.deleteFile(share, f"{d}\\c.txt")
    conn.deleteDirectory(share, d)
    try:
        conn.getFile(share, "no_such_file.txt", io.BytesIO().write)
        print("opened a file that is not there", file=sys.stderr)
        return 1
    except SessionError:
        pass
    conn.logoff()
    print(f"dialect {conn.getDialect()!r}: listed {sorted(names)}")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
