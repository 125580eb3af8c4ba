include(CMakePackageConfigHelpers)

install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS netloop sysutil hostseek EXPORT netloopTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT netloopTargets NAMESPACE netloop:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/netloop)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/netloopConfig.cmake.in
  ${PROJECT_BINARY_DIR}/netloopConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/netloop)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/netloopConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/netloopConfig.cmake ${PROJECT_BINARY_DIR}/netloopConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/netloop)

# The .pc file finds its prefix from its own place, so an installed tree can move.
file(RELATIVE_PATH NETLOOP_PC_TO_PREFIX "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
string(REGEX REPLACE "/$" "" NETLOOP_PC_TO_PREFIX "${NETLOOP_PC_TO_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/netloop.pc.in ${PROJECT_BINARY_DIR}/netloop.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/netloop.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
