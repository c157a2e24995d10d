# An edited configuration is never replaced. It holds the access token, so others may not read it.
set(configuration "$ENV{DESTDIR}${CMAKE_INSTALL_PREFIX}/kolvan-agent.config.json")
if(NOT EXISTS "${configuration}")
    file(INSTALL "${KOLVAN_PACKAGING}/kolvan-agent.config.json" DESTINATION "${CMAKE_INSTALL_PREFIX}"
        PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ)
endif()
