#!/usr/bin/python3
"""A second SMB client for the traffic generator, built on impacket (Debian's python3-impacket):
puts, gets, lists, renames and deletes files in a directory of its own, and fails to open a
file that is not there, in the dialect it is told to speak.

    impacket_client.py HOST SHARE USER PASSWORD DIALECT TAG [RO_SHARE SIZE]

DIALECT is one of 1 (NT LM 0.12), 2.0.2, 2.1, 3.0. With RO_SHARE (a read-only share) and SIZE
it goes on in SMB2/3 with what the activity counters measure: SIZE bytes written and read back
in single WRITE and READ messages, renames (SET_INFO FileRenameInformation), deletes by
SET_INFO FileDispositionInformation and FileDispositionInformationEx, and opens that fail with
access denied and not found. Exit status 0 when every step but the failures succeeded.
"""

import io
import struct
import sys

from impacket import nt_errors, smb, smb3, smb3structs
from impacket.smbconnection import SessionError, SMBConnection

DIALECTS = {
    "1": smb.SMB_DIALECT,
    "2.0.2": smb3structs.SMB2_DIALECT_002,
    "2.1": smb3structs.SMB2_DIALECT_21,
    "3.0": smb3structs.SMB2_DIALECT_30,
}
PAYLOAD = b"hello from the impacket client\n" * 8


FILE_RENAME_INFORMATION, FILE_DISPOSITION_INFORMATION = 10, 13
FILE_DISPOSITION_INFORMATION_EX = 64
FILE_DISPOSITION_DELETE = 0x1
GENERIC_ALL, FILE_OVERWRITE_IF, FILE_OPEN = 0x10000000, 5, 1


def expect_failure(what: str, status: int, step) -> None:
    try:
        step()
    except smb3.SessionError as err:  # the SMB2/3 layer's own error class
        if err.get_error_code() != status:
            raise
        return
    raise RuntimeError(f"{what} succeeded")


def rename_info(new_path: str) -> bytes:
    """FILE_RENAME_INFORMATION for SMB2 (MS-FSCC 2.4.37.2): ReplaceIfExists, reserved,
    RootDirectory 0, FileNameLength, FileName."""
    name = new_path.encode("utf-16le")
    return struct.pack("<B7xQI", 0, 0, len(name)) + name


def activity(conn: SMBConnection, share: str, ro_share: str, size: int, tag: str) -> None:
    smb2 = conn.getSMBServer()
    # impacket caps its READ and WRITE messages at 1 MiB; Samba offers 8 MiB.
    for key in ("MaxReadSize", "MaxWriteSize"):
        smb2._Connection[key] = min(size, 8 << 20)
    tid = conn.connectTree(share)
    d = f"act_{tag}"
    conn.createDirectory(share, d)
    data = bytes((i * 7 + i // 4096) & 0xFF for i in range(size))
    fid = smb2.create(tid, f"{d}\\big.bin", GENERIC_ALL, 7, 0x40, FILE_OVERWRITE_IF, 0x80)
    smb2.write(tid, fid, data, 0, len(data))
    got = smb2.read(tid, fid, 0, len(data))
    if got != data:
        raise RuntimeError(f"read back {len(got)} bytes, not the {len(data)} written")
    smb2.setInfo(tid, fid, rename_info(f"{d}\\renamed.bin"), 1, FILE_RENAME_INFORMATION)
    smb2.setInfo(tid, fid, rename_info(f"{d}\\renamed_again.bin"), 1, FILE_RENAME_INFORMATION)
    smb2.setInfo(tid, fid, b"\x01", 1, FILE_DISPOSITION_INFORMATION)
    smb2.close(tid, fid)
    fid = smb2.create(tid, f"{d}\\ex.bin", GENERIC_ALL, 7, 0x40, FILE_OVERWRITE_IF, 0x80)
    smb2.write(tid, fid, PAYLOAD, 0, len(PAYLOAD))
    try:  # not every server knows the Ex form
        smb2.setInfo(tid, fid, struct.pack("<I", FILE_DISPOSITION_DELETE), 1,
                     FILE_DISPOSITION_INFORMATION_EX)
    except smb3.SessionError:
        smb2.setInfo(tid, fid, b"\x01", 1, FILE_DISPOSITION_INFORMATION)
    smb2.close(tid, fid)
    expect_failure("opening a missing file", nt_errors.STATUS_OBJECT_NAME_NOT_FOUND,
                   lambda: smb2.create(tid, f"{d}\\missing.bin", 0x80000000, 7, 0x40, FILE_OPEN,
                                       0x80))
    conn.deleteDirectory(share, d)
    ro = conn.connectTree(ro_share)
    expect_failure("writing on a read-only share", nt_errors.STATUS_ACCESS_DENIED,
                   lambda: smb2.create(ro, "denied.bin", GENERIC_ALL, 7, 0x40, FILE_OVERWRITE_IF,
                                       0x80))
    conn.disconnectTree(ro)
    conn.disconnectTree(tid)


def main(argv: list[str]) -> int:
    host, share, user, password, dialect, tag = argv[:6]
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
    if len(argv) == 8:
        activity(conn, share, argv[6], int(argv[7]), tag)
    conn.logoff()
    print(f"dialect {conn.getDialect()!r}: listed {sorted(names)}")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
