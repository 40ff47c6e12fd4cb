#!/usr/bin/env bash
# Every test: installs what is missing, then builds and runs the test suite in the release
# build and again under AddressSanitizer and UndefinedBehaviorSanitizer; last, fresh captures
# of real SMB traffic from Samba are checked against tshark (skipped where they cannot be made),
# smbflow runs over every capture under ASan/UBSan and, with 4 queues, under ThreadSanitizer,
# and every fuzz harness runs for a bounded time (SMB_FUZZ_SECONDS each, default 60).
set -euo pipefail
cd "$(dirname "$0")/.."
tools/install-deps.sh
jobs=$(nproc)
for variant in release asan; do
  echo "=== $variant build"
  tools/build.sh "$variant"
  dir=build; [ "$variant" = asan ] && dir=build-asan
  echo "=== $variant tests"
  ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    ctest --test-dir "$dir" --output-on-failure -j "$jobs"
done
echo "=== real traffic: fresh Samba captures against tshark"
tools/traffic-check.sh build
echo "=== smbflow over every capture: ASan/UBSan, and ThreadSanitizer with 4 queues"
tools/sanitize-captures.sh
echo "=== fuzzing: every harness for a bounded time"
tools/fuzz.sh -t "${SMB_FUZZ_SECONDS:-60}"
