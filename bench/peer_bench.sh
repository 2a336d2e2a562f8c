#!/usr/bin/env bash
# Peer benchmark: fork and thread storms with (a) nothing attached,
# (b) bpftrace printing the fork and exit tracepoints to a file, (c) the
# daemon with one client subscribed to fork/exit records and start/end
# notices writing them to a file. Cases run interleaved, ROUNDS times.
#   bench/peer_bench.sh [N] [ROUNDS]        (default 20000 3; root)
# Needs the release build (scripts/run-demo.sh or cmake --build --preset release).
set -euo pipefail
cd "$(dirname "$0")/.."
N=${1:-20000}
ROUNDS=${2:-3}
B=build/release
[ "$(id -u)" = 0 ] || { echo "peer_bench: needs root" >&2; exit 1; }
if [ -z "${TAVO_PEER_NS:-}" ]; then
  command -v bpftrace >/dev/null || scripts/install-deps.sh bpftrace
  cmake --preset release >/dev/null
  cmake --build --preset release --target tavo_bpfd tavo_storm tavo_bench_subscriber >/dev/null
  # Mount and network namespaces of its own: the daemon's pins, tracefs and
  # the service's socket name never meet a service already on this machine,
  # and go away with the run.
  TAVO_PEER_NS=1 exec unshare --mount --net --propagation private bash "$PWD/bench/peer_bench.sh" "$@"
fi
mount -t bpf bpf /sys/fs/bpf
mount -t tracefs tracefs /sys/kernel/tracing

work=$(mktemp -d /tmp/tavo_peer.XXXXXX)
results=$work/results.txt
: >"$results"
bg=""
cleanup() {
  [ -z "$bg" ] || kill -TERM $bg 2>/dev/null || true
  wait 2>/dev/null || true
}
trap cleanup EXIT

ticks=$(getconf CLK_TCK)
cpu_ticks() { awk '{print $14 + $15}' "/proc/$1/stat"; }
hwm_kb() { awk '/VmHWM/ {print $2}' "/proc/$1/status"; }

storm() {  # kind -> "rate"
  "$B/bench/tavo_storm" "$1" "$N" | awk '{print $4}'
}

for round in $(seq "$ROUNDS"); do
  # (a) nothing attached
  for kind in fork thread; do
    echo "a $kind $(storm $kind) 0 - - - - -" >>"$results"
  done

  # (b) bpftrace
  out=$work/bpftrace.out
  bpftrace -o "$out" -e '
    tracepoint:sched:sched_process_fork /comm == "tavo_storm"/ { printf("fork %d %d\n", args->parent_pid, args->child_pid); }
    tracepoint:sched:sched_process_exit /comm == "tavo_storm"/ { printf("exit %d\n", args->pid); }' &
  bg=$!
  for _ in $(seq 100); do grep -q Attaching "$out" 2>/dev/null && break; sleep 0.1; done
  sleep 1
  for kind in fork thread; do
    : >"$out.mark"
    before=$(grep -c '^fork' "$out" || true); beforex=$(grep -c '^exit' "$out" || true)
    c0=$(cpu_ticks $bg)
    rate=$(storm $kind)
    sleep 1
    c1=$(cpu_ticks $bg)
    f=$(( $(grep -c '^fork' "$out" || true) - before )); x=$(( $(grep -c '^exit' "$out" || true) - beforex ))
    # fork storm: N forks + N child exits; thread storm: N clones + N thread exits
    lost=$(( 2 * N - f - x )); [ $lost -ge 0 ] || lost=0
    cpu_us=$(awk -v d=$((c1 - c0)) -v t="$ticks" -v e=$((2 * N)) 'BEGIN {printf "%.2f", d / t * 1e6 / e}')
    echo "b $kind $rate $lost $cpu_us $(hwm_kb $bg) - -" >>"$results"
  done
  kill -INT $bg; wait $bg 2>/dev/null || true; bg=""

  # (c) the daemon and one subscriber
  "$B/tools/tavo_bpfd/tavo_bpfd" 2>"$work/bpfd.log" &
  daemon=$!
  bg=$daemon
  for _ in $(seq 100); do
    grep -q '@/mnt/bpfframework/tavobpfdispatcher' /proc/net/unix && break
    kill -0 $daemon 2>/dev/null || { cat "$work/bpfd.log" >&2; exit 1; }
    sleep 0.1
  done
  sleep 1  # programs attached, start-up scan done
  for kind in fork thread; do
    coproc SUB { exec "$B/bench/tavo_bench_subscriber" "$work/client.out"; }
    read -r -t 30 ready <&"${SUB[0]}" || true
    c0=$(cpu_ticks $daemon)
    rate=$(storm $kind)
    sleep 1
    c1=$(cpu_ticks $daemon)
    kill -TERM "$SUB_PID"
    read -r -t 30 fp ft xp xt st en p50 p99 recv <&"${SUB[0]}" || { fp=0 ft=0 xp=0 xt=0 st=0 en=0 p50=- p99=-; }
    kill -KILL "$SUB_PID" 2>/dev/null || true; wait "$SUB_PID" 2>/dev/null || true
    if [ $kind = fork ]; then got=$((fp + xp + st + en)); want=$((4 * N)); else got=$((ft + xt)); want=$((2 * N)); fi
    lost=$(( want - got )); [ $lost -ge 0 ] || lost=0
    cpu_us=$(awk -v d=$((c1 - c0)) -v t="$ticks" -v e="$want" 'BEGIN {printf "%.2f", d / t * 1e6 / e}')
    echo "c $kind $rate $lost $cpu_us $(hwm_kb $daemon) $p50 $p99" >>"$results"
  done
  kill -TERM $daemon; wait $daemon 2>/dev/null || true; bg=""
done

echo "N=$N rounds=$ROUNDS (medians over rounds; events per storm: fork 2N records + 2N notices for (c), thread 2N)"
printf "%-4s %-7s %10s %7s %6s %14s %10s %8s %8s\n" case storm rate/s ratio lost cpu_us/event peakRSS_kB p50_us p99_us
for kind in fork thread; do
  base=$(awk -v k=$kind '$1 == "a" && $2 == k {print $3}' "$results" | sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}')
  for c in a b c; do
    awk -v c=$c -v k=$kind '$1 == c && $2 == k' "$results" | sort -k3 -n | awk -v base="$base" -v c=$c -v k=$kind '
      {r[NR]=$3; l+=$4; cpu[NR]=$5; rss=($6>rss?$6:rss); p50[NR]=$7; p99[NR]=$8}
      END {m=int((NR+1)/2);
        printf "%-4s %-7s %10d %7.2f %6d %14s %10s %8s %8s\n", c, k, r[m], r[m]/base, l, (c=="a"?"-":cpu[m]), (c=="a"?"-":rss), p50[m], p99[m]}'
  done
done
echo "raw: $results"
