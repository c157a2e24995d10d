# The server's command line.

set(compiled_in ${PROJECT_SOURCE_DIR}/companions/client/compiled-in)
kolvan_install_program(client kolvan bin ../lib)
kolvan_install_links(client kolvan)
kolvan_install_libraries(client ${compiled_in})
kolvan_install_documents(client ${PROJECT_SOURCE_DIR}/CHANGELOG.md ${PROJECT_SOURCE_DIR}/docs/kolvan.md)
kolvan_install_manuals(client kolvan.1)
kolvan_install_debian(client ${compiled_in})
