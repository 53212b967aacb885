# What a Windows program needs beside it and a Debian machine does not have: the run-time libraries of the compiler, Qt
# with its SQLite driver, and the CBLAS, out of the prefix that dependencies.sh builds. They lie in the build as they do
# in the package, so that both run from any folder.
file(GLOB qs_runtime_libraries CONFIGURE_DEPENDS ${QS_WINDOWS_PREFIX}/bin/*.dll)
file(GLOB qs_runtime_drivers CONFIGURE_DEPENDS ${QS_WINDOWS_PREFIX}/plugins/sqldrivers/*.dll)

# Qt looks for its drivers in plugins/ beside its own library.
set(qs_drivers_folder bin/plugins/sqldrivers)
add_custom_target(runtime ALL
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/bin ${CMAKE_BINARY_DIR}/${qs_drivers_folder}
    COMMAND ${CMAKE_COMMAND} -E copy_if_different ${qs_runtime_libraries} ${CMAKE_BINARY_DIR}/bin
    COMMAND ${CMAKE_COMMAND} -E copy_if_different ${qs_runtime_drivers} ${CMAKE_BINARY_DIR}/${qs_drivers_folder}
    COMMENT "Run-time libraries" VERBATIM)
add_dependencies(product runtime)

install(FILES ${qs_runtime_libraries} DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${qs_runtime_drivers} DESTINATION ${CMAKE_INSTALL_BINDIR}/plugins/sqldrivers)
install(DIRECTORY ${QS_WINDOWS_PREFIX}/licenses/ DESTINATION ${CMAKE_INSTALL_DATADIR}/qsstimulation/licenses)
