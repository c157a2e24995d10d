# What of a package goes into which kind. A tarball is the product's directory alone, and is moved to where
# it is wanted; the others have places in the system.
set(package ${CPACK_KOLVAN_PACKAGE})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${CPACK_KOLVAN_SUMMARY_${package}}")
set(CPACK_PACKAGE_FILE_NAME kolvan-${package}-${CPACK_PACKAGE_VERSION})
set(CPACK_COMPONENTS_ALL ${package})
if(CPACK_GENERATOR STREQUAL "TGZ")
    # Such a file would be installed on the machine that packs, and missing in the tarball.
    set(CPACK_ERROR_ON_ABSOLUTE_INSTALL_DESTINATION ON)
    set(CPACK_COMPONENT_INCLUDE_TOPLEVEL_DIRECTORY ON)
else()
    set(CPACK_SET_DESTDIR ON)
    # What brings its libraries has a directory of its own, and so has the agent, which writes into it.
    set(CPACK_INSTALL_PREFIX /opt/kolvan-${package})
    list(APPEND CPACK_COMPONENTS_ALL ${package}-system)
    if(CPACK_GENERATOR STREQUAL "DEB")
        list(APPEND CPACK_COMPONENTS_ALL ${package}-debian)
        if(NOT package STREQUAL "agent")
            set(CPACK_INSTALL_PREFIX /usr)
        endif()
        # dpkg-shlibdeps finds what programs are linked with, and the agent loads libarchive by itself. Any
        # version will do: its functions are older than the C library that the programs need.
        execute_process(COMMAND dpkg-query --search ${CPACK_KOLVAN_LIBARCHIVE_FILE}
            OUTPUT_VARIABLE owner COMMAND_ERROR_IS_FATAL ANY)
        string(REGEX REPLACE "[:,].*" "" owner ${owner})
        string(PREPEND CPACK_DEBIAN_AGENT_PACKAGE_DEPENDS "${owner}, ")
    endif()
endif()
