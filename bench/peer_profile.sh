#!/usr/bin/env bash
# Where the daemon's time goes in a storm: the daemon and one subscriber (as
# in bench/peer_bench.sh), then one storm of N operations under each probe:
#   - per-program run count and average run time (kernel.bpf_stats_enabled),
#     the daemon's objects and the bare consumer's side by side;
#   - the daemon's system calls per operation (strace -c -f);
#   - the daemon's CPU per thread;
#   - where its CPU goes (perf record -g, top symbols), when perf works.
#   bench/peer_profile.sh [fork|thread] [N]      (default fork 20000; root)
set -euo pipefail
cd "$(dirname "$0")/.."
KIND=${1:-fork}
N=${2:-20000}
. bench/peer_common.sh
peer_setup peer_profile strace bench/peer_profile.sh "$@"

work=$(mktemp -d /tmp/tavo_profile.XXXXXX)
pids=()
stats_before=$(cat /proc/sys/kernel/bpf_stats_enabled)
cleanup() {
  for p in "${pids[@]}"; do kill -TERM "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
  echo "$stats_before" >/proc/sys/kernel/bpf_stats_enabled
}
trap cleanup EXIT
storm() { "$B/bench/tavo_storm" "$KIND" "$N" >/dev/null; }
# "name run_cnt run_time_ns" for every loaded program with a count.
prog_stats() { bpftool prog show 2>/dev/null | awk '/^[0-9]+:/ {for (i = 1; i < NF; i++) if ($i == "name") name = $(i + 1);
    rt = 0; rc = 0; for (i = 1; i < NF; i++) {if ($i == "run_time_ns") rt = $(i + 1); if ($i == "run_cnt") rc = $(i + 1)}
    if (rc > 0) print name, rc, rt}'; }
prog_delta() {
  awk -v n="$N" 'NR == FNR {c[$1] = $2; t[$1] = $3; next}
    {dc = $2 - c[$1]; dt = $3 - t[$1]; if (dc > 0) printf "  %-32s %9d runs %7.2f per op %8.0f ns/run %8.0f ns/op\n", $1, dc, dc / n, dt / dc, dt / n}' "$1" "$2"
}

peer_start_daemon "$work/bpfd.log"
pids+=("$daemon")
coproc SUB { exec "$B/bench/tavo_bench_subscriber" "$work/client.out"; }
pids+=("$SUB_PID")
read -r -t 30 _ <&"${SUB[0]}" || true

echo "== BPF programs, $KIND storm of $N (daemon + client)"
echo 1 >/proc/sys/kernel/bpf_stats_enabled
prog_stats >"$work/p0"; thread_ticks $daemon >"$work/t0"
storm; sleep 1
prog_stats >"$work/p1"; thread_ticks $daemon >"$work/t1"
prog_delta "$work/p0" "$work/p1"
echo "== daemon threads, CPU µs per op"
awk -v t="$ticks" -v n="$N" 'NR == FNR {b[$1] = $3; next} {d[$2] += $3 - b[$1]}
  END {for (k in d) if (d[k] > 0) printf "  %-16s %.2f\n", k, d[k] / t * 1e6 / n}' "$work/t0" "$work/t1"

echo "== daemon system calls per op (strace -c -f; strace slows the daemon, counts stay)"
strace -c -f -o "$work/strace.txt" -p "$daemon" &
tracer=$!
sleep 1
storm; sleep 1
kill -INT $tracer; wait $tracer 2>/dev/null || true
awk -v n="$N" '$1 ~ /^[0-9.]+$/ && NF >= 5 {name = $NF; calls = $4; printf "  %-20s %9d calls %7.3f per op\n", name, calls, calls / n}' "$work/strace.txt" | sort -k4 -nr | head -12

if command -v perf >/dev/null && perf record -o "$work/perf.probe" -- true >/dev/null 2>&1; then
  echo "== daemon CPU by symbol (perf record -g)"
  perf record -q -g -o "$work/perf.data" -p "$daemon" >/dev/null 2>&1 &
  recorder=$!
  sleep 1
  storm; sleep 1
  kill -INT $recorder; wait $recorder 2>/dev/null || true
  perf report -i "$work/perf.data" --no-children --sort comm,sym -g none --stdio 2>/dev/null | grep -v '^#' | grep '%' | head -25
fi

kill -TERM "$SUB_PID" 2>/dev/null || true
wait "$SUB_PID" 2>/dev/null || true  # one coprocess at a time
echo "== the bare consumer's programs, same storm"
coproc BARE { exec "$B/bench/tavo_bare_consumer" "$B/bpf/bare_consumer.bpf.o"; }
pids+=("$BARE_PID")
read -r -t 30 _ <&"${BARE[0]}" || true
prog_stats >"$work/p0"
storm; sleep 1
prog_stats >"$work/p1"
prog_delta "$work/p0" "$work/p1" | grep bare_
echo "raw: $work"
