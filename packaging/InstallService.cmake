# Units name the agent's directory, which is known only now: cmake --install may be given a prefix.
set(KOLVAN_HOME "${CMAKE_INSTALL_PREFIX}")
cmake_path(ABSOLUTE_PATH KOLVAN_SYSTEM_DIRECTORY BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}" NORMALIZE
    OUTPUT_VARIABLE system)
set(system "$ENV{DESTDIR}${system}")

set(units kolvan-agent.service)
if(KOLVAN_WANTS_CHECK)
    list(APPEND units kolvan-agent-check.service kolvan-agent-check.timer)
endif()
foreach(unit IN LISTS units)
    configure_file("${KOLVAN_PACKAGING}/systemd/${unit}.in" "${system}/lib/systemd/system/${unit}"
        @ONLY NO_SOURCE_PERMISSIONS)
endforeach()
foreach(kind IN ITEMS sysusers tmpfiles)
    configure_file("${KOLVAN_PACKAGING}/systemd/kolvan-agent.${kind}.in"
        "${system}/lib/${kind}.d/kolvan-agent.conf" @ONLY NO_SOURCE_PERMISSIONS)
endforeach()
