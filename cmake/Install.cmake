# What is installed: the component development is for those who build with the library, program for all others.
include(CMakePackageConfigHelpers)
set(package_directory ${CMAKE_INSTALL_LIBDIR}/cmake/kelvane)

install(TARGETS kelvane EXPORT kelvane COMPONENT development)
install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kelvane COMPONENT development)
install(EXPORT kelvane NAMESPACE kelvane:: FILE kelvaneTargets.cmake DESTINATION ${package_directory}
  COMPONENT development)

configure_package_config_file(cmake/kelvaneConfig.cmake.in ${PROJECT_BINARY_DIR}/kelvaneConfig.cmake
  INSTALL_DESTINATION ${package_directory})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/kelvaneConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/kelvaneConfig.cmake ${PROJECT_BINARY_DIR}/kelvaneConfigVersion.cmake
  DESTINATION ${package_directory} COMPONENT development)

# The prefix is found from the file's own place, wherever that was moved.
file(RELATIVE_PATH prefix_from_pkgconfig ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" prefix_from_pkgconfig "${prefix_from_pkgconfig}")
if(NOT BUILD_SHARED_LIBS)
  set(pkgconfig_requires "Requires: libhwy >= 1.0.3\n") # not private: without it nothing links
endif()
configure_file(cmake/kelvane.pc.in kelvane.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kelvane.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

if(PROJECT_IS_TOP_LEVEL AND KELVANE_BUILD_TOOLS AND NOT BUILD_SHARED_LIBS)
  include(cmake/Package.cmake)
endif()
