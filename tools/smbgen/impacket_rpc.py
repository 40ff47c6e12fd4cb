#!/usr/bin/python3
"""Remote calls over named pipes from impacket (Debian's python3-impacket), as an attacker's
tools make them: a file written to ADMIN$, then the service control manager (svcctl)
OpenSCManagerW (opnum 15), CreateServiceW (12), OpenServiceW (16), StartServiceW (19),
DeleteService (2) and CloseServiceHandle (0); then the task scheduler, ITaskSchedulerService
SchRpcEnumTasks and atsvc NetrJobEnum, on the \\atsvc pipe or, where the server has none, bound
on the \\svcctl pipe (the server rejects the interface; the BIND and REQUEST are on the wire).

    impacket_rpc.py HOST USER PASSWORD DOMAIN

It speaks SMB 2.1: impacket encrypts every SMB 3 session that the server lets it, and the
calls are to be seen. Calls that the server refuses are expected (Samba implements no service creation and no task
scheduler). Exit status 0 when the logon, the ADMIN$ write and the svcctl bind succeeded.
"""

import io
import sys

from impacket import smb3structs
from impacket.dcerpc.v5 import atsvc, scmr, transport, tsch
from impacket.smbconnection import SMBConnection

SERVICE = "smbgensvc"


def attempt(what: str, step):
    try:
        return step()
    except Exception as err:  # the server's refusal is part of the traffic
        print(f"{what}: {str(err).splitlines()[0]}")
        return None


def pipe(conn, host: str, name: str):
    rpc = transport.SMBTransport(host, filename=name, smb_connection=conn)
    dce = rpc.get_dce_rpc()
    dce.connect()
    return dce


def service_control(conn, host: str) -> None:
    dce = pipe(conn, host, r"\svcctl")
    dce.bind(scmr.MSRPC_UUID_SCMR)
    manager = scmr.hROpenSCManagerW(dce)["lpScHandle"]
    attempt("CreateServiceW", lambda: scmr.hRCreateServiceW(
        dce, manager, SERVICE, SERVICE, lpBinaryPathName="%SystemRoot%\\smbgensvc.exe"))
    opened = attempt("OpenServiceW", lambda: scmr.hROpenServiceW(dce, manager, SERVICE))
    handle = opened["lpServiceHandle"] if opened else manager
    attempt("StartServiceW", lambda: scmr.hRStartServiceW(dce, handle))
    attempt("DeleteService", lambda: scmr.hRDeleteService(dce, handle))
    scmr.hRCloseServiceHandle(dce, manager)
    dce.disconnect()


def task_scheduler(conn, host: str) -> None:
    for uuid, call in ((tsch.MSRPC_UUID_TSCHS, lambda d: tsch.hSchRpcEnumTasks(d, "\\")),
                       (atsvc.MSRPC_UUID_ATSVC, lambda d: atsvc.hNetrJobEnum(d))):
        dce = attempt("open \\atsvc", lambda: pipe(conn, host, r"\atsvc"))
        if dce is None:
            dce = pipe(conn, host, r"\svcctl")
        bound = attempt("bind", lambda: dce.bind(uuid)) is not None
        if not bound:
            # The server answers no call on a rejected context: send the REQUEST only, in
            # fragments of the size a bind would have agreed.
            def no_answer():
                raise TimeoutError("no answer awaited on a rejected context")
            dce.recv = no_answer
            dce.set_max_tfrag(4280)
        attempt("call", lambda: call(dce))
        attempt("disconnect", dce.disconnect)


def main() -> int:
    host, user, password, domain = sys.argv[1:5]
    conn = SMBConnection(host, host, preferredDialect=smb3structs.SMB2_DIALECT_21)
    conn.login(user, password, domain)
    conn.putFile("ADMIN$", "smbgensvc.exe", io.BytesIO(b"MZ" + b"\0" * 510).read)
    service_control(conn, host)
    task_scheduler(conn, host)
    attempt("delete", lambda: conn.deleteFile("ADMIN$", "smbgensvc.exe"))
    conn.logoff()
    return 0


if __name__ == "__main__":
    sys.exit(main())
