# Instrumentation behind the presets asan, tsan and coverage: KOLVAN_SANITIZE is the value of
# -fsanitize, KOLVAN_COVERAGE counts lines and branches.

set(KOLVAN_SANITIZE "" CACHE STRING "Sanitizers to build with, as -fsanitize takes them")
option(KOLVAN_COVERAGE "Build for coverage measurement" OFF)

add_library(kolvan_sanitizers INTERFACE)
if(KOLVAN_SANITIZE)
    target_compile_options(kolvan_sanitizers INTERFACE
        -fsanitize=${KOLVAN_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    target_link_options(kolvan_sanitizers INTERFACE -fsanitize=${KOLVAN_SANITIZE})
endif()
if(KOLVAN_SANITIZE MATCHES "undefined")
    # This check opens a pipe to look at memory, and reports falsely where a test has left no
    # descriptor to open it with.
    target_compile_options(kolvan_sanitizers INTERFACE -fno-sanitize=vptr)
endif()
if(KOLVAN_COVERAGE)
    # Several threads count at once.
    target_compile_options(kolvan_sanitizers INTERFACE --coverage -fprofile-update=atomic)
    target_link_options(kolvan_sanitizers INTERFACE --coverage)
endif()

# One variable and no list: the discovery of the tests would take a list apart. The other sanitizers
# do by default what is wanted.
set(KOLVAN_SANITIZER_ENVIRONMENT
    "TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:suppressions=${PROJECT_SOURCE_DIR}/tests/suppressions/tsan.txt")
