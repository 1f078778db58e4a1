# Install rules: libraries, public headers, the CMake package and pkg-config.
include(CMakePackageConfigHelpers)

install(TARGETS zosys zoutils EXPORT zoutilsTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/utils DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES ${PROJECT_SOURCE_DIR}/syslayer/zosys.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zosys)

set(ZOUTILS_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/zoutils)
install(EXPORT zoutilsTargets NAMESPACE zoutils:: DESTINATION ${ZOUTILS_CMAKE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/zoutilsConfig.cmake.in
  ${PROJECT_BINARY_DIR}/zoutilsConfig.cmake INSTALL_DESTINATION ${ZOUTILS_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/zoutilsConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/zoutilsConfig.cmake ${PROJECT_BINARY_DIR}/zoutilsConfigVersion.cmake
  DESTINATION ${ZOUTILS_CMAKE_DIR})

configure_file(${PROJECT_SOURCE_DIR}/cmake/zoutils.pc.in ${PROJECT_BINARY_DIR}/zoutils.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/zoutils.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
