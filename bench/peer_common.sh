# Sourced by the peer scripts: the release build's pieces, a namespace of
# their own, and the daemon's start. Sets B, ticks.
#   peer_setup NAME TOOL SCRIPT ARGS...   (re-executes SCRIPT in the namespace)
. "$(dirname "${BASH_SOURCE[0]}")/../scripts/lib/service.sh"
B=build/release
# Another build's daemon (it finds its own BPF objects) for before/after runs.
TAVO_DAEMON=${TAVO_PEER_DAEMON:-}
ticks=$(getconf CLK_TCK)

peer_setup() {
  local name=$1 tool=$2 script=$3
  shift 3
  [ "$(id -u)" = 0 ] || { echo "$name: needs root" >&2; exit 1; }
  if [ -z "${TAVO_PRIVATE_NS:-}" ]; then
    command -v "$tool" >/dev/null || scripts/install-deps.sh "$tool"
    cmake --preset release >/dev/null
    cmake --build --preset release --target tavo_bpfd tavoctl tavo_storm tavo_bench_subscriber \
      tavo_bare_consumer bare_consumer_bpf >/dev/null
  fi
  enter_private_namespaces "$PWD/$script" "$@"
}

# "tid name ticks" for every thread of a process.
thread_ticks() { cat /proc/"$1"/task/*/stat 2>/dev/null | awk '{gsub(/[()]/, "", $2); print $1, $2, $14 + $15}'; }

# Starts the daemon (logging to $1), sets daemon=its pid, and returns once
# its socket is up and its start-up scan is done.
peer_start_daemon() {
  start_daemon "$B" "$1"
  sleep 1
}
