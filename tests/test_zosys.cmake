# A fresh-process probe over the system layer alone; test_zosys runs it.
add_executable(zosys_probe ${CMAKE_CURRENT_SOURCE_DIR}/zosys_probe/zosys_probe.cpp)
target_link_libraries(zosys_probe PRIVATE zoutils::zosys Threads::Threads zoutils_warnings)
add_dependencies(${test_name} zosys_probe)
target_compile_definitions(${test_name} PRIVATE ZOSYS_PROBE="$<TARGET_FILE:zosys_probe>")

# The layer imports no operator new or delete (read from its dynamic symbols).
find_program(ZOUTILS_NM nm)
if(ZOUTILS_NM)
  add_test(NAME SystemLayer.ImportsNoOperatorNewOrDelete
    COMMAND ${CMAKE_COMMAND} -DNM=${ZOUTILS_NM} -DLIB=$<TARGET_FILE:zosys>
            -P ${CMAKE_CURRENT_SOURCE_DIR}/zosys_probe/check_imports.cmake)
endif()
