# The program with its manual page, the component "runtime", and the Debian packages of both components, which
# cpack(1) makes in the build folder.

# Not on the search path: the application starts it, nobody else does.
install(TARGETS crash-handler
    DESTINATION ${CMAKE_INSTALL_LIBEXECDIR}/vastel-mail COMPONENT runtime)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/crash-handler.8
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT runtime)

set(CPACK_PACKAGE_CONTACT "Vastel Mail maintainers <maintainers@vastel-mail.example>")
set(CPACK_GENERATOR DEB)
set(CPACK_STRIP_FILES ON)
# Install with the packages' prefix, below DESTDIR: the library has the path of the crash handler compiled in.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_LIBRARY_ARCHITECTURE "${CMAKE_LIBRARY_ARCHITECTURE}")
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/packaging/FinishStagedFiles.cmake)
set(CPACK_POST_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/packaging/FinishPackages.cmake)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# Lower than 1, so that a package of Debian itself would replace this one.
set(CPACK_DEBIAN_PACKAGE_RELEASE 0vastel1)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME vastel-mail-crash-handler)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION mail)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
"crash reports for Vastel Mail
When Vastel Mail crashes, this program writes a report with the backtraces of
all threads and starts the application again.")
# The debugger is started as a program, which shlibdeps cannot see.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS gdb)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME vastel-mail-crash-handler-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
"crash reports for Vastel Mail (development files)
Applications link this small static library to start the crash handler when
they crash. It needs no other library.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "vastel-mail-crash-handler (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")
include(CPack)
