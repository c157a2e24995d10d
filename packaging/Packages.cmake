# The packages, from what is installed. Each group of components is one package; a server, a client
# and a collector get a group of their own.

set(CPACK_PACKAGE_NAME kolvan)
set(CPACK_PACKAGE_VENDOR "Kolvan")
set(CPACK_PACKAGE_CONTACT "Kolvan developers <kolvan@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "remote collection agent of a performance-profiling service")
set(CPACK_PACKAGE_DESCRIPTION
"The agent runs on the machine to be profiled and does what its profiling
server says: it installs the data collector that the server provides, runs
it, sends everything that it prints back while it runs, and uploads its
traces.
.
The service is not started by the installation, because the agent has to be
told its server first.")
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS ${CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS})
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_SOURCE_DIR}/PackageKinds.cmake)
# Files have the commit's time, so that equal contents give equal packages.
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_SOURCE_DIR}/SetTimes.cmake)
set(CPACK_THREADS 1)

set(CPACK_ARCHIVE_COMPONENT_INSTALL ON)
set(CPACK_ARCHIVE_AGENT_FILE_NAME kolvan-agent-${PROJECT_VERSION}-linux-x86-64)
set(CPACK_PACKAGE_FILE_NAME kolvan-agent-${PROJECT_VERSION})

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_AGENT_PACKAGE_NAME kolvan-agent)
set(CPACK_COMPONENT_AGENT_DESCRIPTION "${CPACK_PACKAGE_DESCRIPTION}")
set(CPACK_DEBIAN_AGENT_DESCRIPTION "${CPACK_PACKAGE_DESCRIPTION}")
# The maintainer scripts make the user and the directories by what systemd brings for that. PackageKinds
# adds the package that has libarchive.
set(CPACK_KOLVAN_LIBARCHIVE_FILE ${KOLVAN_LIBARCHIVE_FILE})
set(CPACK_DEBIAN_AGENT_PACKAGE_DEPENDS "systemd, init-system-helpers (>= 1.52)")
set(CPACK_DEBIAN_AGENT_PACKAGE_RECOMMENDS ca-certificates)
set(CPACK_DEBIAN_AGENT_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_SOURCE_DIR}/debian/conffiles
    ${CMAKE_CURRENT_SOURCE_DIR}/debian/postinst
    ${CMAKE_CURRENT_SOURCE_DIR}/debian/prerm
    ${CMAKE_CURRENT_SOURCE_DIR}/debian/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_RPM_COMPONENT_INSTALL ON)
set(CPACK_RPM_FILE_NAME RPM-DEFAULT)
set(CPACK_RPM_AGENT_PACKAGE_NAME kolvan-agent)
set(CPACK_RPM_AGENT_PACKAGE_SUMMARY "Remote collection agent of a performance-profiling service")
string(REPLACE "\n.\n" "\n\n" CPACK_RPM_AGENT_PACKAGE_DESCRIPTION "${CPACK_PACKAGE_DESCRIPTION}")
set(CPACK_RPM_PACKAGE_LICENSE "LicenseRef-not-stated")
set(CPACK_RPM_PACKAGE_GROUP "Development/Tools")
# Its libraries are its own: they serve nobody else, and nobody else's will do.
set(CPACK_RPM_PACKAGE_AUTOREQPROV no)
set(CPACK_RPM_PACKAGE_RELOCATABLE OFF)
set(CPACK_RPM_AGENT_PACKAGE_REQUIRES
    "systemd, libc.so.6(GLIBC_${KOLVAN_OLDEST_LIBC})(64bit), /usr/sbin/useradd")
set(CPACK_RPM_AGENT_USER_FILELIST
    "%config(noreplace) %attr(0640,root,root) /opt/kolvan-agent/kolvan-agent.config.json")
set(CPACK_RPM_AGENT_POST_INSTALL_SCRIPT_FILE ${CMAKE_CURRENT_SOURCE_DIR}/rpm/post)
set(CPACK_RPM_AGENT_PRE_UNINSTALL_SCRIPT_FILE ${CMAKE_CURRENT_SOURCE_DIR}/rpm/preun)
set(CPACK_RPM_AGENT_POST_UNINSTALL_SCRIPT_FILE ${CMAKE_CURRENT_SOURCE_DIR}/rpm/postun)
set(CPACK_RPM_EXCLUDE_FROM_AUTO_FILELIST_ADDITION
    /opt /usr/bin /usr/lib /usr/lib/systemd /usr/lib/systemd/system /usr/lib/sysusers.d
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

include(CPack)
cpack_add_component_group(agent)
foreach(component IN ITEMS agent agent-service agent-debian)
    cpack_add_component(${component} GROUP agent)
endforeach()
