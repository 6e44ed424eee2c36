# Run by CPack on the files that it is about to pack, to give them the form that Debian wants.

if(NOT CPACK_GENERATOR STREQUAL "DEB")
    return()
endif()

set(staged ${CPACK_TEMPORARY_INSTALL_DIRECTORY})

function(run)
    execute_process(COMMAND ${ARGN} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

# Debian's change log gets one entry, for the packed version, with the date of our change log.
set(change_log ${CMAKE_CURRENT_LIST_DIR}/../CHANGELOG.md)
file(STRINGS ${change_log} latest LIMIT_COUNT 1 REGEX "^## [0-9]")
if(NOT latest MATCHES "^## ${CPACK_PACKAGE_VERSION} - ([0-9-]+)$")
    message(FATAL_ERROR "the latest entry of CHANGELOG.md is not that of version ${CPACK_PACKAGE_VERSION}")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} -E env LC_ALL=C date --utc --rfc-email --date ${CMAKE_MATCH_1}
    OUTPUT_VARIABLE date COMMAND_ERROR_IS_FATAL ANY)
foreach(component IN ITEMS RUNTIME DEVELOPMENT)
    string(TOLOWER ${component} folder)
    string(APPEND folder /usr/share/doc/${CPACK_DEBIAN_${component}_PACKAGE_NAME})
    configure_file(${change_log} ${staged}/${folder}/changelog COPYONLY)
    file(WRITE ${staged}/${folder}/changelog.Debian
        "vastel-mail-crash-handler (${CPACK_PACKAGE_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE}) unstable; urgency=medium\n\n"
        "  * What changed stands in changelog.gz.\n\n"
        " -- ${CPACK_PACKAGE_CONTACT}  ${date}")
endforeach()

# Compressed without a time stamp inside.
file(GLOB_RECURSE texts ${staged}/*/changelog ${staged}/*/changelog.Debian ${staged}/*.8)
run(gzip -9n ${texts})

# CPack strips no libraries, and leaves the compiler's version in programs. A static library keeps its symbols, without
# which nothing could link it.
file(GLOB_RECURSE binaries ${staged}/*.a ${staged}/*/crash-handler)
run(strip --strip-debug --remove-section=.comment --enable-deterministic-archives ${binaries})

# Debian keeps libraries in a folder for each architecture (lib/x86_64-linux-gnu). CMake uses it only if the configured
# prefix is /usr. pkg-config searches only there when it builds for another architecture. So the .pc file moves there, one
# folder deeper, and its relative path gets one "../" more.
set(libraries ${staged}/development/usr/lib)
file(GLOB package_files ${libraries}/pkgconfig/*.pc)
foreach(path IN LISTS package_files)
    file(READ ${path} content)
    string(REPLACE "\${pcfiledir}/" "\${pcfiledir}/../" content "${content}")
    cmake_path(GET path FILENAME name)
    file(WRITE ${libraries}/${CPACK_LIBRARY_ARCHITECTURE}/pkgconfig/${name} "${content}")
    file(REMOVE_RECURSE ${libraries}/pkgconfig)
endforeach()

# Installed files have their modes from CMake; folders, and what is written here, follow the builder's umask.
file(CHMOD_RECURSE ${staged}
    DIRECTORY_PERMISSIONS
        OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
file(GLOB_RECURSE texts ${staged}/*.gz ${staged}/*.pc)
file(CHMOD ${texts} PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
