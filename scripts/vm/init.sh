#!/bin/busybox sh
# /init of a kernel-matrix VM (scripts/vmtest.sh): mounts what the service
# and the tests need, loads vgem and vivid, runs the test binaries case by
# case (each case in its own process, as CTest does), then the end-to-end
# check, prints the summary line and powers off. With VM_ROWS_PROP set the
# check runs again with that property (another family of attach-table rows)
# and prints a second summary line, "vmtest <arch> <release> rows <family>".
/bin/busybox --install -s /bin
export PATH=/bin HOME=/tmp
. /vmtest.conf
export LD_LIBRARY_PATH=$VM_LIBPATH

mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev
# /tmp stays the image's own (already in memory): a checkout under /tmp
# puts the project's binaries there, at their build-tree paths.
mount -t tmpfs tmpfs /run
mount -t tracefs tracefs /sys/kernel/tracing
mount -t debugfs debugfs /sys/kernel/debug
mount -t bpf bpf /sys/fs/bpf
mount -t cgroup2 cgroup2 /sys/fs/cgroup
ulimit -l unlimited
# The service treats pids 2..300 as system processes (no memory notices);
# start the test processes above them, as on a booted system.
echo 1000 >/proc/sys/kernel/ns_last_pid

release=$(uname -r)
printf "\nvmtest: booted %s %s, %s CPUs\n" "$VM_ARCH" "$release" "$(nproc)"
while read -r m params; do
  # shellcheck disable=SC2086
  insmod "/modules/$m" $params || echo "vmtest: insmod $m failed"
done </modules.order

# --- test binaries ------------------------------------------------------------
results=/tmp/results
: >$results
# Runs the cases listed in $1, one process each, appending "PASS|FAIL|SKIP name".
run_cases() {
  log=/tmp/case.$2.log
  while read -r exe name; do
    (cd "${exe%/*}" && timeout 300 "$exe" --gtest_filter="$name" >$log 2>&1)
    rc=$?
    if [ $rc -eq 0 ] && grep -q '^\[  SKIPPED \]' $log; then
      echo "SKIP $name" >>$results
    elif [ $rc -eq 0 ]; then
      echo "PASS $name" >>$results
    else
      echo "FAIL $name" >>$results
      echo "vmtest: FAILED $name (exit $rc)"
      tail -n 40 $log | sed 's/^/  | /'
    fi
  done <"$1"
}

# The image holds only test programs under tests/ (and BPF objects, not
# executable); each lists its cases.
: >/tmp/cases
for exe in $(find "$VM_BUILD/tests" -type f -perm -100 | sort); do
  "$exe" --gtest_list_tests 2>/dev/null |
    awk -v exe="$exe" '/^[^ ]/ {suite = $1; next} /^  [^ ]/ {print exe, suite $1}' >>/tmp/cases
done
echo "vmtest: $(wc -l </tmp/cases) test cases ($VM_SUITE suite)"
# Two workers, one per CPU.
awk 'NR % 2 == 1' /tmp/cases >/tmp/cases.1
awk 'NR % 2 == 0' /tmp/cases >/tmp/cases.2
run_cases /tmp/cases.1 1 &
run_cases /tmp/cases.2 2 &
wait

# --- end to end ---------------------------------------------------------------
# e2e NAME RESULTS [VMCHECK ARGUMENT...]: one run of the check, its verdicts
# appended to RESULTS, then the summary line "vmtest <arch> <release>[ NAME]".
e2e() {
  name=$1 res=$2 out=/tmp/vmcheck.out log=/tmp/tavo_bpfd$(echo "${1:+ $1}" | tr ' ' .).log
  shift 2
  echo "vmtest: end-to-end check${name:+, $name}"
  "$VM_BUILD/tools/tavo_vmcheck/tavo_vmcheck" --log "$log" "$@" >$out 2>/tmp/vmcheck.err
  cat $out
  grep '^vmcheck: PASS' $out | sed 's/^vmcheck: PASS \([^:]*\).*/PASS e2e.\1/' >>"$res"
  grep '^vmcheck: FAIL' $out | sed 's/^vmcheck: FAIL \([^:]*\).*/FAIL e2e.\1/' >>"$res"
  if grep -q '^vmcheck: FAIL' $out || ! grep -q '^vmcheck: rows' $out; then
    grep -q '^vmcheck: rows' $out || echo "FAIL e2e.run" >>"$res"
    echo "vmtest: daemon log (last 60 lines):"
    tail -n 60 "$log" | sed 's/^/  | /'
    tail -n 20 /tmp/vmcheck.err | sed 's/^/  | /'
  fi
  passed=$(grep -c '^PASS' "$res")
  failed=$(grep -c '^FAIL' "$res")
  skipped=$(grep -c '^SKIP' "$res")
  rows=$(sed -n 's/^vmcheck: rows attached \([0-9]*\), skipped by version \([0-9]*\), failed \([0-9]*\); dma-buf notices \([0-9]*\); dma-buf types \(.*\)$/\1 \2 \3 \4 \5/p' $out)
  set -- ${rows:-0 0 0 0 none}
  n1=$1 n2=$2 n3=$3 n4=$4
  shift 4
  echo "vmtest $VM_ARCH $release${name:+ $name}: $passed passed, $failed failed, $skipped skipped; rows attached $n1, skipped by version $n2, failed $n3; dma-buf notices $n4; dma-buf types $*"
}
e2e "" $results
if [ -n "$VM_ROWS_PROP" ]; then
  : >/tmp/results.rows
  e2e "rows ${VM_ROWS_PROP##*=}" /tmp/results.rows --prop "$VM_ROWS_PROP"
fi
sync
poweroff -f
