#!/usr/bin/env bash
# CPU of `tavoctl top` itself, on a terminal (tmux, 160x50) against the
# daemon: at an idle system, then during a fork storm.
#   bench/top_cpu.sh [N] [IDLE_SECONDS]     (default 20000 20; root)
# Runs in its own mount and network namespaces (a private bpffs, tracefs and
# socket name), so it meets no daemon or test running elsewhere.
set -euo pipefail
cd "$(dirname "$0")/.."
N=${1:-20000}
IDLE=${2:-20}
B=build/release
[ "$(id -u)" = 0 ] || { echo "top_cpu: needs root" >&2; exit 1; }
. scripts/lib/service.sh
if [ -z "${TAVO_PRIVATE_NS:-}" ]; then
  scripts/install-deps.sh
  cmake --preset release >/dev/null
  cmake --build --preset release --target tavo_bpfd tavoctl tavo_storm >/dev/null
fi
enter_private_namespaces "$PWD/bench/top_cpu.sh" "$@"

work=$(mktemp -d /tmp/tavo_top_bench.XXXXXX)
tmux="tmux -S $work/tmux.sock"
daemon=""
cleanup() {
  $tmux kill-server 2>/dev/null || true
  if [ -n "$daemon" ]; then kill -TERM "$daemon"; wait "$daemon" || true; fi
  rm -rf "$work"
}
trap cleanup EXIT

start_daemon "$B" "$work/bpfd.log"
sleep 2  # programs attached, start-up scan done
$tmux new-session -d -x 160 -y 50 "exec env LANG=C.UTF-8 $PWD/$B/tools/tavo_cli/tavoctl top"
top=$($tmux display -p '#{pane_pid}')
sleep 3  # past its own start-up scan

# CPU time of all of top's threads (ns) and the wall clock (ns).
cpu_ns() { cat /proc/"$top"/task/*/schedstat | awk '{s += $1} END {printf "%d", s}'; }
now_ns() { date +%s%N; }
percent() { awk -v c="$1" -v t="$2" 'BEGIN {printf "%.2f", c / t * 100}'; }

c0=$(cpu_ns); t0=$(now_ns)
sleep "$IDLE"
c1=$(cpu_ns); t1=$(now_ns)
echo "idle:  $(percent $((c1 - c0)) $((t1 - t0)))% of one core over $(( (t1 - t0) / 1000000000 )) s"

c0=$(cpu_ns); t0=$(now_ns)
storm=$("$B/bench/tavo_storm" fork "$N")
c1=$(cpu_ns); t1=$(now_ns)
sleep 3  # the ended rows stay dimmed for two seconds, then go
c2=$(cpu_ns); t2=$(now_ns)
echo "storm: $(percent $((c1 - c0)) $((t1 - t0)))% of one core while it ran ($storm: kind count s forks/s)"
echo "after: $(percent $((c2 - c1)) $((t2 - t1)))% of one core in the 3 s after it"
$tmux capture-pane -p | head -9 | sed 's/^/  | /'
