#!/usr/bin/env python3
"""Reads the JUnit file that `ctest --output-junit` writes: which tests failed, which were skipped
(a SKIP_RETURN_CODE or SKIP_REGULAR_EXPRESSION match, "Not Run", disabled) and why.

    tools/ctest_junit.py JUNIT_FILE [ALLOWED]

ALLOWED is a comma-separated list (the SMB_ALLOW_SKIP variable of tools/test-all.sh): a skipped
test is allowed when the list names it, or names the part of its name before the first dot
(`traffic` allows every `traffic.*` test). Prints one line per skipped test; exit status 1 when
a skip was not allowed or the file holds no test at all, else 0. ctest's own exit status says
whether a test failed; this only closes the gap that a skip leaves it at 0.
"""
from __future__ import annotations

import sys
import xml.etree.ElementTree as ET
from dataclasses import dataclass


@dataclass
class Outcome:
    name: str
    status: str  # "passed", "failed" or "skipped"
    seconds: float
    reason: str


def read(path: str) -> list[Outcome]:
    out = []
    for case in ET.parse(path).getroot().iter("testcase"):
        # Parameterised GoogleTest cases discovered with pretty values carry "  # GetParam() = ..."
        # after the name (the project turns them off; older build trees may still have them).
        name = case.get("name", "").split("  # ", 1)[0]
        seconds = float(case.get("time") or 0)
        status = case.get("status", "run")
        skipped = case.find("skipped")
        if skipped is not None or status in ("notrun", "disabled"):
            reason = skipped.get("message", "") if skipped is not None else status
            # The test's own explanation, where it printed one, says more than ctest's note.
            text = case.findtext("system-out") or ""
            said = [line.strip() for line in text.splitlines() if "SKIP" in line]
            out.append(Outcome(name, "skipped", seconds, said[-1] if said else reason))
        elif status == "fail" or case.find("failure") is not None:
            out.append(Outcome(name, "failed", seconds, ""))
        else:
            out.append(Outcome(name, "passed", seconds, ""))
    return out


def allowed(name: str, allow: set[str]) -> bool:
    return name in allow or name.split(".", 1)[0] in allow


def main(argv: list[str]) -> int:
    if len(argv) not in (2, 3):
        print(__doc__, file=sys.stderr)
        return 2
    allow = {a.strip() for a in (argv[2] if len(argv) == 3 else "").split(",") if a.strip()}
    outcomes = read(argv[1])
    if not outcomes:
        print("ctest: no tests ran", file=sys.stderr)
        return 1
    bad = 0
    for o in outcomes:
        if o.status != "skipped":
            continue
        ok = allowed(o.name, allow)
        bad += not ok
        print(f"SKIPPED {o.name}: {o.reason}" + (" (allowed)" if ok else " (not allowed: FAILED)"))
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
