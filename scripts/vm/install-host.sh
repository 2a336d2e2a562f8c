#!/usr/bin/env bash
# What the kernel matrix needs on the build machine, installed only when
# missing (like scripts/install-deps.sh): QEMU for both architectures, the
# AArch64 cross compiler and the arm64 development packages of the
# libraries the project links against. The arm64 packages sit beside the
# host's (multiarch); nothing of the host's is replaced.
set -euo pipefail

HOST_PACKAGES=(qemu-system-arm qemu-system-x86 g++-aarch64-linux-gnu cpio xz-utils zstd
               binutils-aarch64-linux-gnu linux-libc-dev)
ARM64_PACKAGES=(android-libbase-dev android-libcutils-dev android-liblog-dev libbpf-dev
                libelf-dev zlib1g-dev libgtest-dev linux-libc-dev libncurses-dev)

installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"; }

missing=()
for pkg in "${HOST_PACKAGES[@]}"; do installed "$pkg" || missing+=("$pkg"); done
for pkg in "${ARM64_PACKAGES[@]}"; do installed "$pkg:arm64" || missing+=("$pkg:arm64"); done
[ ${#missing[@]} -gt 0 ] || exit 0

if [ "$(id -u)" != 0 ]; then
  echo "vmtest: missing ${missing[*]}; run as root to install them" >&2
  exit 1
fi
echo "vmtest: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
dpkg --print-foreign-architectures | grep -qx arm64 || dpkg --add-architecture arm64
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}"
