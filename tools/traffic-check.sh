#!/usr/bin/env bash
# Real traffic, fresh: makes new captures with Samba (tools/smbgen) and runs the differential
# check (tools/smbdiff) on them with the smbflow and plug-in of a build directory.
#   tools/traffic-check.sh [BUILD_DIR]   (default build)
# Exits 77 (skipped, which tools/test-all.sh fails unless SMB_ALLOW_SKIP=traffic) where the
# captures cannot be made (no root, no Samba, no tshark), where smbflow is not built, or where
# the generator left scenarios out (then after checking the captures it did make).
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
smbflow=$build/smbflow
plugin=$build/plugin-process-smb.so
if [ ! -x "$smbflow" ] || [ ! -f "$plugin" ]; then
  echo "traffic-check: SKIP: $smbflow or $plugin is not built"
  exit 77
fi
out=$build/fresh-captures
rm -rf "$out"
status=0
timeout 600 python3 tools/smbgen/smbgen.py --out "$out" || status=$?
if [ "$status" -eq 77 ]; then
  echo "traffic-check: SKIP: fresh captures cannot be made here (see the note above)"
  exit 77
elif [ "$status" -ne 0 ]; then
  echo "traffic-check: the traffic generator failed ($status)" >&2
  exit "$status"
fi
cat "$out/MANIFEST.txt"
status=0
# wire-counts=1: besides the fields, each connection's records must add up to the packets and
# bytes that tshark counts for it.
for params in "" short-create=1 wire-counts=1; do
  for queues in 1 4; do
    echo "traffic-check: smbflow with $queues queue(s)${params:+, --params $params}"
    PYTHONDONTWRITEBYTECODE=1 python3 tools/smbdiff/smbdiff.py --smbflow "$smbflow" \
      --queues "$queues" --plugin "$plugin" ${params:+--params "$params"} "$out"/*.pcap || status=1
  done
done
# The activity counters (activity=1) against tshark's totals, at 1 and 4 queues; with
# short-create=1 Samba's plain opens are named too, so that bytes per file are compared for them.
# --require-all (here and below): a counter, flag or name that no fresh capture exercises fails
# the check rather than passing it unchecked.
echo "traffic-check: activity counters, --params activity=1 and activity=1,short-create=1"
PYTHONDONTWRITEBYTECODE=1 python3 tools/smbdiff/activity.py --smbflow "$smbflow" \
  --plugin "$plugin" --queues 1,4 --params activity=1 --params activity=1,short-create=1 \
  --require-all "$out"/*.pcap || status=1
# Identities per record and the interfaces and opnums of pipe records against tshark, at 1 and
# 4 queues.
echo "traffic-check: identities and remote calls, --params activity=1"
PYTHONDONTWRITEBYTECODE=1 python3 tools/smbdiff/identity.py --smbflow "$smbflow" \
  --plugin "$plugin" --queues 1,4 --params activity=1 --require-all "$out"/*.pcap || status=1
if [ "$status" -eq 0 ] && grep -q '^# skipped' "$out/MANIFEST.txt"; then
  echo "traffic-check: SKIP: the generator left scenarios out:"
  grep '^# skipped' "$out/MANIFEST.txt"
  exit 77
fi
exit "$status"
