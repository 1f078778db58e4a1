# Debian packages (CPack DEB, one package per install component):
#   libzoutils1     runtime:     libzoutils.so.1 and libzosys.so.1 (SONAME-named)
#   libzoutils-dev  development: headers, unversioned .so links, CMake package, .pc
# scripts/package.sh configures a Release build with prefix /usr and runs cpack.
set(ZOUTILS_MAINTAINER "The zoutils developers <zoutils@lists.invalid>")

# Each package carries the Debian copyright file (naming the LICENSE) and a
# changelog. They are installed only when a package is made (EXCLUDE_FROM_ALL), so
# a plain `cmake --install` does not scatter them.
string(TIMESTAMP ZOUTILS_CHANGELOG_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(${PROJECT_SOURCE_DIR}/cmake/debian/copyright.in ${PROJECT_BINARY_DIR}/debian/copyright @ONLY)
configure_file(${PROJECT_SOURCE_DIR}/cmake/debian/changelog.in ${PROJECT_BINARY_DIR}/debian/changelog @ONLY)
find_program(ZOUTILS_GZIP gzip)
if(ZOUTILS_GZIP)
  execute_process(COMMAND ${ZOUTILS_GZIP} -9nc ${PROJECT_BINARY_DIR}/debian/changelog
    OUTPUT_FILE ${PROJECT_BINARY_DIR}/debian/changelog.gz)
  foreach(component runtime development)
    if(component STREQUAL runtime)
      set(package libzoutils1)
    else()
      set(package libzoutils-dev)
    endif()
    install(FILES ${PROJECT_BINARY_DIR}/debian/copyright ${PROJECT_BINARY_DIR}/debian/changelog.gz
      DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package} COMPONENT ${component} EXCLUDE_FROM_ALL)
  endforeach()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zoutils)
set(CPACK_PACKAGE_VENDOR "The zoutils developers")
set(CPACK_PACKAGE_CONTACT "${ZOUTILS_MAINTAINER}")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime development)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "")
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libzoutils1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
# A shlibs file: a package built against 1.x needs this version or later.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# The first line of a description is the synopsis; CPack indents the rest and
# turns empty lines into paragraph breaks.
set(ZOUTILS_DEB_ABOUT "zoutils is a C++17 utility library for 64-bit Linux: reference-counted
objects, a copy-on-write string, containers, locks and events, a logging
hub, time and identifiers, and an arena that replaces the global operator
new and delete of the program that links it.")
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "general-purpose C++ utility library
${ZOUTILS_DEB_ABOUT}

This package holds the shared libraries: libzoutils.so.1 and the system
layer under it, libzosys.so.1.")
# The libraries live in the multiarch directory, which ld.so.cache covers: an
# ldconfig trigger, and maintainer scripts that do nothing else (CPack would
# otherwise write ones that call ldconfig directly).
configure_file(${PROJECT_SOURCE_DIR}/cmake/debian/triggers ${PROJECT_BINARY_DIR}/debian/triggers COPYONLY)
configure_file(${PROJECT_SOURCE_DIR}/cmake/debian/maintscript ${PROJECT_BINARY_DIR}/debian/postinst COPYONLY)
configure_file(${PROJECT_SOURCE_DIR}/cmake/debian/maintscript ${PROJECT_BINARY_DIR}/debian/postrm COPYONLY)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
  ${PROJECT_BINARY_DIR}/debian/triggers ${PROJECT_BINARY_DIR}/debian/postinst ${PROJECT_BINARY_DIR}/debian/postrm)

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libzoutils-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libzoutils1 (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "general-purpose C++ utility library - development files
${ZOUTILS_DEB_ABOUT}

This package holds the headers, the CMake package (find_package(zoutils))
and the pkg-config file needed to build programs against the library.")

include(CPack)
