# Run by CPack on the packages that it has made.

if(NOT CPACK_GENERATOR STREQUAL "DEB")
    return()
endif()

# The mode of each part inside a package follows the builder's umask. "ar rcD" packs the parts again, with fixed modes,
# owners and times.
foreach(package IN LISTS CPACK_PACKAGE_FILES)
    set(parts debian-binary control.tar.gz data.tar.gz)
    execute_process(COMMAND ar x ${package}
        COMMAND_ERROR_IS_FATAL ANY WORKING_DIRECTORY ${CPACK_TEMPORARY_DIRECTORY})
    file(REMOVE ${package})
    execute_process(COMMAND ar rcDS ${package} ${parts}
        COMMAND_ERROR_IS_FATAL ANY WORKING_DIRECTORY ${CPACK_TEMPORARY_DIRECTORY})
endforeach()
