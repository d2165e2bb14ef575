# Two components: what runs (runtime) and what programs are built with (development).
include(CMakePackageConfigHelpers)

install(TARGETS sso-client RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
install(TARGETS ssoclient ssoclient_static EXPORT ssoclientTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
install(FILES include/ssoclient.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)
install(FILES man/sso-client.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT runtime)
install(FILES completion/sso-client DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
  COMPONENT runtime)

# CMake package: find_package(ssoclient) gives ssoclient::ssoclient and ssoclient::ssoclient-static.
set(SSOCLIENT_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/ssoclient)
install(EXPORT ssoclientTargets NAMESPACE ssoclient:: FILE ssoclientConfig.cmake
  DESTINATION ${SSOCLIENT_CMAKE_DIR} COMPONENT development)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/ssoclientConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/ssoclientConfigVersion.cmake
  DESTINATION ${SSOCLIENT_CMAKE_DIR} COMPONENT development)

# pkg-config file: its prefix follows the file, so that the tree may be installed or moved anywhere.
set(SSOCLIENT_PC_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH SSOCLIENT_PC_TO_PREFIX /${SSOCLIENT_PC_DIR} /)
configure_file(cmake/ssoclient.pc.in ssoclient.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/ssoclient.pc DESTINATION ${SSOCLIENT_PC_DIR} COMPONENT development)
