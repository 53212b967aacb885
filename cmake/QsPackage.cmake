# Installation and the CMake package QsStimulation with its targets QsStimulation::Module and QsStimulation::Host.
include(CMakePackageConfigHelpers)

foreach(folder device manager beampath calibration host platform)
    install(DIRECTORY ${folder} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/qsstimulation FILES_MATCHING PATTERN "*.h")
endforeach()
install(DIRECTORY standalone DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/qsstimulation FILES_MATCHING PATTERN "*.h")

install(EXPORT QsStimulationTargets NAMESPACE QsStimulation::
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/QsStimulation)
configure_package_config_file(cmake/QsStimulationConfig.cmake.in QsStimulationConfig.cmake
                              INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/QsStimulation)
write_basic_package_version_file(QsStimulationConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/QsStimulationConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/QsStimulationConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/QsStimulation)
if(MSVC)
    install(FILES cmake/FindPThreads4W.cmake DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/QsStimulation)
endif()

# The archive for a Windows machine: unpacked into any folder, its bin/stimhost.exe runs.
install(FILES README.md CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DATADIR}/qsstimulation)
install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DATADIR}/qsstimulation)
set(CPACK_GENERATOR ZIP)
set(CPACK_INCLUDE_TOPLEVEL_DIRECTORY OFF)
set(CPACK_PACKAGE_FILE_NAME QsStimulation-${PROJECT_VERSION}-${CMAKE_SYSTEM_NAME}-x64)
set(CPACK_STRIP_FILES ON)
include(CPack)
