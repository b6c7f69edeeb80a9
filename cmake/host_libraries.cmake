# SPDX-License-Identifier: MIT
# kelvara_host: the libraries that a host program links besides libkelvara.
set(THREADS_PREFER_PTHREAD_FLAG ON)
find_package(Threads REQUIRED)
find_library(KELVARA_LIBEVENT event_core REQUIRED)
find_library(KELVARA_LIBCONFIG config REQUIRED)
find_path(KELVARA_LIBEVENT_INCLUDE event2/event.h REQUIRED)
find_path(KELVARA_LIBCONFIG_INCLUDE libconfig.h REQUIRED)

add_library(kelvara_host INTERFACE)
target_include_directories(kelvara_host SYSTEM INTERFACE
  ${KELVARA_LIBEVENT_INCLUDE} ${KELVARA_LIBCONFIG_INCLUDE})
target_link_libraries(kelvara_host INTERFACE
  ${KELVARA_LIBEVENT} ${KELVARA_LIBCONFIG} Threads::Threads)
