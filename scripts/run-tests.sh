#!/usr/bin/env bash
# Installs dependencies, then builds and runs the test suite in each preset,
# with the Android.bp check after the debug preset (scripts/check-blueprint.sh,
# "blueprint" here), then every fuzz target for a minute (scripts/fuzz.sh,
# "fuzz" here), then the kernel matrix (scripts/vmtest.sh, "vm" here).
#   scripts/run-tests.sh [preset|blueprint|fuzz|vm...]
#                                    (default: debug blueprint asan tsan fuzz vm)
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
presets=("$@")
[ ${#presets[@]} -gt 0 ] || presets=(debug blueprint asan tsan fuzz vm)

for preset in "${presets[@]}"; do
  if [ "$preset" = blueprint ]; then
    echo "=== Android.bp"
    scripts/check-blueprint.sh
    continue
  fi
  if [ "$preset" = fuzz ]; then
    echo "=== fuzzing"
    scripts/fuzz.sh --all "${TAVO_FUZZ_SECONDS:-60}"
    continue
  fi
  if [ "$preset" = vm ]; then
    echo "=== kernel matrix"
    if [ "$(id -u)" != 0 ]; then
      echo "run-tests: the kernel matrix needs root; skipped"
      continue
    fi
    scripts/vmtest.sh
    continue
  fi
  echo "=== preset: $preset"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
  ctest --preset "$preset"
done
