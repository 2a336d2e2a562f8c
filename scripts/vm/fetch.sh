#!/usr/bin/env bash
# Fetches Debian packages for the kernel matrix into a cache outside the
# work tree, through an apt of its own (sources list, lists and package
# cache under the cache folder), so the machine's apt set-up is untouched.
# Every step is skipped when its result is already there.
#   fetch.sh kernel ARCH LINE    ARCH: arm64|amd64, LINE: 5.10|6.1|6.12
#                                -> prints the folder the package was unpacked to
#   fetch.sh package ARCH NAME   -> unpacks NAME into $CACHE/root-ARCH, prints that folder
set -euo pipefail

CACHE=${TAVO_VM_CACHE:-/var/cache/tavo-vmtest}
KEYRING=/usr/share/keyrings/debian-archive-keyring.gpg
MIRROR=${TAVO_VM_MIRROR:-http://deb.debian.org/debian}

suite_of() {
  case "$1" in
    5.10) echo bullseye ;;
    6.1) echo bookworm ;;
    6.12) echo bookworm-backports ;;
    *) echo "vmtest: unknown kernel line $1 (5.10, 6.1, 6.12)" >&2; return 1 ;;
  esac
}

# apt with its own state for one suite: APT_ARGS is set for the caller.
apt_for() {
  local suite=$1 dir=$CACHE/apt/$1
  mkdir -p "$dir/lists/partial" "$dir/cache/archives/partial"
  APT_ARGS=(-o Dir::Etc::sourcelist="$dir/sources.list" -o Dir::Etc::sourceparts=-
            -o Dir::State::Lists="$dir/lists" -o Dir::Cache="$dir/cache"
            -o APT::Architectures="amd64,arm64" -o APT::Sandbox::User=root -o Debug::NoLocking=1 -qq)
  if [ ! -s "$dir/sources.list" ] || ! ls "$dir"/lists/*Packages* >/dev/null 2>&1; then
    echo "deb [arch=amd64,arm64 signed-by=$KEYRING] $MIRROR $suite main" >"$dir/sources.list"
    echo "vmtest: apt update ($suite)" >&2
    apt-get "${APT_ARGS[@]}" update >&2
  fi
}

# Downloads one package (NAME:ARCH) into the suite's download folder; prints the .deb.
download() {
  local suite=$1 pkg=$2 dir=$CACHE/debs/$1
  mkdir -p "$dir"
  local name=${pkg%%:*} arch=${pkg##*:}
  local found
  found=$(ls "$dir/${name}_"*"_${arch}.deb" 2>/dev/null | head -n1 || true)
  if [ -z "$found" ]; then
    apt_for "$suite"
    echo "vmtest: downloading $pkg ($suite)" >&2
    (cd "$dir" && apt-get "${APT_ARGS[@]}" download "$pkg" >&2)
    found=$(ls "$dir/${name}_"*"_${arch}.deb" | head -n1)
  fi
  echo "$found"
}

# The versioned image package behind the suite's meta package, unsigned.
kernel_package() {
  local suite=$1 arch=$2
  apt_for "$suite"
  local dep
  dep=$(apt-cache "${APT_ARGS[@]}" depends "linux-image-$arch:$arch" |
        sed -n 's/^ *Depends: \(linux-image-[0-9][^ :]*\).*/\1/p' | head -n1)
  [ -n "$dep" ] || { echo "vmtest: no kernel package for $arch in $suite" >&2; return 1; }
  case "$dep" in *-unsigned) ;; *) dep=$dep-unsigned ;; esac
  echo "$dep"
}

case "${1:-}" in
  kernel)
    arch=$2 line=$3 suite=$(suite_of "$3")
    out=$CACHE/kernels/$arch-$line
    if [ ! -e "$out/.unpacked" ]; then
      pkg=$(kernel_package "$suite" "$arch")
      deb=$(download "$suite" "$pkg:$arch")
      rm -rf "$out" && mkdir -p "$out"
      dpkg-deb -x "$deb" "$out/root"
      basename "$deb" >"$out/.unpacked"
    fi
    echo "$out"
    ;;
  package)
    arch=$2 name=$3 out=$CACHE/root-$2
    mkdir -p "$out"
    if [ ! -e "$out/.$name" ]; then
      deb=$(download bookworm "$name:$arch")
      dpkg-deb -x "$deb" "$out"
      basename "$deb" >"$out/.$name"
    fi
    echo "$out"
    ;;
  *)
    echo "usage: fetch.sh kernel ARCH LINE | package ARCH NAME" >&2
    exit 2
    ;;
esac
