#!/usr/bin/env bash
# Every test: installs what is missing, then builds and runs the test suite in the release
# build, the IPFIX export through independent decoders (ipfixDump, tshark, nfcapd/nfdump), and
# the suite again under AddressSanitizer and UndefinedBehaviorSanitizer; last, fresh captures
# of real SMB traffic from Samba are checked against tshark (skipped where they cannot be made),
# smbflow runs over every capture under ASan/UBSan and, with 4 queues, under ThreadSanitizer,
# and every fuzz harness runs for a bounded time (SMB_FUZZ_SECONDS each, default 60).
#
# Every stage runs even when an earlier one failed (a stage that needs a build which failed is
# reported as failed too), so that one failing stage never hides the results of the others;
# the script ends with the list of failed stages and exits non-zero when there is one.
set -uo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc)
failed=()

# stage NAME COMMAND...: runs one stage, notes its failure, never stops the script.
stage() {
  local name=$1
  shift
  echo "=== $name"
  local start=$SECONDS
  if "$@"; then
    echo "=== $name: passed ($((SECONDS - start)) s)"
  else
    echo "=== $name: FAILED (status $?, $((SECONDS - start)) s)"
    failed+=("$name")
  fi
}

run_ctest() {
  ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    ctest --test-dir "$1" --output-on-failure -j "$jobs"
}

stage "install dependencies" tools/install-deps.sh
stage "release build" tools/build.sh release
stage "release tests" run_ctest build
stage "IPFIX export: ipfixDump, tshark and nfcapd/nfdump" tools/ipfix-check.py build/smbflow
stage "IPFIX into nfacctd: SMB fields in its print and SQLite plugins" tools/nfacctd-check.py build/smbflow
stage "asan build" tools/build.sh asan
stage "asan tests" run_ctest build-asan
stage "real traffic: fresh Samba captures against tshark" tools/traffic-check.sh build
stage "smbflow over every capture: ASan/UBSan, and TSan with 4 queues" tools/sanitize-captures.sh
stage "fuzzing: every harness for a bounded time" tools/fuzz.sh -t "${SMB_FUZZ_SECONDS:-60}"

echo
if [ ${#failed[@]} -eq 0 ]; then
  echo "test-all: every stage passed"
  exit 0
fi
echo "test-all: ${#failed[@]} stage(s) failed:"
printf '  %s\n' "${failed[@]}"
exit 1
