#!/usr/bin/env bash
# Instructions per packet of the parse path, counted by callgrind: repeatable on a busy machine,
# where the times of parse_bench are not. For every packet mix (or those named), the filter
# hook and the payload entry are each run PASSES times over the mix after one pass that fills
# the tables; only those passes are counted. Without named mixes, a last row runs the whole mix
# with the activity fields on (activity=1), whose cost over the plain "all" row is the price of
# the opt-in. SMB_BENCH_PARAMS gives every other row its plug-in parameters.
#
#   tools/bench-callgrind.sh [-p PASSES] [MIX...]      (mixes: read_write create_close compound
#                                                       encrypted smb1 all)
set -euo pipefail
cd "$(dirname "$0")/.."

passes=5
while getopts "p:" opt; do
  case "$opt" in
    p) passes=$OPTARG ;;
    *) sed -n '7,8p' "$0" >&2; exit 2 ;;
  esac
done
shift $((OPTIND - 1))
mixes=("$@")
activity_row=0
if [ ${#mixes[@]} -eq 0 ]; then
  mixes=(read_write create_close compound encrypted smb1 all)
  activity_row=1
fi

command -v valgrind > /dev/null || { echo "valgrind is not installed (tools/install-deps.sh)" >&2; exit 2; }
tools/build.sh release > /dev/null
driver=build/bench/smb_parse_driver
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

# One row: LABEL MIX PARAMS.
row() {
  local label=$1 mix=$2 params=$3 row=() packets=0 step file result ir
  for step in filter parse; do
    file=$out/$step-$label.out
    result=$(SMB_BENCH_PARAMS=$params valgrind --tool=callgrind \
      --toggle-collect=bench_run_passes --callgrind-out-file="$file" \
      "$driver" "$step" "$mix" "$passes" 2> "$out/log")
    packets=${result##* }
    # The "summary:" or "totals:" line holds the collected instruction count.
    ir=$(awk '/^(summary|totals):/ {print $2; exit}' "$file")
    row+=("$(awk -v ir="$ir" -v n="$packets" 'BEGIN {printf "%.1f", ir / n}')")
  done
  printf '%-14s %8d %16s %16s\n' "$label" "$((packets / passes))" "${row[0]}" "${row[1]}"
}

printf '%-14s %8s %16s %16s\n' mix packets "filter Ir/pkt" "parse Ir/pkt"
for mix in "${mixes[@]}"; do
  row "$mix" "$mix" "${SMB_BENCH_PARAMS:-}"
done
[ $activity_row -eq 1 ] && row all+activity all activity=1
exit 0
