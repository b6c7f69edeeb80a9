# SPDX-License-Identifier: MIT
# The target: 32-bit little-endian ARM, Cortex-A9 with NEON, hard-float, glibc. The compiler and its
# C library are Debian's cross packages (they live in /usr/arm-linux-gnueabihf), programs run under
# qemu-arm, and libevent and libconfig come from a folder that scripts/arm_sysroot fills:
# build/armhf-sysroot, or the path in the environment variable KELVARA_ARMHF_SYSROOT.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

# Cached, so that a later run of CMake does not depend on the environment of the first.
if(NOT KELVARA_ARMHF_SYSROOT)
  set(sysroot $ENV{KELVARA_ARMHF_SYSROOT})
  if(NOT sysroot)
    get_filename_component(sysroot ${CMAKE_CURRENT_LIST_DIR}/../build/armhf-sysroot ABSOLUTE)
  endif()
  set(KELVARA_ARMHF_SYSROOT ${sysroot} CACHE PATH "libevent and libconfig for armhf")
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KELVARA_ARMHF_SYSROOT)

# Thumb-2 is what Debian's compiler emits unless told otherwise; it is named here so that no other
# default slips in. It is about a quarter smaller than ARM code, which the 32 KiB caches of this
# processor repay, and the digests take the same number of instructions in either.
set(target_flags "-mcpu=cortex-a9 -mfpu=neon -mfloat-abi=hard -mthumb")
set(CMAKE_C_FLAGS_INIT ${target_flags})
set(CMAKE_CXX_FLAGS_INIT ${target_flags})

set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH ${KELVARA_ARMHF_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# What a native compiler finds by itself: the headers, and libevent's event-config.h, which stands
# with the architecture. Debian's cross compiler would fall back on the machine's own.
foreach(language C CXX)
  set(CMAKE_${language}_STANDARD_INCLUDE_DIRECTORIES
    ${KELVARA_ARMHF_SYSROOT}/usr/include/${CMAKE_LIBRARY_ARCHITECTURE}
    ${KELVARA_ARMHF_SYSROOT}/usr/include)
endforeach()

# The folder's lib leads to the cross compiler's C library, so one path serves the emulated loader.
# With the processor named, what a Cortex-A9 lacks (integer division) ends a program by SIGILL.
set(CMAKE_CROSSCOMPILING_EMULATOR
  qemu-arm -cpu cortex-a9 -E KELVARA_EMULATED=1 -L ${KELVARA_ARMHF_SYSROOT})
