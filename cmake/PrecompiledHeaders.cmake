# Headers that nearly every file takes, read once instead of once for every file. This is for builds in
# which nobody works; the preset dev and a build without options leave it off and prove that each file
# includes what it needs.

option(KOLVAN_PRECOMPILED_HEADERS "Read the C++ library's headers once for all files" OFF)

# kolvan_precompile(name LIBRARIES library... HEADERS header...): precompiles headers, with the settings
# of the libraries, for targets that have the same settings.
function(kolvan_precompile name)
    cmake_parse_arguments(PARSE_ARGV 1 precompile "" "" "LIBRARIES;HEADERS")
    if(KOLVAN_PRECOMPILED_HEADERS)
        # A target has to have a source.
        file(CONFIGURE OUTPUT ${name}.cpp CONTENT "")
        add_library(${name} OBJECT ${CMAKE_CURRENT_BINARY_DIR}/${name}.cpp)
        target_link_libraries(${name} PRIVATE ${precompile_LIBRARIES})
        target_precompile_headers(${name} PRIVATE ${precompile_HEADERS})
    endif()
endfunction()

# kolvan_take_precompiled(target name): lets a target take what kolvan_precompile has made as name. A
# compiler that cannot take it there says so, and -Werror makes that an error.
function(kolvan_take_precompiled target name)
    if(KOLVAN_PRECOMPILED_HEADERS)
        target_precompile_headers(${target} REUSE_FROM ${name})
    endif()
endfunction()
