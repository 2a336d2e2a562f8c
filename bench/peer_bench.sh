#!/usr/bin/env bash
# Peer benchmark: fork and thread storms with
#   a  nothing attached,
#   b  bpftrace printing the fork and exit tracepoints to a file,
#   c  the daemon with one client subscribed to fork/exit records and
#      start/end notices, writing them to a file,
#   d  the bare consumer (bench/bare_consumer.*): one 40-byte record per
#      fork and exit, read with no work per record: the floor.
# Cases run interleaved, ROUNDS times. CPU is the observer's CPU time (all
# its threads) over the storm's operations (one fork and its exit, or one
# thread created and ended); for the daemon it is also split by thread.
# Sleeps are the observer's voluntary context switches per operation: each
# is a sleep and a wake-up, the bulk of a consumer's cost. Latency is from
# the record's kernel time stamp to the consumer: p50/p99 for fork records,
# x50/x99 for exit records.
#   bench/peer_bench.sh [N] [ROUNDS]        (default 20000 3; root)
#   TAVO_PEER_DAEMON=other/tavo_bpfd bench/peer_bench.sh ...   another build's daemon
# Builds the release preset's pieces it needs.
set -euo pipefail
cd "$(dirname "$0")/.."
N=${1:-20000}
ROUNDS=${2:-3}
. bench/peer_common.sh
peer_setup peer_bench bpftrace bench/peer_bench.sh "$@"

work=$(mktemp -d /tmp/tavo_peer.XXXXXX)
results=$work/results.txt
: >"$results"
bg=""
cleanup() {
  [ -z "$bg" ] || kill -TERM $bg 2>/dev/null || true
  wait 2>/dev/null || true
}
trap cleanup EXIT

cpu_ticks() { awk '{print $14 + $15}' "/proc/$1/stat"; }
hwm_kb() { awk '/VmHWM/ {print $2}' "/proc/$1/status"; }
# Per-thread-name CPU µs per operation between two thread_ticks snapshots.
thread_split() {
  awk -v t="$ticks" -v n="$N" 'NR == FNR {before[$1] = $3; next}
    {d[$2] += $3 - before[$1]}
    END {s = ""; for (k in d) if (d[k] > 0) s = s sprintf("%s%s=%.2f", s == "" ? "" : ",", k, d[k] / t * 1e6 / n);
         print s == "" ? "-" : s}' "$1" "$2"
}
# Voluntary context switches of all of a process's threads.
sleeps() { cat /proc/"$1"/task/*/status 2>/dev/null | awk '/^voluntary_ctxt_switches/ {s += $2} END {print s + 0}'; }
sleeps_per_op() { awk -v d="$1" -v n="$N" 'BEGIN {printf "%.2f", d / n}'; }
per_op() { awk -v d="$1" -v t="$ticks" -v n="$N" 'BEGIN {printf "%.2f", d / t * 1e6 / n}'; }
storm() { "$B/bench/tavo_storm" "$1" "$N" | awk '{print $4}'; }
# results: case kind round rate lost cpu_us_per_op rss_kB p50 p99 split sleeps_per_op x50 x99
row() { echo "$*" >>"$results"; }

for round in $(seq "$ROUNDS"); do
  for kind in fork thread; do row a $kind "$round" "$(storm $kind)" 0 - - - - - - - -; done

  # (b) bpftrace
  out=$work/bpftrace.out
  bpftrace -o "$out" -e '
    tracepoint:sched:sched_process_fork /comm == "tavo_storm"/ { printf("fork %d %d\n", args->parent_pid, args->child_pid); }
    tracepoint:sched:sched_process_exit /comm == "tavo_storm"/ { printf("exit %d\n", args->pid); }' &
  bg=$!
  for _ in $(seq 100); do grep -q Attaching "$out" 2>/dev/null && break; sleep 0.1; done
  sleep 1
  for kind in fork thread; do
    before=$(grep -c '^fork' "$out" || true); beforex=$(grep -c '^exit' "$out" || true)
    c0=$(cpu_ticks $bg); s0=$(sleeps $bg)
    rate=$(storm $kind)
    sleep 1
    c1=$(cpu_ticks $bg); s1=$(sleeps $bg)
    f=$(( $(grep -c '^fork' "$out" || true) - before )); x=$(( $(grep -c '^exit' "$out" || true) - beforex ))
    lost=$(( 2 * N - f - x )); [ $lost -ge 0 ] || lost=0
    row b $kind "$round" "$rate" $lost "$(per_op $((c1 - c0)))" "$(hwm_kb $bg)" - - - "$(sleeps_per_op $((s1 - s0)))" - -
  done
  kill -INT $bg; wait $bg 2>/dev/null || true; bg=""

  # (c) the daemon and one subscriber
  peer_start_daemon "$work/bpfd.log"
  bg=$daemon
  for kind in fork thread; do
    coproc SUB { exec "$B/bench/tavo_bench_subscriber" "$work/client.out"; }
    read -r -t 30 ready <&"${SUB[0]}" || true
    thread_ticks $daemon >"$work/t0"
    c0=$(cpu_ticks $daemon); s0=$(sleeps $daemon)
    rate=$(storm $kind)
    sleep 1
    c1=$(cpu_ticks $daemon); s1=$(sleeps $daemon)
    thread_ticks $daemon >"$work/t1"
    kill -TERM "$SUB_PID"
    read -r -t 30 fp ft xp xt st en p50 p99 _ x50 x99 <&"${SUB[0]}" ||
      { fp=0 ft=0 xp=0 xt=0 st=0 en=0 p50=- p99=- x50=- x99=-; }
    kill -KILL "$SUB_PID" 2>/dev/null || true; wait "$SUB_PID" 2>/dev/null || true
    if [ $kind = fork ]; then got=$((fp + xp + st + en)); want=$((4 * N)); else got=$((ft + xt)); want=$((2 * N)); fi
    lost=$(( want - got )); [ $lost -ge 0 ] || lost=0
    row c $kind "$round" "$rate" $lost "$(per_op $((c1 - c0)))" "$(hwm_kb $daemon)" "$p50" "$p99" \
      "$(thread_split "$work/t0" "$work/t1")" "$(sleeps_per_op $((s1 - s0)))" "$x50" "$x99"
  done
  kill -TERM $daemon; wait $daemon 2>/dev/null || true; bg=""

  # (d) the bare consumer, one instance per storm
  for kind in fork thread; do
    coproc BARE { exec "$B/bench/tavo_bare_consumer" "$B/bpf/bare_consumer.bpf.o"; }
    bg=$BARE_PID
    read -r -t 30 ready <&"${BARE[0]}" || true
    c0=$(cpu_ticks $BARE_PID); s0=$(sleeps $BARE_PID)
    rate=$(storm $kind)
    sleep 1
    c1=$(cpu_ticks $BARE_PID); s1=$(sleeps $BARE_PID)
    kill -TERM "$BARE_PID"
    read -r -t 30 forks exits p50 p99 _ x50 x99 <&"${BARE[0]}" || { forks=0 exits=0 p50=- p99=- x50=- x99=-; }
    wait "$BARE_PID" 2>/dev/null || true; bg=""
    lost=$(( 2 * N - forks - exits )); [ $lost -ge 0 ] || lost=0
    row d $kind "$round" "$rate" $lost "$(per_op $((c1 - c0)))" - "$p50" "$p99" - "$(sleeps_per_op $((s1 - s0)))" "$x50" "$x99"
  done
done

names() { case $1 in a) echo nothing;; b) echo bpftrace;; c) echo daemon+client;; d) echo bare;; esac; }
echo "N=$N rounds=$ROUNDS; cpu_us is the observer's CPU per storm operation"
echo
echo "Every round:"
printf "%-14s %-6s %5s %8s %6s %6s %6s %8s %8s %8s %8s  %s\n" case storm round rate/s lost cpu_us sleeps p50_us p99_us x50_us x99_us \
  "daemon threads (cpu_us)"
for kind in fork thread; do
  for c in a b c d; do
    awk -v c=$c -v k=$kind '$1 == c && $2 == k' "$results" | while read -r _ _ r rate lost cpu _ p50 p99 split slept x50 x99; do
      printf "%-14s %-6s %5s %8s %6s %6s %6s %8s %8s %8s %8s  %s\n" "$(names $c)" $kind "$r" "$rate" "$lost" "$cpu" "$slept" \
        "$p50" "$p99" "$x50" "$x99" "$split"
    done
  done
done
echo
echo "Medians over rounds (lost: the sum; p99, x99: the worst round):"
printf "%-14s %-6s %8s %6s %6s %7s %6s %10s %8s %8s %8s %8s\n" case storm rate/s ratio lost cpu_us sleeps peakRSS_kB p50_us \
  p99max x50_us x99max
for kind in fork thread; do
  base=$(awk -v k=$kind '$1 == "a" && $2 == k {print $4}' "$results" | sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}')
  for c in a b c d; do
    awk -v c=$c -v k=$kind '$1 == c && $2 == k' "$results" | awk -v base="$base" -v name="$(names $c)" -v k=$kind '
      function median(v, n,   i, j, t) {
        for (i = 2; i <= n; i++) for (j = i; j > 1 && v[j-1] + 0 > v[j] + 0; j--) {t = v[j]; v[j] = v[j-1]; v[j-1] = t}
        return v[int((n + 1) / 2)]
      }
      {n++; r[n]=$4; l+=$5; cpu[n]=$6; rss=($7>rss?$7:rss); p50[n]=$8; p99=($9 != "-" && $9+0 > p99+0 ? $9 : p99); sl[n]=$11
       x50[n]=$12; x99=($13 != "-" && $13+0 > x99+0 ? $13 : x99)}
      END {
        rate = median(r, n)
        printf "%-14s %-6s %8d %6.2f %6d %7s %6s %10s %8s %8s %8s %8s\n", name, k, rate, rate / base, l,
          (cpu[1] == "-" ? "-" : median(cpu, n)), (sl[1] == "-" ? "-" : median(sl, n)), (rss ? rss : "-"),
          (p50[1] == "-" ? "-" : median(p50, n)), (p99 == "" ? "-" : p99),
          (x50[1] == "-" ? "-" : median(x50, n)), (x99 == "" ? "-" : x99)}'
  done
done
echo "raw: $results"
