# Installation: the library with its SONAME links, the headers, orvane-lock
# with its man page, a CMake package (orvane::orvane) and orvane.pc.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(ORVANE_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/orvane)

install(TARGETS orvane EXPORT orvaneTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/orvane
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev FILES_MATCHING PATTERN "*.h")

if(TARGET orvane-lock)
  install(TARGETS orvane-lock RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
  install(FILES ${PROJECT_SOURCE_DIR}/tools/orvane-lock.1
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT runtime)
endif()

install(EXPORT orvaneTargets NAMESPACE orvane:: DESTINATION ${ORVANE_CMAKE_DIR} COMPONENT dev)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/orvaneConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/orvaneConfig.cmake
  INSTALL_DESTINATION ${ORVANE_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/orvaneConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/orvaneConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/orvaneConfigVersion.cmake
  DESTINATION ${ORVANE_CMAKE_DIR} COMPONENT dev)

# pkg-config: libdir/includedir relative to the prefix the file lands in,
# so an install moved with `cmake --install --prefix` still works.
file(RELATIVE_PATH ORVANE_PC_TO_PREFIX /p/${CMAKE_INSTALL_LIBDIR}/pkgconfig /p)
string(REGEX REPLACE "/$" "" ORVANE_PC_TO_PREFIX "${ORVANE_PC_TO_PREFIX}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/orvane.pc.in ${CMAKE_CURRENT_BINARY_DIR}/orvane.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/orvane.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
