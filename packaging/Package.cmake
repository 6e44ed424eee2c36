# What is installed, and the Debian package of it, which "cpack -G DEB" makes in the build folder.

include(GNUInstallDirs)

# Not on the search path: the application starts it, nobody else does.
install(TARGETS crash-handler DESTINATION ${CMAKE_INSTALL_LIBEXECDIR}/vastel-mail)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/crash-handler.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)

set(CPACK_PACKAGE_CONTACT "Vastel Mail maintainers <maintainers@vastel-mail.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "crash reports for Vastel Mail")
set(CPACK_PACKAGE_DESCRIPTION
"When Vastel Mail crashes, this program writes a report with the backtraces of
all threads and starts the application again.")
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/packaging/FinishStagedFiles.cmake)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION mail)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# The debugger is started as a program, which shlibdeps cannot see.
set(CPACK_DEBIAN_PACKAGE_DEPENDS gdb)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
include(CPack)
