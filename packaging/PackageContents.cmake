# Functions that say what a package has. Each package has three components: the one of its name is in every
# kind of package, NAME-system has what lies in places of the system, NAME-debian what Debian asks for.

# "cmake --install build" installs the agent. The others are installed when their components are named.
set(unless_named_agent "")
foreach(package IN ITEMS server client profiler)
    set(unless_named_${package} EXCLUDE_FROM_ALL)
endforeach()

# With the libraries of Debian 12. packaging/check-oldest-libc holds it true.
set(KOLVAN_OLDEST_LIBC 2.36)

# kolvan_compressed(file variable): compresses a document, without its name and time, and returns where.
function(kolvan_compressed file variable)
    get_filename_component(name ${file} NAME)
    set(compressed ${CMAKE_CURRENT_BINARY_DIR}/${name}.gz)
    execute_process(COMMAND gzip -9nc ${file} OUTPUT_FILE ${compressed} COMMAND_ERROR_IS_FATAL ANY)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${file})
    set(${variable} ${compressed} PARENT_SCOPE)
endfunction()

# kolvan_install_program(package program directory libraries): below the prefix. The libraries that it
# brings along are where the last argument leads from the directory.
function(kolvan_install_program package program directory libraries)
    set(dependencies "")
    if(KOLVAN_BUNDLED_LIBRARIES)
        # The older tag, because the newer one does not count for libraries that libraries need.
        set_target_properties(${program} PROPERTIES INSTALL_RPATH "$ORIGIN/${libraries}")
        target_link_options(${program} PRIVATE -Wl,--disable-new-dtags)
        set(dependencies RUNTIME_DEPENDENCY_SET kolvan_libraries_${package})
    endif()
    install(TARGETS ${program} ${dependencies}
        RUNTIME DESTINATION ${directory} COMPONENT ${package} ${unless_named_${package}})
endfunction()

# kolvan_install_libraries(package list): what its programs need, where they bring it
# along, with the licences; the list names what is compiled in.
function(kolvan_install_libraries package list)
    if(NOT KOLVAN_BUNDLED_LIBRARIES)
        return()
    endif()
    # The parts of the C library have to be those of the system's loader.
    install(RUNTIME_DEPENDENCY_SET kolvan_libraries_${package}
        PRE_EXCLUDE_REGEXES "^ld-linux" "^lib(c|dl|m|pthread|resolv|rt|util)\\.so\\."
        LIBRARY DESTINATION lib COMPONENT ${package} ${unless_named_${package}})
    install(CODE "
        execute_process(COMMAND [[${CMAKE_CURRENT_SOURCE_DIR}/copy-licences]]
            \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/lib\" [[${list}]] COMMAND_ERROR_IS_FATAL ANY)
        execute_process(COMMAND [[${CMAKE_CURRENT_SOURCE_DIR}/check-oldest-libc]] ${KOLVAN_OLDEST_LIBC}
            \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}\" COMMAND_ERROR_IS_FATAL ANY)"
        COMPONENT ${package} ${unless_named_${package}})
endfunction()

# kolvan_install_links(package program...): names on the path, where the prefix is not the system's.
function(kolvan_install_links package)
    if(NOT KOLVAN_SYSTEM_PREFIX)
        return()
    endif()
    install(CODE "
        if(NOT CMAKE_INSTALL_PREFIX STREQUAL KOLVAN_SYSTEM_PREFIX)
            set(link \"\$ENV{DESTDIR}\${KOLVAN_SYSTEM_PREFIX}/bin\")
            file(MAKE_DIRECTORY \"\${link}\")
            foreach(program IN ITEMS ${ARGN})
                file(CREATE_LINK \"\${CMAKE_INSTALL_PREFIX}/bin/\${program}\" \"\${link}/\${program}\" SYMBOLIC)
            endforeach()
        endif()"
        COMPONENT ${package}-system ${unless_named_${package}})
endfunction()

# kolvan_install_units(package unit...): of systemd, and the user and the directories that they take.
function(kolvan_install_units package)
    install(CODE "
        set(KOLVAN_SERVICE kolvan-${package})
        set(KOLVAN_UNITS ${ARGN})"
        COMPONENT ${package}-system ${unless_named_${package}})
    install(SCRIPT InstallService.cmake COMPONENT ${package}-system ${unless_named_${package}})
endfunction()

# kolvan_install_documents(package file...): beside the copyright.
function(kolvan_install_documents package)
    install(FILES debian/copyright ${ARGN} DESTINATION ${system_directory}share/doc/kolvan-${package}
        COMPONENT ${package} ${unless_named_${package}})
endfunction()

# kolvan_install_manuals(package page...): pages of docs/man.
function(kolvan_install_manuals package)
    foreach(page IN LISTS ARGN)
        string(REGEX MATCH "[0-9]$" section ${page})
        kolvan_compressed(${PROJECT_SOURCE_DIR}/docs/man/${page} compressed)
        install(FILES ${compressed} DESTINATION ${system_directory}share/man/man${section}
            COMPONENT ${package} ${unless_named_${package}})
    endforeach()
endfunction()

# kolvan_install_debian(package list): what Debian's policy asks for; the list names what is compiled in.
function(kolvan_install_debian package list)
    set(KOLVAN_PACKAGE kolvan-${package})
    set(changelog ${CMAKE_CURRENT_BINARY_DIR}/${package}/changelog)
    configure_file(debian/changelog.in ${changelog} @ONLY)
    execute_process(COMMAND gzip -9nf ${changelog} COMMAND_ERROR_IS_FATAL ANY)
    set(documents ${system_directory}share/doc/${KOLVAN_PACKAGE})
    install(FILES ${changelog}.gz DESTINATION ${documents} COMPONENT ${package}-debian EXCLUDE_FROM_ALL)
    install(FILES debian/${package}/lintian-overrides DESTINATION ${system_directory}share/lintian/overrides
        RENAME ${KOLVAN_PACKAGE} COMPONENT ${package}-debian EXCLUDE_FROM_ALL)
    install(CODE "
        execute_process(COMMAND [[${CMAKE_CURRENT_SOURCE_DIR}/copy-licences]]
            \"\$ENV{DESTDIR}${documents}\" [[${list}]] COMMAND_ERROR_IS_FATAL ANY)"
        COMPONENT ${package}-debian EXCLUDE_FROM_ALL)
endfunction()
