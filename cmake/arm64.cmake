# Toolchain: AArch64 by Debian's cross compiler, against unpacked arm64 packages (packaging/sysroot.sh makes them).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
get_filename_component(VELSTREAM_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../.sysroot/arm64" ABSOLUTE)
if(NOT EXISTS ${VELSTREAM_SYSROOT}/usr/lib)
  message(FATAL_ERROR "${VELSTREAM_SYSROOT} is missing: packaging/sysroot.sh makes it")
endif()

set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_SYSROOT ${VELSTREAM_SYSROOT})
set(CMAKE_FIND_ROOT_PATH ${VELSTREAM_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${VELSTREAM_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR} ${VELSTREAM_SYSROOT}/usr/lib/aarch64-linux-gnu/pkgconfig:${VELSTREAM_SYSROOT}/usr/share/pkgconfig)

# What is built runs under qemu's user emulation, with the sysroot's libraries.
find_program(VELSTREAM_QEMU NAMES qemu-aarch64-static qemu-aarch64)
if(VELSTREAM_QEMU)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${VELSTREAM_QEMU};-L;${VELSTREAM_SYSROOT})
endif()
