#!/usr/bin/env bash
# Throughput over a large capture, in one run: smbflow with the plug-in, smbflow without it
# (--no-plugin, the bare host), smbflow exporting IPFIX instead of writing CSV, tshark extracting the SMB2 tree, file name, command and flags
# fields, and tcpdump copying the capture to /dev/null (the cost of reading it at all: the
# floor). Then smbflow with 1 and with 2 queues, and peak memory: smbflow with the default
# table sizes on the large capture and on a synthetic capture of 1 million open files, and the
# plug-in's bytes per tracked file.
#
# The capture is made by replicating tests/data/captures/*.pcap with shifted addresses and
# ports, in tmpfs (/dev/shm), so every program reads it from memory. It is removed at the end.
#
#   tools/throughput.sh [-n PACKETS] [-t TSHARK_PACKETS] [-r REPEATS] [-k]
#
#   -n PACKETS         size of the capture (default 5000000)
#   -t TSHARK_PACKETS  packets that tshark reads from the start of the capture (default
#                      1000000, 0 for all: tshark keeps state for every conversation and takes
#                      minutes and gigabytes on the whole file)
#   -r REPEATS         runs of each timed command; the fastest counts (default 3)
#   -k                 keep the capture (its path is printed)
set -euo pipefail
cd "$(dirname "$0")/.."

packets=5000000
tshark_packets=1000000
repeats=3
keep=0
while getopts "n:t:r:k" opt; do
  case "$opt" in
    n) packets=$OPTARG ;;
    t) tshark_packets=$OPTARG ;;
    r) repeats=$OPTARG ;;
    k) keep=1 ;;
    *) sed -n '12,20p' "$0" >&2; exit 2 ;;
  esac
done

for tool in tshark tcpdump /usr/bin/time; do
  command -v "$tool" > /dev/null || { echo "$tool is missing (tools/install-deps.sh)" >&2; exit 2; }
done
tools/build.sh release > /dev/null
smbflow=build/smbflow
capgen=build/tools/capture/smb_capgen
[ -x "$smbflow" ] || { echo "no $smbflow in the build" >&2; exit 2; }

work=$(mktemp -d /dev/shm/smb-throughput-XXXXXX)
cleanup() { [ "$keep" = 1 ] || rm -rf "$work"; }
trap cleanup EXIT
big=$work/replicated.pcap
opens=$work/opens.pcap

echo "load: $(cut -d' ' -f1-3 /proc/loadavg) on $(nproc) cores"
echo "making $big ..."
made=$("$capgen" replicate -o "$big" -n "$packets" tests/data/captures/*.pcap | awk '{print $1}')
echo "$made packets, $(du -m "$big" | cut -f1) MB"
tshark_in=$made
tshark_args=()
if [ "$tshark_packets" -gt 0 ] && [ "$tshark_packets" -lt "$made" ]; then
  tshark_in=$tshark_packets
  tshark_args=(-c "$tshark_packets")
fi

# best_of LABEL COMMAND...: the fastest wall time of the repeats, and the peak memory of that run.
declare -A secs rss
best_of() {
  local label=$1 best="" mem="" t m
  shift
  for _ in $(seq "$repeats"); do
    read -r t m < <(/usr/bin/time -f "%e %M" "$@" 2>&1 > /dev/null | tail -n 1)
    if [ -z "$best" ] || awk -v a="$t" -v b="$best" 'BEGIN {exit !(a < b)}'; then
      best=$t
      mem=$m
    fi
  done
  secs[$label]=$best
  rss[$label]=$mem
}

pps() { awk -v n="$1" -v s="$2" 'BEGIN {printf "%.0f", (s > 0 ? n / s : 0)}'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN {printf "%.2f", (b > 0 ? a / b : 0)}'; }
verdict() { awk -v v="$1" -v op="$2" -v t="$3" 'BEGIN {
  ok = (op == "<=") ? v <= t : v >= t; printf "%s (target %s %s)", ok ? "met" : "MISSED", op, t}'; }

cat "$big" > /dev/null
echo "timing (best of $repeats) ..."
best_of plugin "$smbflow" -q --no-progress -o /dev/null "$big"
best_of bare "$smbflow" --no-plugin -q --no-progress -o /dev/null "$big"
best_of floor tcpdump -r "$big" -w /dev/null
best_of tshark tshark -r "$big" "${tshark_args[@]}" -T fields -e smb2.tree -e smb2.filename \
  -e smb2.cmd -e smb2.flags
best_of ipfix "$smbflow" -q --no-progress --ipfix file:/dev/null "$big"
best_of q1 "$smbflow" --queues 1 -q --no-progress -o /dev/null "$big"
best_of q2 "$smbflow" --queues 2 -q --no-progress -o /dev/null "$big"

printf '\n%-36s %10s %9s %14s %10s\n' "" packets seconds "packets/s" "peak RSS"
row() {
  printf '%-36s %10s %9s %14s %8s MB\n' "$1" "$2" "${secs[$3]}" "$(pps "$2" "${secs[$3]}")" \
    "$((${rss[$3]} / 1024))"
}
row "smbflow (plug-in, default queues)" "$made" plugin
row "smbflow --no-plugin (bare host)" "$made" bare
row "tcpdump -r -w /dev/null (floor)" "$made" floor
row "tshark -T fields" "$tshark_in" tshark
row "smbflow --ipfix file:/dev/null" "$made" ipfix
row "smbflow --queues 1" "$made" q1
row "smbflow --queues 2" "$made" q2

plugin_pps=$(pps "$made" "${secs[plugin]}")
tshark_pps=$(pps "$tshark_in" "${secs[tshark]}")
overhead=$(awk -v p="${secs[plugin]}" -v b="${secs[bare]}" 'BEGIN {printf "%.1f", (p / b - 1) * 100}')
floor_ratio=$(ratio "${secs[plugin]}" "${secs[floor]}")
tshark_ratio=$(ratio "$plugin_pps" "$tshark_pps")
queue_ratio=$(ratio "${secs[q1]}" "${secs[q2]}")
ipfix_ratio=$(ratio "${secs[ipfix]}" "${secs[plugin]}")
echo
echo "plug-in cost over the bare host      ${overhead} %   $(verdict "$overhead" "<=" 10)"
echo "smbflow time / floor time            ${floor_ratio}   $(verdict "$floor_ratio" "<=" 1.5)"
echo "smbflow packets/s / tshark packets/s ${tshark_ratio}   $(verdict "$tshark_ratio" ">=" 15)"
echo "2 queues / 1 queue packets/s         ${queue_ratio}   $(verdict "$queue_ratio" ">=" 1.6)"
echo "IPFIX export time / CSV output time  ${ipfix_ratio}   $(verdict "$ipfix_ratio" "<=" 1.0)"

echo
echo "memory ..."
"$capgen" opens -o "$opens" -n 1000000 -c 1000 > /dev/null
best_of opens "$smbflow" -q --no-progress -o /dev/null "$opens"
best_of opens_bare "$smbflow" --no-plugin -q --no-progress -o /dev/null "$opens"
echo "smbflow peak RSS, default table sizes, replicated capture: $((${rss[plugin]} / 1024)) MB"
echo "smbflow peak RSS, 1 million open files:                    $((${rss[opens]} / 1024)) MB" \
  "(bare host on the same capture: $((${rss[opens_bare]} / 1024)) MB)"
build/bench/smb_memory_probe 1000000 1000 | sed 's/^/plug-in state: /'
[ "$keep" = 1 ] && echo "kept: $big $opens"
exit 0
