#!/usr/bin/env bash
# Runs the libFuzzer targets of tests/fuzz (built with ASan and UBSan by the
# fuzz preset, which this builds when needed) and fails on any crash, leak,
# time-out or memory blow-up.
#
#   scripts/fuzz.sh TARGET [SECONDS]   one target, 60 s by default
#   scripts/fuzz.sh --all SECONDS      every target in turn (CI: about 60 each)
#   scripts/fuzz.sh --list             the targets
#
# The seeds in tests/fuzz/corpus/TARGET (if any) are only read; what the fuzzer finds
# goes to build/fuzz/corpus/TARGET, its log to build/fuzz/TARGET.log and a
# crashing input to build/fuzz/crash-TARGET-*. One line per target reports
# the runs and the edges covered.
set -euo pipefail
cd "$(dirname "$0")/.."

usage() { sed -n '6,8p' "$0" | sed 's/^# *//' >&2; exit 2; }
[ $# -ge 1 ] || usage

scripts/install-deps.sh
cmake --preset fuzz >/dev/null
build=build/fuzz
mapfile -t targets < "$build/fuzz_targets.txt"

run() {
  local target=$1 seconds=$2
  cmake --build --preset fuzz --target "$target" >/dev/null
  local work="$build/corpus/$target" log="$build/$target.log" seeds=()
  mkdir -p "$work"
  [ -d "tests/fuzz/corpus/$target" ] && seeds=("tests/fuzz/corpus/$target")
  if ! "$build/tests/fuzz/$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
      -print_final_stats=1 -artifact_prefix="$build/crash-$target-" \
      "$work" "${seeds[@]}" >"$log" 2>&1; then
    echo "$target: FAILED after fuzzing, see $log" >&2
    grep -E "^==[0-9]+==ERROR|runtime error|ERROR: libFuzzer|SUMMARY:|Test unit written" "$log" | head -20 >&2 ||
      tail -20 "$log" >&2
    return 1
  fi
  local runs edges
  runs=$(awk '/stat::number_of_executed_units/ {print $2}' "$log")
  edges=$(grep -o 'cov: [0-9]*' "$log" | tail -1 | awk '{print $2}')
  echo "$target: $runs runs, $edges edges covered, ${seconds} s, no crash or leak"
}

case "$1" in
  --list) printf '%s\n' "${targets[@]}" ;;
  --all)
    [ $# -eq 2 ] || usage
    failed=0
    for target in "${targets[@]}"; do run "$target" "$2" || failed=1; done
    exit $failed ;;
  -*) usage ;;
  *)
    printf '%s\n' "${targets[@]}" | grep -qx "$1" || { echo "unknown target $1; try --list" >&2; exit 2; }
    run "$1" "${2:-60}" ;;
esac
