# Fails when the system layer imports any operator new or delete: it runs while
# the library's allocator (which replaces them) is being built or extended.
# Inputs (-D): NM, LIB.
execute_process(COMMAND ${NM} -D -u ${LIB} RESULT_VARIABLE rc OUTPUT_VARIABLE imports)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "${NM} failed on ${LIB}")
endif()
string(REGEX MATCHALL "_Zn[wa][^\n]*|_Zd[la][^\n]*" bad "${imports}")
if(bad)
  message(FATAL_ERROR "libzosys imports operator new/delete: ${bad}")
endif()
string(REGEX MATCH "ZoIF_|pthread_mutex_lock|mmap" any "${imports}")
if(NOT any)
  message(FATAL_ERROR "no imports read from ${LIB}:\n${imports}")
endif()
