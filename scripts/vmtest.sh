#!/usr/bin/env bash
# The kernel matrix: the service's tests and an end-to-end run of tavo_bpfd
# on Debian's AArch64 and x86-64 kernels 5.10, 6.1 and 6.12, each in a QEMU
# virtual machine (full emulation, no KVM).
#   scripts/vmtest.sh [--arch arm64|x86_64]... [--kernel 5.10|6.1|6.12]...
#                     [--jobs N] [--full-suite CELL|none]
# Default: all six cells, two at a time; the whole test suite runs on
# arm64-6.1 (--full-suite), the kernel tests (names matching
# $TAVO_VM_KERNEL_TESTS, default *kern*) everywhere else. Downloads are
# cached in $TAVO_VM_CACHE (default /var/cache/tavo-vmtest), logs and images
# go to build/vmtest/. Each VM prints one line per run of the end-to-end
# check (the 6.1 and 6.12 VMs run it a second time, " rows 6.6", with a
# daemon that takes the 6.6 rows; see rows_prop)
#   vmtest <arch> <release>[ rows 6.6]: P passed, F failed, S skipped; rows
#   attached A, skipped by version V, failed X; dma-buf notices N; dma-buf
#   types T...
# and the script ends with "N passed, N failed" over all of them; it exits
# 0 only when nothing failed. Needs root (it installs what is missing).
set -euo pipefail
cd "$(dirname "$0")/.."

usage() {
  sed -n '5,6p' "$0" | sed 's/^# *//' >&2
  exit 2
}

arches=() kernels=() jobs=2 full=arm64-6.1
while [ $# -gt 0 ]; do
  case "$1" in
    --arch) arches+=("${2:?}"); shift 2 ;;
    --kernel) kernels+=("${2:?}"); shift 2 ;;
    --jobs) jobs=${2:?}; shift 2 ;;
    --full-suite) full=${2:?}; shift 2 ;;
    *) usage ;;
  esac
done
[ ${#arches[@]} -gt 0 ] || arches=(arm64 x86_64)
[ ${#kernels[@]} -gt 0 ] || kernels=(5.10 6.1 6.12)
for a in "${arches[@]}"; do case "$a" in arm64|x86_64) ;; *) usage ;; esac; done
for k in "${kernels[@]}"; do case "$k" in 5.10|6.1|6.12) ;; *) usage ;; esac; done
if [ "$(id -u)" != 0 ]; then
  echo "vmtest: needs root (it installs packages and caches kernels)" >&2
  exit 1
fi

export TAVO_VM_CACHE=${TAVO_VM_CACHE:-/var/cache/tavo-vmtest}
out=build/vmtest
mkdir -p "$out" "$TAVO_VM_CACHE"
timings=()
since() { echo $(($(date +%s) - $1)); }
timed() {  # timed LABEL COMMAND...: runs it and notes its wall time
  local label=$1 start
  shift
  start=$(date +%s)
  "$@"
  timings+=("$label $(since "$start") s")
}

debarch() { [ "$1" = arm64 ] && echo arm64 || echo amd64; }
# The property that makes a second run of the check take the 6.6 rows: on
# 6.1 the kernel version the daemon is given, past 6.6 the dma-buf opt-in.
rows_prop() {
  case "$1" in
    6.1) echo ro.kernel.version=6.6 ;;
    6.12) echo persist.sys.tavo_bpf.dmabuf_rows=6.6 ;;
  esac
}
preset() { [ "$1" = arm64 ] && echo arm64 || echo debug; }

# --- what the machine needs, and the downloads --------------------------------
timed install bash -c 'scripts/install-deps.sh && scripts/vm/install-host.sh'
fetch_all() {
  local a k
  for a in "${arches[@]}"; do
    scripts/vm/fetch.sh package "$(debarch "$a")" busybox-static >/dev/null
    [ "$a" = arm64 ] && scripts/vm/fetch.sh package arm64 libbpfcc >/dev/null
    for k in "${kernels[@]}"; do scripts/vm/fetch.sh kernel "$(debarch "$a")" "$k" >/dev/null; done
  done
}
timed fetch fetch_all

# --- builds ---------------------------------------------------------------------
for a in "${arches[@]}"; do
  p=$(preset "$a")
  timed "build-$p" bash -c "cmake --preset $p >/dev/null && cmake --build --preset $p"
done

# --- one VM per cell --------------------------------------------------------------
run_cell() {
  local arch=$1 line=$2 cell=$1-$2 kdir suite=kernel start log image
  kdir=$TAVO_VM_CACHE/kernels/$(debarch "$arch")-$line
  log=$out/$cell.log image=$out/$cell.cpio
  [ "$cell" = "$full" ] && suite=full
  start=$(date +%s)
  scripts/vm/mkinitramfs.sh "$arch" "build/$(preset "$arch")" "$kdir" "$suite" "$image" "$(rows_prop "$line")"
  echo "initramfs $(since "$start") s" >"$out/$cell.time"
  start=$(date +%s)
  local qemu limit=900
  [ "$suite" = full ] && limit=2400
  # x86-64 kernels patch their own code with int3 and IPIs, not with every
  # CPU stopped; with one host thread per vCPU (multi-threaded TCG) a vCPU
  # ran a half-patched jump in trace_rss_stat once and the kernel panicked.
  # Their two vCPUs therefore share one host thread.
  if [ "$arch" = arm64 ]; then
    qemu=(qemu-system-aarch64 -M virt -cpu cortex-a57 -accel tcg,thread=multi
          -append "console=ttyAMA0 panic=-1 quiet")
  else
    # no_timer_check: under emulation on a loaded machine the boot-time
    # check of the IO-APIC timer can miss its ticks and panic the kernel.
    qemu=(qemu-system-x86_64 -cpu max -accel tcg,thread=single
          -append "console=ttyS0 panic=-1 quiet no_timer_check")
  fi
  timeout "$limit" "${qemu[@]}" -smp 2 -m 2048 -nic none -nographic -no-reboot \
    -kernel "$(echo "$kdir"/root/boot/vmlinuz-*)" -initrd "$image" </dev/null >"$log" 2>&1 || true
  echo "vm $(since "$start") s" >>"$out/$cell.time"
  rm -f "$image"
}

cells=()
for a in "${arches[@]}"; do for k in "${kernels[@]}"; do cells+=("$a $k"); done; done
start=$(date +%s)
running=0
for c in "${cells[@]}"; do
  # shellcheck disable=SC2086
  run_cell $c &
  running=$((running + 1))
  if [ "$running" -ge "$jobs" ]; then wait -n || true; running=$((running - 1)); fi
done
wait || true
timings+=("vms $(since "$start") s")

# --- results ------------------------------------------------------------------------
total_pass=0 total_fail=0
for c in "${cells[@]}"; do
  cell=${c/ /-}
  touch "$out/$cell.time" "$out/$cell.log"
  echo "=== $cell ($(tr '\n' ',' <"$out/$cell.time" | sed 's/,$//; s/,/, /g'))"
  grep -aE '^(vmtest|vmcheck|  \|)' "$out/$cell.log" | grep -v '^vmtest [a-z0-9_]* [^:]*: [0-9]* passed' || true
  summaries=$(grep -a '^vmtest [a-z0-9_]* [^ ]*\( rows [^ ]*\)\?: [0-9]* passed' "$out/$cell.log" | tr -d '\r' || true)
  expected=1
  [ -n "$(rows_prop "${c#* }")" ] && expected=2
  if [ "$(echo -n "$summaries" | grep -c '^')" -ne "$expected" ]; then
    echo "vmtest $cell: $(echo -n "$summaries" | grep -c '^') of $expected summary lines (the VM did not finish; see $out/$cell.log)"
    [ -n "$summaries" ] && echo "$summaries"
    tail -n 20 "$out/$cell.log"
    total_fail=$((total_fail + 1))
    continue
  fi
  echo "$summaries"
  while read -r summary; do
    p=$(echo "$summary" | sed 's/.*: \([0-9]*\) passed, \([0-9]*\) failed.*/\1/')
    f=$(echo "$summary" | sed 's/.*: \([0-9]*\) passed, \([0-9]*\) failed.*/\2/')
    total_pass=$((total_pass + p)) total_fail=$((total_fail + f))
  done <<<"$summaries"
done
echo "=== times: ${timings[*]/%/;}"
echo "$total_pass passed, $total_fail failed"
[ "$total_fail" -eq 0 ]
