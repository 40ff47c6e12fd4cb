#!/usr/bin/env bash
# Builds the libFuzzer harnesses (clang, ASan + UBSan, build dir build-fuzz) and runs each one
# for a bounded time, starting from its seeds: the committed ones in fuzz/seeds/<harness>/ and
# those made from the real captures in tests/data/captures/.
#
#   tools/fuzz.sh [-t SECONDS] [-r RUNS] [-w WORKERS] [HARNESS...]
#
#   -t SECONDS  time per harness (default 120; five harnesses then take 10 minutes)
#   -r RUNS     stop each harness after this many executions instead (for long campaigns;
#               the time limit still applies when -t is given as well)
#   -w WORKERS  parallel fuzzing processes per harness (default 1)
#   HARNESS     params, payload, capture, stream, zlogconf (default: all five; one that was not built
#               fails the run)
#
# A crash leaves its input in build-fuzz/crashes/<harness>/ and makes the script fail; copy the
# file into tests/fuzz_regressions/<harness>/ once it is fixed, so the normal test build replays
# it from then on. The grown corpora stay in build-fuzz/corpus/<harness>/ between runs.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=""
runs=""
workers=1
while getopts "t:r:w:" opt; do
  case "$opt" in
    t) seconds=$OPTARG ;;
    r) runs=$OPTARG ;;
    w) workers=$OPTARG ;;
    *) sed -n '6,14p' "$0" >&2; exit 2 ;;
  esac
done
shift $((OPTIND - 1))
[ -z "$seconds" ] && [ -z "$runs" ] && seconds=120

build=${SMB_FUZZ_BUILD:-build-fuzz}  # another directory lets a long campaign run beside work
CC=clang CXX=clang++ cmake -S . -B "$build" -G Ninja -DSMB_FUZZ=ON -DSMB_TESTS=OFF \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
# Quiet when it builds; the compiler's messages when it does not.
if ! ninja -C "$build" fuzz > "$build/fuzz-build.log" 2>&1; then
  grep -E "error|FAILED" "$build/fuzz-build.log" | head -40 >&2
  exit 1
fi

harnesses=("$@")
[ ${#harnesses[@]} -eq 0 ] && harnesses=(params payload capture stream zlogconf)

# Seeds made from the captures, when the harness takes them.
make_seeds() {
  local h=$1 out=$build/seeds/$h
  rm -rf "$out"
  mkdir -p "$out"
  case "$h" in
    payload) "$build/fuzz/fuzz_seeds" "$out" tests/data/captures/*.pcap > /dev/null ;;
    capture | stream) cp tests/data/captures/*.pcap "$out"/ ;;
  esac
  echo "$out"
}

failed=0
summary=()
for h in "${harnesses[@]}"; do
  bin=$build/fuzz/fuzz_$h
  if [ ! -x "$bin" ]; then
    # A harness that the build no longer makes would otherwise pass by never running.
    summary+=("fuzz_$h: FAILED, $bin was not built")
    echo "${summary[-1]}" >&2
    failed=1
    continue
  fi
  corpus=$build/corpus/$h
  crashes=$build/crashes/$h
  mkdir -p "$corpus" "$crashes"
  seeds=$(make_seeds "$h")
  dirs=("$corpus" "$seeds")
  [ -d "fuzz/seeds/$h" ] && dirs+=("fuzz/seeds/$h")
  args=(-timeout=10 -rss_limit_mb=2048 -print_final_stats=1 -artifact_prefix="$crashes/")
  [ -n "$seconds" ] && args+=(-max_total_time="$seconds")
  [ -n "$runs" ] && args+=(-runs="$runs")
  [ -r "fuzz/$h.dict" ] && args+=(-dict="fuzz/$h.dict")
  # Whole capture files: keep them small enough to run a few hundred times a second.
  case "$h" in capture | stream) args+=(-max_len=65536) ;; esac
  log=$build/fuzz-$h.log
  echo "=== fuzz_$h (${seconds:+${seconds}s}${runs:+ ${runs} runs}, $workers worker(s))"
  # Slow units are only noted; crashes, leaks, timeouts and out-of-memory inputs fail the run.
  findings() { find "$crashes" -type f \( -name 'crash-*' -o -name 'leak-*' -o -name 'timeout-*' \
    -o -name 'oom-*' \) | wc -l; }
  before=$(findings)
  status=0
  if [ "$workers" -gt 1 ]; then
    # Workers share the corpus; each stops on its own limits.
    pids=()
    for w in $(seq 1 "$workers"); do
      ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
        "$bin" "${args[@]}" "${dirs[@]}" > "$log.$w" 2>&1 &
      pids+=($!)
    done
    for p in "${pids[@]}"; do wait "$p" || status=1; done
    cat "$log".* > "$log"
    rm -f "$log".*
  else
    ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
      "$bin" "${args[@]}" "${dirs[@]}" > "$log" 2>&1 || status=1
  fi
  execs=$(awk '/stat::number_of_executed_units/ {n += $2} END {print n + 0}' "$log")
  secs=$(awk '/^Done [0-9]+ runs in/ {if ($5 > s) s = $5} END {print s + 0}' "$log")
  units=$(find "$corpus" -type f | wc -l)
  after=$(findings)
  line="fuzz_$h: $execs executions in ${secs}s, corpus $units inputs"
  if [ "$status" -ne 0 ] || [ "$after" -gt "$before" ]; then
    line="$line, FAILED (see $log, inputs in $crashes)"
    grep -m1 -E 'ERROR: |runtime error|SUMMARY' "$log" || true
    failed=1
  fi
  echo "$line"
  summary+=("$line")
done

echo "=== summary"
printf '%s\n' "${summary[@]}"
exit $failed
