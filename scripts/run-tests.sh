#!/usr/bin/env bash
# Installs dependencies, then builds and runs the test suite in each preset,
# then the kernel matrix (scripts/vmtest.sh, named "vm" here).
#   scripts/run-tests.sh [preset|vm...]     (default: debug asan tsan vm)
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
presets=("$@")
[ ${#presets[@]} -gt 0 ] || presets=(debug asan tsan vm)

for preset in "${presets[@]}"; do
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
