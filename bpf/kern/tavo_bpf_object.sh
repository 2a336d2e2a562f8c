#!/bin/sh
# Builds one BPF object in a platform tree's genrule (bpf/kern/Android.bp):
#   tavo_bpf_object.sh CLANG GENDIR OUT INPUT...
# The inputs are the object's .bpf.c, tavo_bpf_common.bpf.h, vmlinux.h, the
# records header and libbpf's <bpf/...> headers. They are laid out as the
# sources include them, then the .bpf.c is compiled for the bpf target with
# the AArch64 kprobe register layout, as the CMake build's arm64 preset does.
set -e
clang=$1 gen=$2 out=$3
shift 3
mkdir -p "$gen/include/bpf" "$(dirname "$out")"
src=
for input in "$@"; do
  case $input in
    *.bpf.c) src=$input ;;
    *.bpf.h) ;; # found beside the .bpf.c
    */vmlinux.h) cp "$input" "$gen/include/" ;;
    *.h) cp "$input" "$gen/include/bpf/" ;;
  esac
done
exec "$clang" -O2 -g -target bpf -D__TARGET_ARCH_arm64 -Wall -Werror -I"$gen/include" -c "$src" -o "$out"
