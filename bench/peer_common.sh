# Sourced by the peer scripts: the release build's pieces, a namespace of
# their own, and the daemon's start. Sets B, DAEMON, ticks.
#   peer_setup NAME TOOL SCRIPT ARGS...   (re-executes SCRIPT in the namespace)
B=build/release
# Another build's daemon (it finds its own BPF objects) for before/after runs.
DAEMON=${TAVO_PEER_DAEMON:-$B/tools/tavo_bpfd/tavo_bpfd}
ticks=$(getconf CLK_TCK)

peer_setup() {
  local name=$1 tool=$2 script=$3
  shift 3
  [ "$(id -u)" = 0 ] || { echo "$name: needs root" >&2; exit 1; }
  if [ -z "${TAVO_PEER_NS:-}" ]; then
    command -v "$tool" >/dev/null || scripts/install-deps.sh "$tool"
    cmake --preset release >/dev/null
    cmake --build --preset release --target tavo_bpfd tavo_storm tavo_bench_subscriber \
      tavo_bare_consumer bare_consumer_bpf >/dev/null
    # Mount and network namespaces of its own: the daemon's pins, tracefs and
    # the service's socket name never meet a service already on this
    # machine, and go away with the run.
    TAVO_PEER_NS=1 exec unshare --mount --net --propagation private bash "$PWD/$script" "$@"
  fi
  mount -t bpf bpf /sys/fs/bpf
  mount -t tracefs tracefs /sys/kernel/tracing
}

# "tid name ticks" for every thread of a process.
thread_ticks() { cat /proc/"$1"/task/*/stat 2>/dev/null | awk '{gsub(/[()]/, "", $2); print $1, $2, $14 + $15}'; }

# Starts the daemon (logging to $1), sets daemon=its pid, and returns once
# its socket is up and its start-up scan is done.
start_daemon() {
  "$DAEMON" 2>"$1" &
  daemon=$!
  for _ in $(seq 100); do
    grep -q '@/mnt/bpfframework/tavobpfdispatcher' /proc/net/unix && break
    kill -0 $daemon 2>/dev/null || { cat "$1" >&2; exit 1; }
    sleep 0.1
  done
  sleep 1
}
