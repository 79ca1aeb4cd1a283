# Libraries, headers, the CMake package, the pkg-config file, and the tool. Each
# component becomes a package: runtime, development, tools.

include(CMakePackageConfigHelpers)

set(package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/vrxutil")

install(TARGETS vrxutil vrxcomn zulral EXPORT vrxutilTargets
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
  COMPONENT runtime NAMELINK_COMPONENT development)
install(DIRECTORY
  include/vrxutil platform/vrxcomn/include/vrxcomn platform/zulral/include/zulral
  DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}" COMPONENT development
  FILES_MATCHING PATTERN "*.h")

install(EXPORT vrxutilTargets NAMESPACE vrxutil:: DESTINATION "${package_dir}"
  COMPONENT development)
configure_package_config_file(cmake/vrxutilConfig.cmake.in vrxutilConfig.cmake
  INSTALL_DESTINATION "${package_dir}")
write_basic_package_version_file(vrxutilConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES
  "${CMAKE_CURRENT_BINARY_DIR}/vrxutilConfig.cmake"
  "${CMAKE_CURRENT_BINARY_DIR}/vrxutilConfigVersion.cmake"
  DESTINATION "${package_dir}" COMPONENT development)

# Relative, so that the installed tree can be moved.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}" OR IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  message(FATAL_ERROR
    "CMAKE_INSTALL_LIBDIR and CMAKE_INSTALL_INCLUDEDIR must be relative to the prefix")
endif()
file(RELATIVE_PATH pc_to_prefix "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
string(REGEX REPLACE "/$" "" pc_to_prefix "${pc_to_prefix}")
configure_file(cmake/vrxutil.pc.in vrxutil.pc @ONLY)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/vrxutil.pc"
  DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT development)
