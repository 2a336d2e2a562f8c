# Sourced by the demo and the benchmarks: the mounts the service needs, a
# namespace of their own, and the daemon's start. Knows no socket name or
# pin path: tavoctl and the daemon do.

# tracefs (where tracepoints are attached from) and bpffs, each mounted only
# when missing; an existing mount is kept.
ensure_mounts() {
  mountpoint -q /sys/fs/bpf || mount -t bpf bpf /sys/fs/bpf
  mountpoint -q /sys/kernel/tracing || mount -t tracefs tracefs /sys/kernel/tracing
}

# enter_private_namespaces SCRIPT ARGS...: re-runs SCRIPT in mount and
# network namespaces of its own (pins, tracefs and the socket name never
# meet a service already on this machine and go away with the run) and
# does not return; inside (TAVO_PRIVATE_NS set) it mounts a fresh bpffs and
# tracefs when missing, and returns.
enter_private_namespaces() {
  local script=$1
  shift
  if [ -z "${TAVO_PRIVATE_NS:-}" ]; then
    TAVO_PRIVATE_NS=1 exec unshare --mount --net --propagation private bash "$script" "$@"
  fi
  # A bpffs of our own, over whatever the host has there.
  mount -t bpf bpf /sys/fs/bpf
  mountpoint -q /sys/kernel/tracing || mount -t tracefs tracefs /sys/kernel/tracing
}

# start_daemon BUILD LOG [ARGS...]: starts BUILD's tavo_bpfd (logging to
# LOG), sets `daemon` to its pid, and returns once its service accepts
# connections; exits with the log shown when the daemon ends first.
start_daemon() {
  local build=$1 log=$2
  shift 2
  "${TAVO_DAEMON:-$build/tools/tavo_bpfd/tavo_bpfd}" "$@" 2>"$log" &
  daemon=$!
  local _
  for _ in $(seq 30); do
    "$build/tools/tavo_cli/tavoctl" wait --timeout-ms 1000 && return 0
    kill -0 "$daemon" 2>/dev/null || break
  done
  echo "the daemon did not come up; its log:" >&2
  cat "$log" >&2
  exit 1
}
