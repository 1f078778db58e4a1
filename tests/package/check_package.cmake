# Installs the build into a fresh prefix and moves the whole tree elsewhere (a
# relocated prefix), then builds and runs small applications outside the tree
# against it: once with find_package(zoutils), once with pkg-config as the README
# shows it. Also compiles every installed public header on its own.
#
# The applications link with --as-needed, as distributions' compilers do: the one
# that uses only Utils:: names then records only libzoutils, which has to find
# libzosys beside itself.
#
# Inputs (-D): BUILD_DIR, APP_DIR, WORK_DIR, CXX, CXX_FLAGS, GENERATOR, PKG_CONFIG,
# READELF (optional: checks what the applications record).
# With PREFIX set, installs nothing and checks the tree already installed there.
cmake_minimum_required(VERSION 3.25)

function(step)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    string(JOIN " " cmd ${ARGN})
    message(FATAL_ERROR "failed (${rc}): ${cmd}\n${out}\n${err}")
  endif()
  set(step_output "${out}" PARENT_SCOPE)
endfunction()

function(expect_output what expected)
  if(NOT step_output STREQUAL expected)
    message(FATAL_ERROR "${what} printed:\n${step_output}\nexpected:\n${expected}")
  endif()
endfunction()

file(REMOVE_RECURSE ${WORK_DIR})
if(PREFIX)
  set(prefix ${PREFIX})
else()
  step(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK_DIR}/installed-here)
  set(prefix ${WORK_DIR}/moved/prefix)
  file(MAKE_DIRECTORY ${WORK_DIR}/moved)
  file(RENAME ${WORK_DIR}/installed-here ${prefix})
endif()

# The libraries carry the library version, with the major version as SONAME.
file(GLOB_RECURSE installed RELATIVE ${prefix} ${prefix}/*)
foreach(name libzoutils.so.1.1.1 libzoutils.so.1 libzoutils.so libzosys.so.1.1.1 libzosys.so.1 libzosys.so
        zoutils.pc zoutilsConfig.cmake zoutilsConfigVersion.cmake zoutilsTargets.cmake zosys.h object.h)
  list(FILTER installed EXCLUDE REGEX "^$")
  string(REGEX MATCH "(^|;)[^;]*/${name}(;|$)" hit "${installed}")
  if(NOT hit)
    message(FATAL_ERROR "not installed: ${name}\ninstalled: ${installed}")
  endif()
endforeach()
file(GLOB_RECURSE libs ${prefix}/*/libzoutils.so)
list(GET libs 0 lib)
get_filename_component(libdir ${lib} DIRECTORY)

set(expected_app "count 2\nnote released\ntls 5, coop task ok\n")
set(expected_sysonly "event 1 0\n")
set(expected_utilsonly_log "warning|app|hello, world")
set(expected_utilsonly "string \"hello, world\" (12), warnings logged 1, map: 1=one 2=two\n")
set(as_needed "-Wl,--as-needed")

# The Utils-only application prints a log line (its exact decoration is the log
# hub's business), then its summary line.
function(expect_utilsonly what)
  string(FIND "${step_output}" "${expected_utilsonly_log}" at)
  if(at LESS 0)
    message(FATAL_ERROR "${what} printed no log line with \"${expected_utilsonly_log}\":\n${step_output}")
  endif()
  string(REGEX MATCH "[^\n]*\n$" last "${step_output}")
  if(NOT last STREQUAL expected_utilsonly)
    message(FATAL_ERROR "${what} ended with:\n${last}expected:\n${expected_utilsonly}")
  endif()
endfunction()

# The binary records libzoutils and not libzosys: the case that needs libzoutils'
# own RUNPATH. (Fails if the linker stops dropping libzosys, so the test would no
# longer test it.)
function(expect_needed_only_zoutils binary)
  if(NOT READELF)
    return()
  endif()
  step(${READELF} -d ${binary})
  if(NOT step_output MATCHES "libzoutils\\.so\\.1" OR step_output MATCHES "libzosys\\.so")
    message(FATAL_ERROR "${binary} should record libzoutils.so.1 and not libzosys:\n${step_output}")
  endif()
endfunction()

# 1. CMake package.
step(${CMAKE_COMMAND} -S ${APP_DIR} -B ${WORK_DIR}/cmake-app -G ${GENERATOR} -DCMAKE_PREFIX_PATH=${prefix}
     -DCMAKE_CXX_COMPILER=${CXX} "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}" -DCMAKE_BUILD_TYPE=RelWithDebInfo
     -DCMAKE_EXE_LINKER_FLAGS=${as_needed})
step(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-app)
step(${WORK_DIR}/cmake-app/app)
expect_output("the application built with find_package" "${expected_app}")
step(${WORK_DIR}/cmake-app/sysonly)
expect_output("the system-layer application built with find_package" "${expected_sysonly}")
step(${WORK_DIR}/cmake-app/utilsonly)
expect_utilsonly("the Utils-only application built with find_package")
expect_needed_only_zoutils(${WORK_DIR}/cmake-app/utilsonly)

# 2. pkg-config.
set(ENV{PKG_CONFIG_PATH} ${libdir}/pkgconfig)
step(${PKG_CONFIG} --modversion zoutils)
expect_output("pkg-config --modversion" "1.1.1.1507\n")
step(${PKG_CONFIG} --cflags zoutils)
string(STRIP "${step_output}" cflags)
separate_arguments(cflags UNIX_COMMAND "${cflags}")
step(${PKG_CONFIG} --libs zoutils)
string(STRIP "${step_output}" libs)
separate_arguments(libs UNIX_COMMAND "${libs}")
separate_arguments(extra UNIX_COMMAND "${CXX_FLAGS}")
step(${CXX} -std=c++17 ${extra} ${as_needed} ${APP_DIR}/main.cpp ${cflags} ${libs} -Wl,-rpath,${libdir}
     -o ${WORK_DIR}/pc-app)
step(${WORK_DIR}/pc-app)
expect_output("the application built with pkg-config" "${expected_app}")
# The README's line, word for word: c++ -std=c++17 app.cpp $(pkg-config --cflags --libs zoutils) -Wl,-rpath,LIBDIR
step(${PKG_CONFIG} --cflags --libs zoutils)
string(STRIP "${step_output}" cflags_libs)
separate_arguments(cflags_libs UNIX_COMMAND "${cflags_libs}")
step(${CXX} -std=c++17 ${extra} ${as_needed} ${APP_DIR}/utilsonly.cpp ${cflags_libs} -Wl,-rpath,${libdir}
     -o ${WORK_DIR}/pc-utilsonly)
step(${WORK_DIR}/pc-utilsonly)
expect_utilsonly("the Utils-only application built with pkg-config")
expect_needed_only_zoutils(${WORK_DIR}/pc-utilsonly)

# 3. Every installed public header compiles on its own.
file(GLOB headers RELATIVE ${prefix}/include ${prefix}/include/utils/*.h)
list(APPEND headers zosys/zosys.h)
foreach(header ${headers})
  string(MAKE_C_IDENTIFIER ${header} id)
  file(WRITE ${WORK_DIR}/headers/${id}.cpp "#include <${header}>\n#include <${header}>\n")
  step(${CXX} -std=c++17 -Wall -Wextra -Werror -fsyntax-only ${extra} ${cflags} ${WORK_DIR}/headers/${id}.cpp)
endforeach()
list(LENGTH headers count)
message(STATUS "package checks passed in ${prefix}: find_package, pkg-config, ${count} headers")
