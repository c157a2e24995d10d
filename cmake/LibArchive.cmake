# libarchive, which the agent does not link but loads when it opens its first archive:
# docs/decisions/0009-libarchive-is-loaded-late.md. The name under which it is loaded is read off the
# library whose headers are compiled with.

find_package(LibArchive REQUIRED)

file(REAL_PATH ${LibArchive_LIBRARY} KOLVAN_LIBARCHIVE_FILE)
execute_process(COMMAND ${CMAKE_OBJDUMP} -p ${KOLVAN_LIBARCHIVE_FILE}
    OUTPUT_VARIABLE headers COMMAND_ERROR_IS_FATAL ANY)
if(NOT headers MATCHES "SONAME +([^ \n]+)")
    message(FATAL_ERROR "${KOLVAN_LIBARCHIVE_FILE} is not a shared library")
endif()
set(KOLVAN_LIBARCHIVE ${CMAKE_MATCH_1})

add_library(kolvan_libarchive INTERFACE)
target_include_directories(kolvan_libarchive SYSTEM INTERFACE ${LibArchive_INCLUDE_DIRS})
target_compile_definitions(kolvan_libarchive INTERFACE KOLVAN_LIBARCHIVE="${KOLVAN_LIBARCHIVE}")
target_link_libraries(kolvan_libarchive INTERFACE ${CMAKE_DL_LIBS})
