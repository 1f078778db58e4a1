# Install rules: libraries, public headers, the CMake package and pkg-config.
include(CMakePackageConfigHelpers)

# Two components, one per Debian package: "runtime" holds the SONAME-named
# libraries, "development" the headers, the unversioned .so links and the
# CMake and pkg-config files.
install(TARGETS zosys zoutils EXPORT zoutilsTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/utils DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  COMPONENT development)
install(FILES ${PROJECT_SOURCE_DIR}/syslayer/zosys.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zosys
  COMPONENT development)

set(ZOUTILS_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/zoutils)
install(EXPORT zoutilsTargets NAMESPACE zoutils:: DESTINATION ${ZOUTILS_CMAKE_DIR} COMPONENT development)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/zoutilsConfig.cmake.in
  ${PROJECT_BINARY_DIR}/zoutilsConfig.cmake INSTALL_DESTINATION ${ZOUTILS_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/zoutilsConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/zoutilsConfig.cmake ${PROJECT_BINARY_DIR}/zoutilsConfigVersion.cmake
  DESTINATION ${ZOUTILS_CMAKE_DIR} COMPONENT development)

# The .pc file finds the prefix relative to its own directory, so the tree can be
# installed with --prefix or DESTDIR anywhere.
file(RELATIVE_PATH ZOUTILS_PC_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" ZOUTILS_PC_PREFIX "${ZOUTILS_PC_PREFIX}")
file(RELATIVE_PATH ZOUTILS_PC_LIBDIR ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_LIBDIR})
file(RELATIVE_PATH ZOUTILS_PC_INCLUDEDIR ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_INCLUDEDIR})
configure_file(${PROJECT_SOURCE_DIR}/cmake/zoutils.pc.in ${PROJECT_BINARY_DIR}/zoutils.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zoutils.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
