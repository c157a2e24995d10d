# The settings that every target shares, and the functions that keep the folders' lists lists.

add_library(kolvan_settings INTERFACE)
target_include_directories(kolvan_settings INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_features(kolvan_settings INTERFACE cxx_std_20)
target_compile_definitions(kolvan_settings INTERFACE
    # Joins of paths depend on it: an absolute right side is appended, not taken alone.
    BOOST_FILESYSTEM_VERSION=3
    BOOST_FILESYSTEM_NO_DEPRECATED)
target_compile_options(kolvan_settings INTERFACE
    -Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wnon-virtual-dtor
    -Woverloaded-virtual -Wold-style-cast -Wcast-qual
    $<$<CXX_COMPILER_ID:GNU>:-Wshadow=local>
    # GCC 12 reports it of the standard library's strings where there is nothing (its bug 105329).
    $<$<AND:$<CXX_COMPILER_ID:GNU>,$<VERSION_LESS:$<CXX_COMPILER_VERSION>,13>>:-Wno-restrict>)
target_link_libraries(kolvan_settings INTERFACE kolvan_sanitizers)
set(CMAKE_CXX_EXTENSIONS OFF)

# The version of RapidJSON's package names no target of its own.
add_library(kolvan_rapidjson INTERFACE)
target_include_directories(kolvan_rapidjson SYSTEM INTERFACE ${RAPIDJSON_INCLUDE_DIRS})

# The abstract classes: what the parts of the agent know of each other.
add_library(kolvan_interfaces INTERFACE)
target_link_libraries(kolvan_interfaces INTERFACE kolvan_settings)

set(KOLVAN_LIBRARY_HEADERS
    <algorithm> <array> <atomic> <cerrno> <chrono> <condition_variable> <csignal> <cstdint> <cstdlib>
    <filesystem> <fstream> <functional> <future> <iostream> <map> <memory> <mutex> <optional> <set>
    <span> <sstream> <stdexcept> <string> <string_view> <system_error> <thread> <utility> <vector>)
kolvan_precompile(kolvan_library_headers
    LIBRARIES kolvan_settings
    HEADERS ${KOLVAN_LIBRARY_HEADERS})

# kolvan_library(name SOURCES file... [PUBLIC library...] [PRIVATE library...])
function(kolvan_library name)
    cmake_parse_arguments(PARSE_ARGV 1 library "" "" "SOURCES;PUBLIC;PRIVATE")
    add_library(${name} STATIC ${library_SOURCES})
    target_link_libraries(${name}
        PUBLIC kolvan_settings ${library_PUBLIC} PRIVATE ${library_PRIVATE})
    kolvan_take_precompiled(${name} kolvan_library_headers)
endfunction()

# kolvan_test(name SOURCES file... LABELS label [LIBRARIES library...] [LOCK resource])
#
# Every case is a test of its own, in a process of its own. Those with the same lock take turns, for
# something of which there is one in the machine. Those with the label "long" are left out
# by the test presets; scripts/soak runs them.
function(kolvan_test name)
    cmake_parse_arguments(PARSE_ARGV 1 test "" "LOCK" "SOURCES;LABELS;LIBRARIES")
    add_executable(${name} ${test_SOURCES})
    target_link_libraries(${name} PRIVATE ${test_LIBRARIES} kolvan_settings GTest::gmock_main)
    kolvan_take_precompiled(${name} kolvan_test_headers)
    set(timeout 300)
    if(test_LABELS STREQUAL "long")
        set(timeout 3600)
    endif()
    set(lock "")
    if(test_LOCK)
        set(lock RESOURCE_LOCK ${test_LOCK})
    endif()
    gtest_discover_tests(${name}
        DISCOVERY_MODE PRE_TEST
        DISCOVERY_TIMEOUT 120
        PROPERTIES
            LABELS "${test_LABELS}"
            TIMEOUT ${timeout}
            ${lock}
            ENVIRONMENT "${KOLVAN_SANITIZER_ENVIRONMENT}")
endfunction()
