# SPDX-License-Identifier: MIT
# What `cmake --install` puts where, and the Debian packages that `cpack -G DEB` makes of it (best by
# scripts/package, which configures a build for /usr). Three components: runtime, development, tools.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# --- runtime and development ------------------------------------------------------------------

install(TARGETS kelvara EXPORT kelvara-targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  COMPONENT runtime NAMELINK_COMPONENT development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kelvara)
install(DIRECTORY include/common DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kelvara
  COMPONENT development FILES_MATCHING PATTERN "*.h")

set(kelvara_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/kelvara)
install(EXPORT kelvara-targets NAMESPACE kelvara:: DESTINATION ${kelvara_cmake_dir}
  COMPONENT development)
configure_package_config_file(cmake/kelvara-config.cmake.in
  ${PROJECT_BINARY_DIR}/kelvara-config.cmake INSTALL_DESTINATION ${kelvara_cmake_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/kelvara-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/kelvara-config.cmake
  ${PROJECT_BINARY_DIR}/kelvara-config-version.cmake
  DESTINATION ${kelvara_cmake_dir} COMPONENT development)

file(RELATIVE_PATH kelvara_pc_to_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" kelvara_pc_to_prefix ${kelvara_pc_to_prefix})
configure_file(cmake/kelvara.pc.in ${PROJECT_BINARY_DIR}/kelvara.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kelvara.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT development)

# The reference, once scripts/docs has made it.
if(EXISTS ${PROJECT_SOURCE_DIR}/build/docs/html/index.html)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/build/docs/html
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libkelvara-dev COMPONENT development)
endif()

# --- the tools for development -------------------------------------------------------------------

set(kelvara_tools gnssd watchdogd tap)
if(KELVARA_BUILD_EXAMPLES)
  install(TARGETS ${kelvara_tools} DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  # Below a prefix of one's own the programs find the library that stands with them.
  if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    file(RELATIVE_PATH kelvara_bin_to_lib /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
    set_target_properties(${kelvara_tools} PROPERTIES INSTALL_RPATH "$ORIGIN/${kelvara_bin_to_lib}")
  endif()
  install(FILES examples/minimal.c examples/track.nmea docs/lnav/kelvara_log.json
    DESTINATION ${CMAKE_INSTALL_DATADIR}/kelvara COMPONENT tools)
  # The configuration and the units of a package stand where the system looks for them.
  set(kelvara_etc ${CMAKE_INSTALL_SYSCONFDIR}/kelvara)
  if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    set(kelvara_etc ${CMAKE_INSTALL_FULL_SYSCONFDIR}/kelvara)
    foreach(unit gnssd.service gnssd-pty.service watchdogd.service)
      configure_file(packaging/systemd/${unit}.in ${PROJECT_BINARY_DIR}/package/${unit} @ONLY)
      install(FILES ${PROJECT_BINARY_DIR}/package/${unit} DESTINATION lib/systemd/system
        COMPONENT tools)
    endforeach()
  endif()
  install(FILES examples/gnssd.conf DESTINATION ${kelvara_etc} COMPONENT tools)
endif()

# --- the packages -----------------------------------------------------------------------------

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kelvara)
set(CPACK_PACKAGE_CONTACT "Kelvara developers <developers@kelvara.invalid>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE
  GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_COMPONENTS_ALL runtime development)
if(KELVARA_BUILD_EXAMPLES)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(kelvara_debian_x86_64-linux-gnu amd64)
set(kelvara_debian_aarch64-linux-gnu arm64)
set(kelvara_debian_arm-linux-gnueabihf armhf)
if(DEFINED kelvara_debian_${CMAKE_LIBRARY_ARCHITECTURE})
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${kelvara_debian_${CMAKE_LIBRARY_ARCHITECTURE}})
endif()
# Said here rather than found by dpkg-shlibdeps, which does not know libraries of another
# architecture, nor that the C library loads libgcc_s when a thread of ours ends.
set(kelvara_libc "libc6 (>= 2.34), libgcc-s1")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libkelvara1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS ${kelvara_libc})
file(WRITE ${PROJECT_BINARY_DIR}/package/shlibs
  "libkelvara ${PROJECT_VERSION_MAJOR} libkelvara1 (>= ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
  ${PROJECT_SOURCE_DIR}/cmake/package/triggers ${PROJECT_BINARY_DIR}/package/shlibs)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "toolkit of resident daemons, shared library
Levelled logging with rotation, a local server that broadcasts to its clients,
a watchdog client, containers, codecs and small system helpers for the daemons
of an embedded unit. It leaves libevent and libconfig to the programs.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libkelvara-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "libkelvara1 (= ${PROJECT_VERSION}), libc6-dev, libevent-dev, libconfig-dev")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "toolkit of resident daemons, development files
The headers, the link library, and the files for pkg-config and CMake that are
needed to build a daemon in C or C++ on libkelvara.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME kelvara-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS
  "libkelvara1 (= ${PROJECT_VERSION}), libevent-core-2.1-7, libconfig9, ${kelvara_libc}")
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS "lnav, socat, gpsd")
file(WRITE ${PROJECT_BINARY_DIR}/package/conffiles "/etc/kelvara/gnssd.conf\n")
set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/package/conffiles)
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "tools for daemons on libkelvara
tap shows what a daemon sends to its clients, watchdogd shows the heartbeats
of daemons, gnssd is an example that serves the sentences of a GNSS receiver.
A format file lets lnav read the log files.")

# What Debian wants to find in each package; its tools compress it without a date.
find_program(KELVARA_GZIP gzip)
foreach(component runtime development tools)
  string(TOUPPER ${component} upper)
  set(doc ${CMAKE_INSTALL_DATADIR}/doc/${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
  install(FILES cmake/package/copyright DESTINATION ${doc} COMPONENT ${component} EXCLUDE_FROM_ALL)
  if(KELVARA_GZIP)
    install(FILES ${PROJECT_BINARY_DIR}/package/changelog.gz DESTINATION ${doc}
      COMPONENT ${component} EXCLUDE_FROM_ALL)
  endif()
endforeach()
if(KELVARA_GZIP)
  # The manual pages of the functions are there once scripts/docs has made them.
  file(GLOB kelvara_to_zip ${PROJECT_SOURCE_DIR}/docs/man/*.1
    ${PROJECT_SOURCE_DIR}/build/docs/man/man[37]/*.[37] ${PROJECT_SOURCE_DIR}/cmake/package/changelog)
  file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/package)
  foreach(from ${kelvara_to_zip})
    get_filename_component(name ${from} NAME)
    set(to ${PROJECT_BINARY_DIR}/package/${name}.gz)
    execute_process(COMMAND ${KELVARA_GZIP} -9nc ${from} OUTPUT_FILE ${to})
    if(name MATCHES "\\.1$" AND KELVARA_BUILD_EXAMPLES)
      install(FILES ${to} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
    elseif(name MATCHES "\\.([37])$")
      install(FILES ${to} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${CMAKE_MATCH_1} COMPONENT development)
    endif()
  endforeach()
endif()
if(PROJECT_IS_TOP_LEVEL)
  include(CPack)
endif()
