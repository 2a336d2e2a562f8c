#!/usr/bin/env bash
# Checks the Soong build files (Android.bp) on the Debian host:
#  1. Android's formatter bpfmt parses every Android.bp, and `bpfmt -l`
#     lists none (each is formatted as the platform formats it);
#  2. mini-soong, Debian's reimplementation of Soong, turns them into a
#     Makefile that builds every library module against Debian's Android
#     host libraries, and the libtavobpfservice.so it links exports exactly
#     the dynamic symbols of the CMake build's (debug preset).
# Programs, genrules, tests and fuzz targets are checked by bpfmt only:
# mini-soong gives a cc_binary no sources and skips the other module types.
# Output goes to build/blueprint/.
#   scripts/check-blueprint.sh
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
out=build/blueprint
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)

mapfile -t recipes < <(find . -path ./build -prune -o -name Android.bp -print | sed 's|^\./||' | sort)
echo "blueprint: ${#recipes[@]} Android.bp files"
unformatted=$(bpfmt -l "${recipes[@]}")
if [ -n "$unformatted" ]; then
  echo "blueprint: not formatted as bpfmt formats them (bpfmt -w FILE):" >&2
  echo "$unformatted" >&2
  exit 1
fi

rm -rf "$out"
mkdir -p "$out"
mini-soong '**/Android.bp' "$out/Makefile" 2>"$out/mini-soong.log"
# What mini-soong leaves out of the Makefile and Soong does: cpp_std,
# version_script and header_libs (here the project's top as include
# folder); then where Debian keeps the Android host libraries. The helper
# reads the files with mini-soong's own parser, under its interpreter.
/usr/bin/python3 - "$root" "${recipes[@]}" >>"$out/Makefile" <<'EOF'
import sys
from pathlib import Path
from mini_soong.model import Module
from mini_soong.parser import soong

root = Path(sys.argv[1])
modules = []
for recipe in sys.argv[2:]:
    for statement in soong.parseString((root / recipe).read_text()):
        if isinstance(statement, Module) and "name" in statement.arguments:
            modules.append((statement.arguments, (root / recipe).parent))
exported = {args["name"]: [folder / d for d in args.get("export_include_dirs", [])]
            for args, folder in modules}
for args, folder in modules:
    name = args["name"]
    if "cpp_std" in args:
        print(f"{name}_CXXFLAGS += -std={args['cpp_std']}")
    if "version_script" in args:
        print(f"{name}_LDFLAGS += -Wl,--version-script={folder / args['version_script']}")
    for lib in args.get("header_libs", []):
        print(f"{name}_CFLAGS += " + " ".join(f"-I{d}" for d in exported.get(lib, [])))
EOF
cat >>"$out/Makefile" <<EOF
CPPFLAGS += -isystem /usr/include/android
LDFLAGS += -L/usr/lib/$multiarch/android
EOF

# The library targets, in the order the files define them. mini-soong's
# static-library recipes compile into the current folder and archive every
# object there, so they run one at a time.
mapfile -t targets < <(sed -n 's/^build://p' "$out/Makefile" | tr ' ' '\n' |
  sed -n -e '/\.a$/p' -e 's/\(\.so\)\..*/\1/p')
for entry in "$root"/*; do
  [ "$(basename "$entry")" = build ] || ln -s "$entry" "$out/"
done
echo "blueprint: mini-soong builds ${targets[*]}"
DEB_BUILD_OPTIONS=noopt make -C "$out" -j1 CC=clang++ "${targets[@]}" >"$out/make.log" 2>&1 || {
  tail -n 40 "$out/make.log" >&2
  echo "blueprint: mini-soong's Makefile failed (whole log: $out/make.log)" >&2
  exit 1
}

cmake --preset debug >/dev/null
cmake --build --preset debug --target tavobpfservice >"$out/cmake.log" 2>&1 || {
  tail -n 40 "$out/cmake.log" >&2
  exit 1
}
symbols() { nm -D --defined-only "$1" | awk '{ print $NF }' | sort; }
symbols build/debug/libtavobpfservice.so >"$out/cmake.symbols"
symbols "$out/libtavobpfservice.so" >"$out/soong.symbols"
if ! diff -u "$out/cmake.symbols" "$out/soong.symbols" >"$out/symbols.diff"; then
  cat "$out/symbols.diff" >&2
  echo "blueprint: libtavobpfservice.so exports differ (- CMake, + Android.bp)" >&2
  exit 1
fi
echo "blueprint: libtavobpfservice.so exports the same $(wc -l <"$out/cmake.symbols") symbols in both builds"
