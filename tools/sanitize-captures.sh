#!/usr/bin/env bash
# smbflow over every capture under the sanitizers: the AddressSanitizer/UndefinedBehaviorSanitizer
# build with one queue, and the ThreadSanitizer build with 4 queues, on each capture in
# tests/data/captures/ and on a replicated capture of many connections (so that the queues
# share the tree, file and data tables in earnest). Any sanitizer report fails the run.
#
#   tools/sanitize-captures.sh [asan|tsan]...     (default: both)
set -euo pipefail
cd "$(dirname "$0")/.."

variants=("$@")
[ ${#variants[@]} -eq 0 ] && variants=(asan tsan)
captures=(tests/data/captures/*.pcap)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# A capture of 60 copies of all captures, each copy with its own hosts and ports.
tools/build.sh release > /dev/null
build/tools/capture/smb_capgen replicate -o "$work/replicated.pcap" -n 100000 "${captures[@]}" \
  > /dev/null

failed=0
run() {
  local label=$1 log=$work/log
  shift
  # The IPFIX export runs beside the CSV output, on its own thread.
  if "$@" -q --no-progress -o /dev/null --ipfix "file:$work/out.ipfix" > "$log" 2>&1 &&
    ! grep -qE 'Sanitizer|runtime error' "$log"; then
    echo "ok      $label"
  else
    echo "FAILED  $label"
    sed 's/^/        /' "$log" | head -40
    failed=1
  fi
}

for variant in "${variants[@]}"; do
  echo "=== smbflow under $variant"
  tools/build.sh "$variant" > /dev/null
  case "$variant" in
    asan)
      export ASAN_OPTIONS=detect_leaks=1:halt_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
      for c in "${captures[@]}" "$work/replicated.pcap"; do run "$(basename "$c")" build-asan/smbflow "$c"; done
      ;;
    tsan)
      export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
      for c in "${captures[@]}" "$work/replicated.pcap"; do
        run "$(basename "$c") (4 queues)" build-tsan/smbflow --queues 4 "$c"
      done
      ;;
    *) echo "unknown variant $variant" >&2; exit 2 ;;
  esac
done
exit $failed
