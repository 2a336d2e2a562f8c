#!/usr/bin/env bash
# Live demo on this machine's kernel: installs what is missing, builds the
# release preset, starts the daemon (which loads and pins the BPF objects)
# and prints the service's notices as they happen, decoded by tavoctl,
# until interrupted, or shows them as a process table (tavoctl top) until q.
# Then stops the daemon, which removes its pins.
#   scripts/run-demo.sh [EVENT...]     (default: the notices; see tavoctl watch --help)
#   scripts/run-demo.sh top [ARGS...]  (see tavoctl top --help)
set -euo pipefail
cd "$(dirname "$0")/.."

if [ "$(id -u)" != 0 ]; then
  echo "run-demo: needs root (BPF programs, bpffs and tracefs)" >&2
  exit 1
fi

scripts/install-deps.sh
cmake --preset release >/dev/null
cmake --build --preset release --target tavo_bpfd tavoctl tavo_loader_cmd

build=build/release
log=$(mktemp /tmp/tavo_bpfd.XXXXXX.log)
daemon=""

cleanup() {
  trap - EXIT INT TERM
  if [ -n "$daemon" ] && kill -0 "$daemon" 2>/dev/null; then
    kill -TERM "$daemon"
    wait "$daemon" || true
  fi
  # Pins of a daemon that died without cleaning up.
  "$build/tools/tavo_loader/tavo_loader" unload >/dev/null 2>&1 || true
  echo "run-demo: stopped; daemon log: $log"
}
trap cleanup EXIT INT TERM

. scripts/lib/service.sh
ensure_mounts
# The socket is up as soon as the service starts; the programs are attached
# a moment later.
start_daemon "$build" "$log"

if [ "${1:-}" = top ]; then
  shift
  "$build/tools/tavo_cli/tavoctl" top "$@" || true
  exit 0
fi
echo "run-demo: daemon pid $daemon (log: $log); Ctrl-C to stop"
"$build/tools/tavo_cli/tavoctl" watch --wait "$@" || true
