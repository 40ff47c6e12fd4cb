#!/usr/bin/env bash
# Throughput of smbflow against the programs a user would pick instead, on two captures made in
# tmpfs (/dev/shm, so every program reads from memory; removed at the end):
#   heavy  the committed Samba captures (wire-sized segments, MTU 1500) replicated with shifted
#          addresses, ports and times: nearly every packet is SMB;
#   mixed  a smaller replica with K packets of other traffic after each SMB packet
#          (tools/mixed-traffic.py): SMB is 1/(K+1) of the packets.
# On each, run interleaved (round after round, so that load from elsewhere falls on all alike):
# smbflow with the plug-in (CSV to /dev/null), smbflow --no-plugin (the bare host), nfpcapd -r
# (nfdump's pcap-to-flow, writing nfcapd files to a scratch directory), softflowd -r (exporting
# IPFIX to a closed port on the loopback: the export is done, nothing leaves the machine),
# tcpdump -r FILE -w /dev/null (the cost of reading the capture at all: the floor), smbflow
# reading the capture from standard input (headers, and payload only where the plug-in reads
# it, copied as from a live interface), smbflow with the activity fields (--params activity=1),
# smbflow with 2 and 4 queues, and on the heavy capture smbflow exporting IPFIX to a file. Each
# figure is the median of the rounds; CPU is user + sys from the child's rusage (its threads
# included), peak RSS its maxrss. Then the ratios against their targets: smbflow --no-plugin's
# CPU per million packets against softflowd's, the default run's CPU and wall time against
# softflowd's, the activity fields' CPU and memory against the default run. Then peak memory
# with 1 million open files and the plug-in's bytes per tracked file.
#
#   tools/throughput.sh [-n PACKETS] [-K OTHER] [-r ROUNDS] [-t TSHARK_PACKETS] [-B SMBFLOW] [-k]
#
#   -n PACKETS         packets in each capture (default 1000000)
#   -K OTHER           other packets per SMB packet in the mixed capture (default 7: 12.5 % SMB)
#   -r ROUNDS          rounds of every command; the median counts (default 3)
#   -t TSHARK_PACKETS  also time tshark extracting the SMB2 tree, file name, command and flags
#                      on this many packets of the heavy capture (default 0: not run; tshark
#                      reads about 25,000 packets per second)
#   -B SMBFLOW         also time this smbflow binary, with and without the plug-in, in the
#                      same rounds (an earlier build, copied next to its plug-in, for before
#                      and after figures under the same load)
#   -k                 keep the captures (their directory is printed)
set -euo pipefail
cd "$(dirname "$0")/.."

packets=1000000
other=7
rounds=3
tshark_packets=0
keep=0
baseline=
while getopts "n:K:r:t:B:k" opt; do
  case "$opt" in
    n) packets=$OPTARG ;;
    K) other=$OPTARG ;;
    r) rounds=$OPTARG ;;
    t) tshark_packets=$OPTARG ;;
    B) baseline=$OPTARG ;;
    k) keep=1 ;;
    *) sed -n '22,33p' "$0" >&2; exit 2 ;;
  esac
done

for tool in tcpdump nfpcapd softflowd python3 /usr/bin/time; do
  command -v "$tool" > /dev/null || { echo "$tool is missing (tools/install-deps.sh)" >&2; exit 2; }
done
[ "$tshark_packets" = 0 ] || command -v tshark > /dev/null || { echo "tshark is missing" >&2; exit 2; }
tools/build.sh release > /dev/null
smbflow=build/smbflow
capgen=build/tools/capture/smb_capgen
[ -x "$smbflow" ] || { echo "no $smbflow in the build" >&2; exit 2; }
[ -z "$baseline" ] || [ -x "$baseline" ] || { echo "no $baseline" >&2; exit 2; }

work=$(mktemp -d /dev/shm/smb-throughput-XXXXXX)
cleanup() { [ "$keep" = 1 ] || rm -rf "$work"; }
trap cleanup EXIT

# A port on the loopback where nothing listens, for softflowd's export: the datagrams are
# refused by the kernel and never leave the machine.
closed_port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')

echo "load: $(cut -d' ' -f1-3 /proc/loadavg) on $(nproc) cores"
declare -A made
made[heavy]=$("$capgen" replicate -o "$work/heavy.pcap" -n "$packets" tests/data/captures/*.pcap |
  awk '{print $1}')
smb=$("$capgen" replicate -o "$work/smb.pcap" -n $((packets / (other + 1))) \
  tests/data/captures/*.pcap | awk '{print $1}')
tools/mixed-traffic.py "$work/smb.pcap" "$work/mixed.pcap" "$other"
rm "$work/smb.pcap"
made[mixed]=$((smb * (other + 1)))
for input in heavy mixed; do
  echo "$input: ${made[$input]} packets, $(du -m "$work/$input.pcap" | cut -f1) MB"
done

# run INPUT LABEL COMMAND...: one timed run; keeps wall seconds, user+sys seconds, peak RSS.
declare -A wall cpu rss
run() {
  local key=$1:$2 t u s m
  shift 2
  read -r t u s m < <(/usr/bin/time -f "%e %U %S %M" "$@" 2>&1 > /dev/null | tail -n 1)
  wall[$key]+="$t "
  cpu[$key]+="$(awk -v u="$u" -v s="$s" 'BEGIN {print u + s}') "
  rss[$key]+="$m "
}
median() { tr ' ' '\n' <<< "$1" | grep . | sort -g | awk '{v[NR] = $1} END {print v[int((NR + 1) / 2)]}'; }

labels=(plugin bare activity nfpcapd softflowd floor stdin q2 q4)
for input in heavy mixed; do
  file=$work/$input.pcap
  cat "$file" > /dev/null
  echo "timing $input ($rounds rounds, interleaved) ..."
  for _ in $(seq "$rounds"); do
    run "$input" plugin "$smbflow" -q --no-progress -F csv -o /dev/null "$file"
    run "$input" bare "$smbflow" --no-plugin -q --no-progress -F csv -o /dev/null "$file"
    run "$input" activity "$smbflow" --params activity=1 -q --no-progress -F csv -o /dev/null \
      "$file"
    rm -rf "$work/nf" && mkdir "$work/nf"
    run "$input" nfpcapd nfpcapd -r "$file" -w "$work/nf"
    run "$input" softflowd softflowd -r "$file" -v 10 -n "127.0.0.1:$closed_port"
    run "$input" floor tcpdump -r "$file" -w /dev/null
    run "$input" stdin sh -c "$smbflow -q --no-progress -F csv -o /dev/null - < $file"
    run "$input" q2 "$smbflow" --queues 2 -q --no-progress -F csv -o /dev/null "$file"
    run "$input" q4 "$smbflow" --queues 4 -q --no-progress -F csv -o /dev/null "$file"
    if [ -n "$baseline" ]; then
      run "$input" base "$baseline" -q --no-progress -F csv -o /dev/null "$file"
      run "$input" base_bare "$baseline" --no-plugin -q --no-progress -F csv -o /dev/null "$file"
      run "$input" base_stdin sh -c "$baseline -q --no-progress -F csv -o /dev/null - < $file"
    fi
    if [ "$input" = heavy ]; then
      run "$input" ipfix "$smbflow" -q --no-progress --ipfix "file:$work/out.ipfix" "$file"
    fi
  done
  rm -rf "$work/nf" "$work/out.ipfix"
done
if [ "$tshark_packets" != 0 ]; then
  echo "timing tshark on $tshark_packets packets ..."
  for _ in $(seq "$rounds"); do
    run heavy tshark tshark -r "$work/heavy.pcap" -c "$tshark_packets" -T fields -e smb2.tree \
      -e smb2.filename -e smb2.cmd -e smb2.flags
  done
fi

# Medians, packets per second and CPU seconds per million packets.
declare -A W C M P
for key in "${!wall[@]}"; do
  input=${key%%:*}
  n=${made[$input]}
  [ "${key#*:}" = tshark ] && n=$tshark_packets
  W[$key]=$(median "${wall[$key]}")
  C[$key]=$(median "${cpu[$key]}")
  M[$key]=$(median "${rss[$key]}")
  P[$key]=$(awk -v n="$n" -v s="${W[$key]}" 'BEGIN {printf "%.0f", (s > 0 ? n / s : 0)}')
done
cpm() { awk -v c="${C[$1]}" -v n="$2" 'BEGIN {printf "%.2f", c / n * 1e6}'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN {printf "%.2f", (b > 0 ? a / b : 0)}'; }
verdict() { awk -v v="$1" -v op="$2" -v t="$3" 'BEGIN {
  ok = (op == "<=") ? v <= t : v >= t; printf "%s (target %s %s)", ok ? "met" : "MISSED", op, t}'; }
# The targets on the reading floor and the plug-in's share hold where SMB is a part of the
# traffic: on the SMB-heavy capture nearly all the work is the plug-in's, and they are shown only.
mixed_verdict() {
  if [ "$input" = mixed ]; then verdict "$@"; else echo "(target $2 $3 on the mixed capture)"; fi
}

declare -A name=(
  [plugin]="smbflow (plug-in, CSV, 1 queue)" [bare]="smbflow --no-plugin"
  [activity]="smbflow --params activity=1"
  [nfpcapd]="nfpcapd -r -w DIR" [softflowd]="softflowd -r -v 10 -n closed"
  [floor]="tcpdump -r -w /dev/null (floor)" [stdin]="smbflow - < FILE (copied)"
  [q2]="smbflow --queues 2"
  [q4]="smbflow --queues 4" [ipfix]="smbflow --ipfix file:" [tshark]="tshark -T fields"
  [base]="-B smbflow (plug-in, CSV, 1 queue)" [base_bare]="-B smbflow --no-plugin"
  [base_stdin]="-B smbflow - < FILE (copied)")
for input in heavy mixed; do
  n=${made[$input]}
  echo
  printf '%-34s %9s %11s %9s %11s %9s\n' "$input ($n packets)" "wall s" "packets/s" "CPU s" \
    "CPU s/Mpkt" "peak RSS"
  for label in "${labels[@]}" ipfix tshark base base_bare base_stdin; do
    key=$input:$label
    [ -n "${W[$key]:-}" ] || continue
    m=$n
    [ "$label" = tshark ] && m=$tshark_packets
    printf '%-34s %9s %11s %9s %11s %6s MB\n' "${name[$label]}" "${W[$key]}" "${P[$key]}" \
      "${C[$key]}" "$(cpm "$key" "$m")" "$((${M[$key]} / 1024))"
  done
  cpm_sf=$(cpm "$input:softflowd" "$n")
  bare_sf=$(ratio "$(cpm "$input:bare" "$n")" "$cpm_sf")
  plugin_sf=$(ratio "$(cpm "$input:plugin" "$n")" "$cpm_sf")
  wall_sf=$(ratio "${W[$input:softflowd]}" "${W[$input:plugin]}")
  vs_nf=$(ratio "${P[$input:plugin]}" "${P[$input:nfpcapd]}")
  vs_floor=$(ratio "${W[$input:plugin]}" "${W[$input:floor]}")
  overhead=$(awk -v p="${C[$input:plugin]}" -v b="${C[$input:bare]}" \
    'BEGIN {printf "%.1f", (b > 0 ? (p / b - 1) * 100 : 0)}')
  act_cpu=$(ratio "${C[$input:activity]}" "${C[$input:plugin]}")
  act_rss=$(ratio "${M[$input:activity]}" "${M[$input:plugin]}")
  echo "--no-plugin CPU/Mpkt / softflowd's        ${bare_sf}   $(verdict "$bare_sf" "<=" 1.0)"
  echo "default run CPU/Mpkt / softflowd's        ${plugin_sf}   $(verdict "$plugin_sf" "<=" 1.4)"
  echo "softflowd wall time / default run's       ${wall_sf}   $(verdict "$wall_sf" ">=" 1.2)"
  echo "default run packets/s / nfpcapd's         ${vs_nf}   $(verdict "$vs_nf" ">=" 1.2)"
  echo "default run time / tcpdump time           ${vs_floor}   $(mixed_verdict "$vs_floor" "<=" 1.1)"
  echo "plug-in CPU over --no-plugin (user+sys)   ${overhead} %   $(mixed_verdict "$overhead" "<=" 25)"
  echo "activity=1 CPU / activity=0 CPU           ${act_cpu}   $(verdict "$act_cpu" "<=" 1.15)"
  echo "activity=1 peak RSS / activity=0's        ${act_rss}   $(verdict "$act_rss" "<=" 1.10)"
  echo "CPU s per million packets, 1/2/4 queues   $(cpm "$input:plugin" "$n") /" \
    "$(cpm "$input:q2" "$n") / $(cpm "$input:q4" "$n")"
  if [ -n "${C[$input:base]:-}" ]; then
    echo "CPU/Mpkt against -B, default/--no-plugin  $(ratio "${C[$input:plugin]}" \
      "${C[$input:base]}") / $(ratio "${C[$input:bare]}" "${C[$input:base_bare]}")"
  fi
  if [ "$input" = heavy ]; then
    mb=$((${M[heavy:plugin]} / 1024))
    echo "default run peak RSS                      ${mb} MB   $(verdict "$mb" "<=" 33)"
    echo "IPFIX export time / CSV output time       $(ratio "${W[heavy:ipfix]}" "${W[heavy:plugin]}")"
  fi
done

echo
echo "memory ..."
"$capgen" opens -o "$work/opens.pcap" -n 1000000 -c 1000 > /dev/null
run opens plugin "$smbflow" -q --no-progress -o /dev/null "$work/opens.pcap"
run opens bare "$smbflow" --no-plugin -q --no-progress -o /dev/null "$work/opens.pcap"
echo "smbflow peak RSS, 1 million open files: $((${rss[opens:plugin]% } / 1024)) MB" \
  "(bare host on the same capture: $((${rss[opens:bare]% } / 1024)) MB)"
build/bench/smb_memory_probe 1000000 1000 | sed 's/^/plug-in state: /'
[ "$keep" = 1 ] && echo "kept: $work"
exit 0
