#!/usr/bin/env bash
# Installs what building, testing and running need. Safe to run again:
# apt is only called when a package is missing.
set -euo pipefail

PACKAGES=(
  cmake make g++ clang llvm pkg-config libclang-rt-14-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  android-libbase-dev android-libcutils-dev android-liblog-dev
  libbpf-dev libbpfcc-dev bpftool linux-libc-dev libfmt-dev libdrm-dev
  libncurses-dev tmux
  blueprint-tools mini-soong dpkg-dev
  "$@"
)

missing=()
for pkg in "${PACKAGES[@]}"; do
  dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed" || missing+=("$pkg")
done
if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi
if [ "$(id -u)" != 0 ]; then
  echo "install-deps: missing ${missing[*]}; run as root to install them" >&2
  exit 1
fi
echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}"
