# The agent with its checker, below /opt: it reads its configuration where it lies, and writes beside it.

set(compiled_in ${CMAKE_CURRENT_SOURCE_DIR}/compiled-in)
set(programs kolvan-agent)
set(units kolvan-agent.service)
kolvan_install_program(agent kolvan-agent . lib)
install(PROGRAMS kolvan-agent DESTINATION bin COMPONENT agent)
install(PROGRAMS stop-agent DESTINATION libexec COMPONENT agent-system)
set(wants_check "")
if(TARGET kolvan-agent-check)
    list(APPEND programs kolvan-agent-check)
    list(APPEND units kolvan-agent-check.service kolvan-agent-check.timer)
    kolvan_install_program(agent kolvan-agent-check bin ../lib)
    install(PROGRAMS restart-when-alone DESTINATION libexec COMPONENT agent-system)
    set(wants_check "Wants=kolvan-agent-check.timer")
endif()
kolvan_install_links(agent ${programs})
if(KOLVAN_BUNDLED_LIBRARIES)
    # No program is linked with libarchive, so it is named here, and linked to under the name by which
    # the agent loads it. What it needs itself is found with the rest.
    add_library(kolvan_libarchive_file SHARED IMPORTED)
    set_property(TARGET kolvan_libarchive_file PROPERTY IMPORTED_LOCATION ${KOLVAN_LIBARCHIVE_FILE})
    install(IMPORTED_RUNTIME_ARTIFACTS kolvan_libarchive_file RUNTIME_DEPENDENCY_SET kolvan_libraries_agent
        LIBRARY DESTINATION lib COMPONENT agent)
    get_filename_component(file_name ${KOLVAN_LIBARCHIVE_FILE} NAME)
    install(CODE "
        file(CREATE_LINK ${file_name}
            \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/lib/${KOLVAN_LIBARCHIVE}\" SYMBOLIC)"
        COMPONENT agent)
endif()
kolvan_install_libraries(agent ${compiled_in})

install(SCRIPT InstallConfiguration.cmake COMPONENT agent)
install(CODE "set(KOLVAN_WANTS_CHECK [[${wants_check}]])" COMPONENT agent-system)
kolvan_install_units(agent ${units})

kolvan_install_documents(agent ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/CHANGELOG.md)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs/ DESTINATION ${system_directory}share/doc/kolvan-agent/docs
    COMPONENT agent FILES_MATCHING PATTERN "*.md" PATTERN man EXCLUDE)
kolvan_install_manuals(agent kolvan-agent.8 kolvan-agent.config.json.5 kolvan-agent-check.1)
kolvan_install_debian(agent ${compiled_in})
