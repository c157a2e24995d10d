# Gives everything that is about to be packed the time that SOURCE_DATE_EPOCH names.
if(DEFINED ENV{SOURCE_DATE_EPOCH})
    execute_process(
        COMMAND find "${CPACK_TEMPORARY_INSTALL_DIRECTORY}" -exec
            touch --no-dereference "--date=@$ENV{SOURCE_DATE_EPOCH}" {} +
        COMMAND_ERROR_IS_FATAL ANY)
endif()
