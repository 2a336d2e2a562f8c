# Cross build for AArch64 Linux with Debian's cross compiler and the arm64
# development packages installed beside the host's (multiarch):
#   dpkg --add-architecture arm64
#   apt-get install g++-aarch64-linux-gnu libbpf-dev:arm64 android-libbase-dev:arm64 ...
# (scripts/vm/install-host.sh does this). Libraries come from
# /usr/lib/aarch64-linux-gnu, headers shared with the host from /usr/include.
# bcc's libbcc_bpf for arm64 cannot be installed beside the host's bcc; it is
# unpacked into a folder instead and named with -DBCC_BPF_LIB=<path>
# (the presets point at $TAVO_VM_CACHE, /var/cache/tavo-vmtest by default).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

# Programs (clang, bpftool) are the build machine's; libraries and packages
# only the target's.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)

# Kprobe programs read their arguments from AArch64 registers.
set(TAVO_BPF_ARCH arm64 CACHE STRING "" FORCE)
# The test binaries cannot run here: list their cases when ctest runs
# (inside the VM the runner lists them itself).
set(CMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE PRE_TEST)

if(NOT BCC_BPF_LIB)
  set(tavo_vm_cache $ENV{TAVO_VM_CACHE})
  if(NOT tavo_vm_cache)
    set(tavo_vm_cache /var/cache/tavo-vmtest)
  endif()
  set(BCC_BPF_LIB ${tavo_vm_cache}/root-arm64/usr/lib/aarch64-linux-gnu/libbcc_bpf.so.0
      CACHE FILEPATH "arm64 libbcc_bpf (unpacked from Debian's libbpfcc:arm64)")
endif()
