# Install both libraries, the public headers, a CMake package and a pkg-config file.
include(CMakePackageConfigHelpers)

set(KORCOMMON_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/korcommon")

set(installed_targets korcommon)
if(NOT KORCOMMON_EXTERNAL_DOVALIB)
  list(APPEND installed_targets dovalib)
endif()

install(TARGETS ${installed_targets}
  EXPORT korcommonTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

install(DIRECTORY "${PROJECT_SOURCE_DIR}/include/dova"
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h")
# The services' API, named one by one: the other headers beside them are the library's own
# (formatting, record pool, file names, screen line, start-up batch) and stay out of reach.
set(korcommon_public_headers Diagnostics.h ImptData.h log.h utils.h)
list(TRANSFORM korcommon_public_headers PREPEND "${PROJECT_SOURCE_DIR}/src/korcommon/")
install(FILES ${korcommon_public_headers} DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/korcommon")

install(EXPORT korcommonTargets
  FILE korcommonTargets.cmake
  NAMESPACE korcommon::
  DESTINATION ${KORCOMMON_CMAKE_DIR})

configure_package_config_file(
  "${PROJECT_SOURCE_DIR}/cmake/korcommonConfig.cmake.in"
  "${PROJECT_BINARY_DIR}/korcommonConfig.cmake"
  INSTALL_DESTINATION ${KORCOMMON_CMAKE_DIR})
write_basic_package_version_file(
  "${PROJECT_BINARY_DIR}/korcommonConfigVersion.cmake"
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMajorVersion)
install(FILES
  "${PROJECT_BINARY_DIR}/korcommonConfig.cmake"
  "${PROJECT_BINARY_DIR}/korcommonConfigVersion.cmake"
  DESTINATION ${KORCOMMON_CMAKE_DIR})

# The .pc file finds the prefix from its own place, so an install with
# `cmake --install --prefix` elsewhere than the configured prefix still works.
file(RELATIVE_PATH KORCOMMON_PC_TO_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
string(REGEX REPLACE "/$" "" KORCOMMON_PC_TO_PREFIX "${KORCOMMON_PC_TO_PREFIX}")
configure_file("${PROJECT_SOURCE_DIR}/cmake/korcommon.pc.in"
  "${PROJECT_BINARY_DIR}/korcommon.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/korcommon.pc"
  DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
