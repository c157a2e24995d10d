# The profiler for whoever runs it alone, and the two archives with it that agents install.

set(compiled_in ${PROJECT_SOURCE_DIR}/companions/profiler/compiled-in)
install(TARGETS kolvan-trcap RUNTIME DESTINATION bin COMPONENT profiler EXCLUDE_FROM_ALL)
# In the archive it finds its libraries beside itself. In the system's directory it takes the system's.
install(CODE "
    set(installed \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/bin/kolvan-trcap\")
    execute_process(COMMAND [[${PROJECT_SOURCE_DIR}/scripts/make-collector-package]]
        \"\${installed}\" \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/share/kolvan-profiler\"
        COMMAND_ERROR_IS_FATAL ANY)
    file(RPATH_REMOVE FILE \"\${installed}\")"
    COMPONENT profiler EXCLUDE_FROM_ALL)
kolvan_install_documents(profiler ${PROJECT_SOURCE_DIR}/CHANGELOG.md ${PROJECT_SOURCE_DIR}/docs/profiler.md)
kolvan_install_manuals(profiler kolvan-trcap.1)
kolvan_install_debian(profiler ${compiled_in})
