# A fresh-process probe over the system layer alone; test_zosys runs it.
zoutils_add_probe(zosys_probe ${test_name} zoutils::zosys Threads::Threads)

# The layer imports no operator new or delete (read from its dynamic symbols).
find_program(ZOUTILS_NM nm)
if(ZOUTILS_NM)
  add_test(NAME SystemLayer.ImportsNoOperatorNewOrDelete
    COMMAND ${CMAKE_COMMAND} -DNM=${ZOUTILS_NM} -DLIB=$<TARGET_FILE:zosys>
            -P ${CMAKE_CURRENT_SOURCE_DIR}/support/check_imports.cmake)
endif()
