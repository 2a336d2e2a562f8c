#!/usr/bin/env bash
# Installs dependencies, then builds and runs the test suite in each preset.
#   scripts/run-tests.sh [preset...]     (default: debug asan tsan)
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh
presets=("$@")
[ ${#presets[@]} -gt 0 ] || presets=(debug asan tsan)

for preset in "${presets[@]}"; do
  echo "=== preset: $preset"
  cmake --preset "$preset" >/dev/null
  cmake --build --preset "$preset"
  ctest --preset "$preset"
done
