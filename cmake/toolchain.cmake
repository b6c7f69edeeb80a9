# SPDX-License-Identifier: MIT
# Builds for another processor: -DKELVARA_ARCH=armhf, the target (a Cortex-A9 with NEON), or arm64.
# The compilers are Debian's, programs run in an emulator, and the libraries are in a folder that
# `scripts/test armhf` or `scripts/test arm64` fills: build/sysroot-armhf or build/sysroot-arm64.
# KELVARA_SYSROOT names another folder.
set(KELVARA_ARCH armhf CACHE STRING "armhf or arm64")
get_filename_component(sysroot ${CMAKE_CURRENT_LIST_DIR}/../build/sysroot-${KELVARA_ARCH} ABSOLUTE)
set(KELVARA_SYSROOT ${sysroot} CACHE PATH "libevent, libconfig and googletest for that processor")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KELVARA_ARCH KELVARA_SYSROOT)

set(CMAKE_SYSTEM_NAME Linux)
if(KELVARA_ARCH STREQUAL armhf)
  set(CMAKE_SYSTEM_PROCESSOR arm)
  set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
  # Debian's compiler emits Thumb-2 by default; -mthumb is for other compilers. This code is about a
  # quarter smaller than ARM code, which suits the 32 KiB caches of this processor, and the digests
  # take the same number of instructions in both.
  set(target_flags "-mcpu=cortex-a9 -mfpu=neon -mfloat-abi=hard -mthumb")
  # As on the target, an instruction that this processor lacks (integer division) causes SIGILL.
  set(cpu cortex-a9)
elseif(KELVARA_ARCH STREQUAL arm64)
  set(CMAKE_SYSTEM_PROCESSOR aarch64)
  set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
  set(target_flags "")
  set(cpu cortex-a53)
else()
  message(FATAL_ERROR "KELVARA_ARCH: armhf or arm64, not ${KELVARA_ARCH}")
endif()
set(CMAKE_C_COMPILER ${CMAKE_LIBRARY_ARCHITECTURE}-gcc)
set(CMAKE_CXX_COMPILER ${CMAKE_LIBRARY_ARCHITECTURE}-g++)
set(CMAKE_C_FLAGS_INIT "${target_flags}")
set(CMAKE_CXX_FLAGS_INIT "${target_flags}")
set(CMAKE_CROSSCOMPILING_EMULATOR
  qemu-${CMAKE_SYSTEM_PROCESSOR} -cpu ${cpu} -E KELVARA_WATCHED=1 -L ${KELVARA_SYSROOT})

set(CMAKE_FIND_ROOT_PATH ${KELVARA_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# libevent's event-config.h depends on the architecture. A native compiler finds the right headers
# by itself; Debian's cross compiler would use those of the build machine.
foreach(language C CXX)
  set(CMAKE_${language}_STANDARD_INCLUDE_DIRECTORIES
    ${KELVARA_SYSROOT}/usr/include/${CMAKE_LIBRARY_ARCHITECTURE} ${KELVARA_SYSROOT}/usr/include)
endforeach()
