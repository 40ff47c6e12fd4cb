#!/usr/bin/env bash
# Every test: installs what is missing, then builds and runs the test suite in the release
# build, the IPFIX export through independent decoders (ipfixDump, tshark, nfcapd/nfdump), and
# the suite again under AddressSanitizer and UndefinedBehaviorSanitizer; last, fresh captures
# of real SMB traffic from Samba are checked against tshark, the tests labelled `threads` run
# in the ThreadSanitizer build, smbflow runs over every capture under ASan/UBSan and, with 4
# queues, under ThreadSanitizer, and every fuzz harness runs for a bounded time
# (SMB_FUZZ_SECONDS each, default 60).
#
# A skip is a failure: a stage that exits 77 (it could not run here) or a ctest test reported
# skipped fails the run, unless SMB_ALLOW_SKIP names it: a stage by the key in brackets below
# (e.g. SMB_ALLOW_SKIP=traffic), a ctest test by its name or by the part before its first dot
# (`traffic` also allows the traffic.* tests). The summary lists every skip and its reason.
#
# Every stage runs even when an earlier one failed (a stage that needs a build which failed is
# reported as failed too), so that one failing stage never hides the results of the others;
# the script ends with the list of failed stages and exits non-zero when there is one.
set -uo pipefail
cd "$(dirname "$0")/.."
jobs=$(nproc)
failed=()
skipped=()
allow=",${SMB_ALLOW_SKIP:-},"
log=$(mktemp)
trap 'rm -f "$log"' EXIT

# stage KEY NAME COMMAND...: runs one stage, notes its failure or skip, never stops the script.
stage() {
  local key=$1 name=$2
  shift 2
  echo "=== [$key] $name"
  local start=$SECONDS status=0
  "$@" 2>&1 | tee "$log" || status=$?
  local took="$((SECONDS - start)) s"
  local why
  why=$(grep -o 'SKIP.*' "$log" | tail -n 5 | tr '\n' ';')
  [ "$status" -eq 0 ] && why=$(grep '^SKIPPED ' "$log" | tr '\n' ';')
  if [ "$status" -eq 77 ] && [[ $allow == *",$key,"* ]]; then
    echo "=== $name: skipped, as SMB_ALLOW_SKIP asks ($took)"
    skipped+=("[$key] $name: ${why:-no reason given}")
  elif [ "$status" -eq 77 ]; then
    echo "=== $name: FAILED: skipped, and SMB_ALLOW_SKIP does not name $key ($took)"
    failed+=("[$key] $name (skipped: ${why:-no reason given})")
  elif [ "$status" -ne 0 ]; then
    echo "=== $name: FAILED (status $status, $took)"
    local skips
    skips=$(grep '^SKIPPED ' "$log" | tr '\n' ';')
    failed+=("[$key] $name${skips:+ (skips: $skips)}")
  else
    echo "=== $name: passed ($took)"
    # A ctest stage passes with skips that were asked for; they are listed all the same.
    [ -n "$why" ] && skipped+=("[$key] $name: $why")
  fi
}

# run_ctest DIR [CTEST ARGS]: ctest's status says whether a test failed; the JUnit report says
# which were skipped, each a failure unless allowed (status 1 then, not 77: the tests that ran
# still count).
run_ctest() {
  local dir=$1 status=0
  shift
  rm -f "$dir/ctest-junit.xml"
  ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
    ctest --test-dir "$dir" --output-on-failure --no-tests=error -j "$jobs" \
    --output-junit ctest-junit.xml "$@" || status=1
  [ -f "$dir/ctest-junit.xml" ] || return 1
  python3 tools/ctest_junit.py "$dir/ctest-junit.xml" "${SMB_ALLOW_SKIP:-}" || status=1
  return $status
}

# The tests labelled `threads`, alone, in the ThreadSanitizer build (which the capture stage
# builds in full anyway): a data race fails them whatever the schedule happened to be.
thread_tests() {
  tools/build.sh tsan > /dev/null && run_ctest build-tsan -L threads
}

stage deps "install dependencies" tools/install-deps.sh
stage format "every C and C++ source clang-formatted" tools/format-check.sh
stage build "release build" tools/build.sh release
stage tests "release tests" run_ctest build
stage ipfix "IPFIX export: ipfixDump, tshark and nfcapd/nfdump" tools/ipfix-check.py build/smbflow
stage nfacctd "IPFIX into nfacctd: SMB fields in its print and SQLite plugins" \
  tools/nfacctd-check.py build/smbflow
stage asan-build "asan build" tools/build.sh asan
stage asan "asan tests" run_ctest build-asan
stage traffic "real traffic: fresh Samba captures against tshark" tools/traffic-check.sh build
stage threads "tests labelled threads under ThreadSanitizer" thread_tests
stage sanitize "smbflow over every capture: ASan/UBSan, and TSan with 4 queues" \
  tools/sanitize-captures.sh
stage fuzz "fuzzing: every harness for a bounded time" tools/fuzz.sh -t "${SMB_FUZZ_SECONDS:-60}"

echo
if [ ${#skipped[@]} -gt 0 ]; then
  echo "test-all: skipped, as SMB_ALLOW_SKIP asks:"
  printf '  %s\n' "${skipped[@]}"
fi
if [ ${#failed[@]} -eq 0 ]; then
  echo "test-all: every stage passed"
  exit 0
fi
echo "test-all: ${#failed[@]} stage(s) failed:"
printf '  %s\n' "${failed[@]}"
exit 1
