# What of the agent goes into which kind of package. A tarball is the agent's directory alone, and is
# moved to where it is wanted; the others have places in the system.
if(CPACK_GENERATOR STREQUAL "TGZ")
    set(CPACK_COMPONENTS_ALL agent)
    # Such a file would be installed on the machine that packs, and missing in the tarball.
    set(CPACK_ERROR_ON_ABSOLUTE_INSTALL_DESTINATION ON)
    set(CPACK_COMPONENT_INCLUDE_TOPLEVEL_DIRECTORY ON)
else()
    set(CPACK_SET_DESTDIR ON)
    set(CPACK_COMPONENTS_ALL agent agent-service)
    if(CPACK_GENERATOR STREQUAL "DEB")
        list(APPEND CPACK_COMPONENTS_ALL agent-debian)
        # dpkg-shlibdeps finds what programs are linked with, and the agent loads libarchive by itself. Any
        # version will do: its functions are older than the C library that the programs need.
        execute_process(COMMAND dpkg-query --search ${CPACK_KOLVAN_LIBARCHIVE_FILE}
            OUTPUT_VARIABLE owner COMMAND_ERROR_IS_FATAL ANY)
        string(REGEX REPLACE "[:,].*" "" owner ${owner})
        string(PREPEND CPACK_DEBIAN_AGENT_PACKAGE_DEPENDS "${owner}, ")
    endif()
endif()
