# What is installed: the library with its headers, a CMake package, a pkg-config file, the command.

include(CMakePackageConfigHelpers)
set(_package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/tarns")

install(
  TARGETS tarns
  EXPORT tarns-targets
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
  FILE_SET HEADERS DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
install(EXPORT tarns-targets NAMESPACE tarns:: DESTINATION "${_package_dir}")

write_basic_package_version_file(tarns-config-version.cmake COMPATIBILITY SameMinorVersion)
configure_package_config_file("${PROJECT_SOURCE_DIR}/cmake/tarns-config.cmake.in"
                              tarns-config.cmake INSTALL_DESTINATION "${_package_dir}")
install(FILES "${PROJECT_BINARY_DIR}/tarns-config.cmake"
              "${PROJECT_BINARY_DIR}/tarns-config-version.cmake" DESTINATION "${_package_dir}")

# Relative, so that an installed tree can be moved.
file(RELATIVE_PATH TARNS_PC_PREFIX "/root/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/root")
configure_file("${PROJECT_SOURCE_DIR}/cmake/tarns.pc.in" tarns.pc @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/tarns.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")

if(TARGET tarns_command)
  install(TARGETS tarns_command RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")
endif()
