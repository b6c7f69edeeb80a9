# SPDX-License-Identifier: MIT
# Where `cmake --install` puts each file. packaging/debian makes packages of the result.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

install(TARGETS kelvara EXPORT kelvara-targets
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kelvara)
install(DIRECTORY include/common DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kelvara
  FILES_MATCHING PATTERN "*.h")

set(kelvara_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/kelvara)
install(EXPORT kelvara-targets NAMESPACE kelvara:: DESTINATION ${kelvara_cmake_dir})
configure_package_config_file(cmake/kelvara-config.cmake.in
  ${PROJECT_BINARY_DIR}/kelvara-config.cmake INSTALL_DESTINATION ${kelvara_cmake_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/kelvara-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/kelvara-config.cmake
  ${PROJECT_BINARY_DIR}/kelvara-config-version.cmake DESTINATION ${kelvara_cmake_dir})

file(RELATIVE_PATH kelvara_pc_to_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" kelvara_pc_to_prefix ${kelvara_pc_to_prefix})
configure_file(cmake/kelvara.pc.in ${PROJECT_BINARY_DIR}/kelvara.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kelvara.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The reference and the manual pages, once scripts/docs has made them.
if(EXISTS ${PROJECT_SOURCE_DIR}/build/docs/man)
  install(DIRECTORY build/docs/html DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/libkelvara-dev)
  install(DIRECTORY build/docs/man/ DESTINATION ${CMAKE_INSTALL_MANDIR})
endif()

# --- the tools for development -------------------------------------------------------------------

if(NOT KELVARA_BUILD_EXAMPLES)
  return()
endif()
set(kelvara_tools gnssd watchdogd tap)
install(TARGETS ${kelvara_tools})
install(FILES examples/minimal.c examples/track.nmea docs/lnav/kelvara_log.json
  DESTINATION ${CMAKE_INSTALL_DATADIR}/kelvara)
install(DIRECTORY docs/man/ DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
# A package installs the configuration and the units where the system looks for them. Below another
# prefix the programs use the library of that prefix.
set(kelvara_etc ${CMAKE_INSTALL_SYSCONFDIR}/kelvara)
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(kelvara_etc ${CMAKE_INSTALL_FULL_SYSCONFDIR}/kelvara)
  file(GLOB units packaging/systemd/*.in)
  foreach(unit ${units})
    get_filename_component(name ${unit} NAME_WLE)
    configure_file(${unit} ${PROJECT_BINARY_DIR}/units/${name} @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/units/${name} DESTINATION lib/systemd/system)
  endforeach()
else()
  file(RELATIVE_PATH kelvara_bin_to_lib /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
  set_target_properties(${kelvara_tools} PROPERTIES INSTALL_RPATH "$ORIGIN/${kelvara_bin_to_lib}")
endif()
install(FILES examples/gnssd.conf DESTINATION ${kelvara_etc})
