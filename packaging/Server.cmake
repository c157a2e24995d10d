# The server, with a service under a user of its own and a socket that outlives it.

set(compiled_in ${PROJECT_SOURCE_DIR}/companions/server/compiled-in)
kolvan_install_program(server kolvan-server bin ../lib)
kolvan_install_links(server kolvan-server)
kolvan_install_libraries(server ${compiled_in})
kolvan_install_units(server kolvan-server.service kolvan-server.socket)
install(FILES kolvan-server.conf DESTINATION /etc/kolvan-server COMPONENT server-system EXCLUDE_FROM_ALL)
kolvan_install_documents(server ${PROJECT_SOURCE_DIR}/CHANGELOG.md ${PROJECT_SOURCE_DIR}/docs/server.md
    ${PROJECT_SOURCE_DIR}/docs/server-security.md)
kolvan_install_manuals(server kolvan-server.8 kolvan-server.conf.5)
kolvan_install_debian(server ${compiled_in})
