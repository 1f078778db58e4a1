# Installs the build into a fresh prefix, then builds and runs a small application
# outside the tree against it: once with find_package(zoutils), once with
# pkg-config. Also compiles every installed public header on its own.
#
# Inputs (-D): BUILD_DIR, APP_DIR, WORK_DIR, CXX, CXX_FLAGS, GENERATOR, PKG_CONFIG.
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
set(prefix ${WORK_DIR}/prefix)
step(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

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

# 1. CMake package.
step(${CMAKE_COMMAND} -S ${APP_DIR} -B ${WORK_DIR}/cmake-app -G ${GENERATOR} -DCMAKE_PREFIX_PATH=${prefix}
     -DCMAKE_CXX_COMPILER=${CXX} "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}" -DCMAKE_BUILD_TYPE=RelWithDebInfo)
step(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-app)
step(${WORK_DIR}/cmake-app/app)
expect_output("the application built with find_package" "${expected_app}")
step(${WORK_DIR}/cmake-app/sysonly)
expect_output("the system-layer application built with find_package" "${expected_sysonly}")

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
step(${CXX} -std=c++17 ${extra} ${cflags} ${APP_DIR}/main.cpp -o ${WORK_DIR}/pc-app ${libs} -Wl,-rpath,${libdir})
step(${WORK_DIR}/pc-app)
expect_output("the application built with pkg-config" "${expected_app}")

# 3. Every installed public header compiles on its own.
file(GLOB headers RELATIVE ${prefix}/include ${prefix}/include/utils/*.h)
list(APPEND headers zosys/zosys.h)
foreach(header ${headers})
  string(MAKE_C_IDENTIFIER ${header} id)
  file(WRITE ${WORK_DIR}/headers/${id}.cpp "#include <${header}>\n#include <${header}>\n")
  step(${CXX} -std=c++17 -Wall -Wextra -Werror -fsyntax-only ${extra} ${cflags} ${WORK_DIR}/headers/${id}.cpp)
endforeach()
list(LENGTH headers count)
message(STATUS "package checks passed: find_package, pkg-config, ${count} headers")
