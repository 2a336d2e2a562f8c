#!/usr/bin/env bash
# Builds the initramfs of one kernel-matrix VM: busybox, scripts/vm/init.sh
# as /init, the kernel's vgem and vivid modules, the project's binaries at
# their build-tree paths (the tests name some files by absolute path) with
# debug info stripped, and every shared library they need.
#   mkinitramfs.sh ARCH BUILD_DIR KERNEL_DIR SUITE OUT.cpio [PROP=VALUE]
#     ARCH arm64|x86_64; SUITE kernel (tests whose name matches
#     $TAVO_VM_KERNEL_TESTS, default *kern*) or full (every test binary);
#     PROP=VALUE: a property that chooses another family of attach-table
#     rows, for a second run of the end-to-end check
set -euo pipefail

arch=$1 build=$(realpath "$2") kdir=$3 suite=$4 out=$5 rowsprop=${6:-}
here=$(dirname "$(realpath "$0")")
CACHE=${TAVO_VM_CACHE:-/var/cache/tavo-vmtest}

case "$arch" in
  arm64) triplet=aarch64-linux-gnu debarch=arm64 strip=aarch64-linux-gnu-strip ;;
  x86_64) triplet=x86_64-linux-gnu debarch=amd64 strip=strip ;;
  *) echo "mkinitramfs: unknown arch $arch" >&2; exit 2 ;;
esac
libdirs=(/lib/$triplet /usr/lib/$triplet /usr/lib/$triplet/android)
[ "$arch" = arm64 ] && libdirs+=("$CACHE/root-arm64/usr/lib/$triplet")

stage=$(mktemp -d "${out%/*}/stage.XXXXXX")
trap 'rm -rf "$stage"' EXIT
mkdir -p "$stage"/{bin,dev,proc,sys,tmp,run,data,modules}

cp "$CACHE/root-$debarch/bin/busybox" "$stage/bin/busybox"
cp "$here/init.sh" "$stage/init"
chmod 755 "$stage/init"

# --- modules and what they depend on, in load order ---------------------------
moddir=$(echo "$kdir"/root/lib/modules/*)
: >"$stage/modules.order"
add_module() {  # NAME [PARAMETER...]: one line "NAME.ko PARAMETER..." each
  local name=$1 file dep
  shift
  grep -q "^$name\.ko\( \|\$\)" "$stage/modules.order" && return 0
  file=$(find "$moddir/kernel" \( -name "$name.ko*" -o -name "${name//_/-}.ko*" \) | head -n1)
  [ -n "$file" ] || { echo "mkinitramfs: module $name not in $moddir" >&2; return 1; }
  case "$file" in
    *.xz) xz -dc "$file" >"$stage/modules/$name.ko" ;;
    *.zst) zstd -qdc "$file" >"$stage/modules/$name.ko" ;;
    *) cp "$file" "$stage/modules/$name.ko" ;;
  esac
  for dep in $(tr '\0' '\n' <"$stage/modules/$name.ko" | sed -n 's/^depends=//p' | tr ',' ' '); do
    add_module "$dep"
  done
  echo "$name.ko${*:+ $*}" >>"$stage/modules.order"
}
# vgem exports dma-bufs. vivid imports them: one capture node per
# allocator, vmalloc (vmaps an imported buffer) and dma-contig (attaches it).
add_module vgem
add_module vivid n_devs=2 allocators=0,1 node_types=0x1,0x1

# --- the project's binaries ----------------------------------------------------
is_elf() { [ -f "$1" ] && [ -x "$1" ] && [ "$(head -c4 "$1" | tr -d '\0')" = $'\x7fELF' ]; }
binaries=()
copy_binary() {
  mkdir -p "$stage$(dirname "$1")"
  "$strip" --strip-debug -o "$stage$1" "$1"
  binaries+=("$1")
}
for f in "$build"/lib*.so* "$build"/tools/*/*; do
  is_elf "$f" && copy_binary "$f"
done
# Every test program CTest knows (a build folder may still hold programs of
# tests that no longer exist).
pattern=${TAVO_VM_KERNEL_TESTS:-*kern*}
find "$build/tests" -name CTestTestfile.cmake -exec sed -n 's/^add_test([^ ]* "\([^"]*\)".*/\1/p' {} + |
  sort -u >"$stage/.tests"
while read -r f; do
  is_elf "$f" || continue
  # shellcheck disable=SC2254
  [ "$suite" = full ] || case "${f##*/}" in $pattern) ;; *) continue ;; esac
  copy_binary "$f"
done <"$stage/.tests"
rm "$stage/.tests"
for f in "$build"/bpf/*.bpf.o $(find "$build/tests" -name '*.bpf.o'); do
  mkdir -p "$stage$(dirname "$f")"
  cp "$f" "$stage$f"
done

# --- shared libraries, found like the dynamic loader would -------------------
declare -A copied=()
resolve() {  # NEEDED name, RUNPATH dirs of the object -> path on this machine
  local name=$1 dir
  shift
  for dir in "$@" "${libdirs[@]}"; do
    [ -e "$dir/$name" ] && { echo "$dir/$name"; return 0; }
  done
  echo "mkinitramfs: $name not found" >&2
  return 1
}
add_libs() {
  local obj=$1 origin runpath lib path target
  origin=$(dirname "$obj")
  runpath=$(readelf -d "$obj" | sed -n 's/.*(R\(UN\)\?PATH).*\[\(.*\)\]/\2/p' | tr ':' ' ')
  runpath=${runpath//\$ORIGIN/$origin}
  for lib in $(readelf -d "$obj" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'); do
    [ -n "${copied[$lib]:-}" ] && continue
    # shellcheck disable=SC2086
    path=$(resolve "$lib" $runpath)
    # The arm64 bcc library comes from the cache; in the VM it sits with the others.
    case "$path" in "$CACHE"/*) target=/usr/lib/$triplet/$lib ;; *) target=$path ;; esac
    copied[$lib]=1
    mkdir -p "$stage$(dirname "$target")"
    cp -L "$path" "$stage$target"
    add_libs "$path"
  done
}
for f in "${binaries[@]}"; do add_libs "$f"; done
interp=
for f in "${binaries[@]}"; do
  interp=$(readelf -l "$f" | sed -n 's/.*program interpreter: \(.*\)\]/\1/p')
  [ -n "$interp" ] && break
done
mkdir -p "$stage$(dirname "$interp")"
cp -L "$interp" "$stage$interp" 2>/dev/null ||
  cp -L "/usr/lib/$triplet/${interp##*/}" "$stage$interp"

cat >"$stage/vmtest.conf" <<EOF
VM_ARCH=$arch
VM_BUILD=$build
VM_SUITE=$suite
VM_ROWS_PROP=$rowsprop
VM_LIBPATH=/lib/$triplet:/usr/lib/$triplet:/usr/lib/$triplet/android
EOF

(cd "$stage" && find . | cpio -o -H newc --quiet) >"$out"
