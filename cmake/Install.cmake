# What is installed around the service: component `service`. The client's components are in client/cmake/Install.cmake.
set(SSO_SYSTEMD_UNIT_DIR lib/systemd/system CACHE STRING
  "Folder of the systemd unit, below the prefix unless it is an absolute path")

# With the prefix /usr these two are below /etc, as GNUInstallDirs has it.
set(SSO_CONFIG_DIR ${CMAKE_INSTALL_FULL_SYSCONFDIR}/sso-discovery-service)
set(SSO_DEFAULTS_FILE ${CMAKE_INSTALL_FULL_SYSCONFDIR}/default/sso-discovery-service)
set(SSO_HELPER_DIR ${CMAKE_INSTALL_FULL_LIBEXECDIR}/sso-discovery-service)

# The files of packaging/ name paths of the device. Those stay right with DESTDIR, but not with another prefix.
install(CODE "
  if(NOT CMAKE_INSTALL_PREFIX STREQUAL \"${CMAKE_INSTALL_PREFIX}\")
    message(FATAL_ERROR \"The service's files name ${CMAKE_INSTALL_PREFIX}. \"
      \"Configure with -DCMAKE_INSTALL_PREFIX=\${CMAKE_INSTALL_PREFIX}, or set DESTDIR.\")
  endif()" COMPONENT service)

# sso_install(FILES|PROGRAMS SOURCE DESTINATION): a file of packaging/, with the paths of this installation in it.
function(sso_install kind source destination)
  string(REGEX REPLACE "\\.in$" "" name ${source})
  configure_file(packaging/${source} packaging/${name} @ONLY)
  install(${kind} ${PROJECT_BINARY_DIR}/packaging/${name} DESTINATION ${destination} COMPONENT service)
endfunction()

install(TARGETS sso-discovery-service RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT service)
sso_install(FILES systemd/sso-discovery-service.service.in ${SSO_SYSTEMD_UNIT_DIR})
sso_install(PROGRAMS systemd/restart-pause ${SSO_HELPER_DIR})
sso_install(FILES man/sso-discovery-service.8 ${CMAKE_INSTALL_MANDIR}/man8)
sso_install(FILES man/sso-discovery-service.json.5 ${CMAKE_INSTALL_MANDIR}/man5)
sso_install(FILES systemd/credentials.conf ${CMAKE_INSTALL_DOCDIR}/examples)
sso_install(FILES nftables/sso-discovery-service.nft ${CMAKE_INSTALL_DOCDIR}/examples)
sso_install(PROGRAMS init.d/sso-discovery-service ${CMAKE_INSTALL_DOCDIR}/examples)

# On the device itself, a configuration that is there already stays.
configure_file(packaging/config.json packaging/config.json @ONLY)
install(CODE "
  if(NOT \"\$ENV{DESTDIR}\" STREQUAL \"\" OR NOT EXISTS \"${SSO_CONFIG_DIR}/config.json\")
    file(INSTALL \"${PROJECT_BINARY_DIR}/packaging/config.json\" DESTINATION \"${SSO_CONFIG_DIR}\")
  endif()" COMPONENT service)
