# Cross-compiles for 64-bit ARM Linux with Debian's GNU toolchain
# (g++-aarch64-linux-gnu). The target's own libraries (Boost.System,
# GoogleTest) are Debian's arm64 packages, installed beside the host's through
# multi-arch under /usr/lib/aarch64-linux-gnu; `scripts/test aarch64` installs
# all of it. Programs built for the target (the tests, the demo) run under
# qemu-user, which ctest and test discovery prefix to every such command.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
# Package and library searches then look under lib/aarch64-linux-gnu, never
# in the host's lib/x86_64-linux-gnu.
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

# Programs run at build and test time (python3, the emulator) are the host's.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)

find_program(QOR_QEMU_AARCH64 NAMES qemu-aarch64 qemu-aarch64-static)
if(QOR_QEMU_AARCH64)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${QOR_QEMU_AARCH64})
endif()
