# The packages, from what is installed. One run of CPack makes one kind of one package, which its option
# -D CPACK_KOLVAN_PACKAGE=NAME names: agent, server, client or profiler. PackageKinds.cmake, which CPack
# reads then, chooses.

set(CPACK_PACKAGE_NAME kolvan)
set(CPACK_PACKAGE_VENDOR "Kolvan")
set(CPACK_PACKAGE_CONTACT "Kolvan developers <kolvan@localhost>")
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS ${CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS})
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_SOURCE_DIR}/PackageKinds.cmake)
# Files have the commit's time, so that equal contents give equal packages.
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_SOURCE_DIR}/SetTimes.cmake)
set(CPACK_THREADS 1)

set(CPACK_ARCHIVE_COMPONENT_INSTALL ON)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_RPM_COMPONENT_INSTALL ON)
set(CPACK_RPM_FILE_NAME RPM-DEFAULT)
set(CPACK_RPM_PACKAGE_LICENSE "LicenseRef-not-stated")
set(CPACK_RPM_PACKAGE_GROUP "Development/Tools")
# Its libraries are its own: they serve nobody else, and nobody else's will do.
set(CPACK_RPM_PACKAGE_AUTOREQPROV no)
set(CPACK_RPM_PACKAGE_RELOCATABLE OFF)
set(CPACK_RPM_EXCLUDE_FROM_AUTO_FILELIST_ADDITION
    /opt /etc /usr/bin /usr/lib /usr/lib/systemd /usr/lib/systemd/system /usr/lib/sysusers.d
    /usr/lib/tmpfiles.d /usr/share /usr/share/doc /usr/share/man /usr/share/man/man1
    /usr/share/man/man5 /usr/share/man/man8)
set(CPACK_RPM_SPEC_MORE_DEFINE
"%define _buildhost localhost
%define use_source_date_epoch_as_buildtime 1
%define clamp_mtime_to_source_date_epoch 1
%define source_date_epoch_from_changelog 0
%define _build_id_links none
%define __os_install_post %{nil}
%define _binary_payload w9.zstdio")

# Maintainer scripts make users and directories by what systemd brings for that.
set(service_needs "systemd, init-system-helpers (>= 1.52)")
set(rpm_needs "libc.so.6(GLIBC_${KOLVAN_OLDEST_LIBC})(64bit)")
set(rpm_service_needs "systemd, ${rpm_needs}, /usr/sbin/useradd")

# kolvan_describe(package summary description): for every kind.
macro(kolvan_describe package summary description)
    string(TOUPPER ${package} name)
    set(CPACK_KOLVAN_SUMMARY_${package} "${summary}")
    set(CPACK_COMPONENT_${name}_DESCRIPTION "${description}")
    set(CPACK_ARCHIVE_${name}_FILE_NAME kolvan-${package}-${PROJECT_VERSION}-linux-x86-64)
    set(CPACK_DEBIAN_${name}_PACKAGE_NAME kolvan-${package})
    set(CPACK_DEBIAN_${name}_DESCRIPTION "${description}")
    set(CPACK_RPM_${name}_PACKAGE_NAME kolvan-${package})
    set(CPACK_RPM_${name}_PACKAGE_REQUIRES "${rpm_needs}")
    string(REPLACE "\n.\n" "\n\n" CPACK_RPM_${name}_PACKAGE_DESCRIPTION "${description}")
endmacro()
# kolvan_maintain(package): what its packages do when they are installed and removed.
macro(kolvan_maintain package)
    string(TOUPPER ${package} name)
    list(TRANSFORM maintainer_scripts PREPEND ${CMAKE_CURRENT_SOURCE_DIR}/debian/${package}/
        OUTPUT_VARIABLE CPACK_DEBIAN_${name}_PACKAGE_CONTROL_EXTRA)
    set(CPACK_DEBIAN_${name}_PACKAGE_DEPENDS "${service_needs}")
    set(CPACK_RPM_${name}_PACKAGE_REQUIRES "${rpm_service_needs}")
    set(CPACK_RPM_${name}_POST_INSTALL_SCRIPT_FILE ${CMAKE_CURRENT_SOURCE_DIR}/rpm/${package}/post)
    set(CPACK_RPM_${name}_PRE_UNINSTALL_SCRIPT_FILE ${CMAKE_CURRENT_SOURCE_DIR}/rpm/${package}/preun)
    set(CPACK_RPM_${name}_POST_UNINSTALL_SCRIPT_FILE ${CMAKE_CURRENT_SOURCE_DIR}/rpm/${package}/postun)
endmacro()
set(maintainer_scripts conffiles postinst prerm postrm)

kolvan_describe(agent "remote collection agent of a performance-profiling service"
"The agent runs on the machine to be profiled and does what its profiling
server says: it installs the data collector that the server provides, runs
it, sends everything that it prints back while it runs, and uploads its
traces.
.
The service is not started by the installation, because the agent has to be
told its server first.")
kolvan_maintain(agent)
# PackageKinds adds the package that has libarchive.
set(CPACK_KOLVAN_LIBARCHIVE_FILE ${KOLVAN_LIBARCHIVE_FILE})
set(CPACK_DEBIAN_AGENT_PACKAGE_RECOMMENDS ca-certificates)
set(CPACK_RPM_AGENT_USER_FILELIST
    "%config(noreplace) %attr(0640,root,root) /opt/kolvan-agent/kolvan-agent.config.json")

kolvan_describe(server "server of a performance-profiling service"
"Agents on the machines to be profiled connect to the server, people and
programs tell it what to profile and get the profiles from it.
.
The service is not started by the installation, because who may use it is
decided first.")
kolvan_maintain(server)
set(CPACK_DEBIAN_SERVER_PACKAGE_SUGGESTS "kolvan-client, kolvan-profiler")
set(CPACK_RPM_SERVER_USER_FILELIST "%config(noreplace) /etc/kolvan-server/kolvan-server.conf")

kolvan_describe(client "command line of a performance-profiling service"
"Profiles programs on the machines whose agents a profiling server knows, and
shows which functions take their time.")
set(CPACK_DEBIAN_CLIENT_PACKAGE_RECOMMENDS ca-certificates)

kolvan_describe(profiler "sampling profiler for running programs"
"Tells which functions of a program take its time, or make it wait, and who
called them. The program needs no change, and the user no more rights than to
look at it.
.
With the two archives by which a profiling server gives the profiler to its
agents.")

include(CPack)
foreach(package IN LISTS KOLVAN_PACKAGES)
    cpack_add_component_group(${package})
    foreach(component IN ITEMS ${package} ${package}-system ${package}-debian)
        cpack_add_component(${component} GROUP ${package})
    endforeach()
endforeach()
