# Run by CPack on the files that it is about to pack.

# Installed files have their modes from CMake, but folders follow the builder's umask.
file(CHMOD_RECURSE ${CPACK_TEMPORARY_INSTALL_DIRECTORY} DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# Debian wants manual pages compressed, and without a time stamp inside.
file(GLOB_RECURSE manual_pages ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*.8)
execute_process(COMMAND gzip -9n ${manual_pages} COMMAND_ERROR_IS_FATAL ANY)
