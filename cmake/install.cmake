# cmake --install: agent, control program, man pages, documents, samples, configuration and service files. The paths inside
# the service files and man pages are those of the prefix given when CMake configures; DESTDIR is for staging.
include(GNUInstallDirs)
set(PLUGIN_SYSTEMD_DIR "${CMAKE_INSTALL_PREFIX}/lib/systemd/system" CACHE PATH "where the systemd unit is installed")
set(PLUGIN_INIT_DIR "${CMAKE_INSTALL_FULL_SYSCONFDIR}/init.d" CACHE PATH "where the init script is installed")
set(PLUGIN_CONFIG_DIR "${CMAKE_INSTALL_FULL_SYSCONFDIR}/proxy_plugin")
set(plugin_made "${CMAKE_BINARY_DIR}/packaging")

install(TARGETS proxy_plugin RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(TARGETS proxy_pluginctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
foreach(page proxy_plugin.8 proxy_pluginctl.8 proxy_plugin.ini.5)
    configure_file(packaging/man/${page}.in ${plugin_made}/${page} @ONLY)
    string(REGEX MATCH "[0-9]$" section ${page})
    install(FILES ${plugin_made}/${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
endforeach()

file(GLOB plugin_documents docs/*.md)
install(FILES README.md CHANGELOG.md SECURITY.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES ${plugin_documents} DESTINATION ${CMAKE_INSTALL_DOCDIR}/docs)
install(DIRECTORY docs/formats DESTINATION ${CMAKE_INSTALL_DOCDIR}/docs)
install(FILES samples/config.ini samples/init.json samples/state.json DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)

# The installed config.ini is the sample with the supervisor's keys. One that is there already belongs to the integrator.
file(READ samples/config.ini config_sample)
file(READ packaging/monitor.ini config_monitor)
file(CONFIGURE OUTPUT ${plugin_made}/config.ini CONTENT "${config_sample}\n${config_monitor}" @ONLY)
install(CODE "
    set(config_dir \"${PLUGIN_CONFIG_DIR}\")
    if(EXISTS \"\$ENV{DESTDIR}\${config_dir}/config.ini\")
        message(STATUS \"Kept: \$ENV{DESTDIR}\${config_dir}/config.ini\")
    else()
        file(INSTALL \"${plugin_made}/config.ini\" DESTINATION \"\${config_dir}\")
    endif()")

configure_file(packaging/proxy-plugin.service.in ${plugin_made}/proxy-plugin.service @ONLY)
configure_file(packaging/proxy-plugin.init.in ${plugin_made}/proxy-plugin @ONLY)
install(FILES ${plugin_made}/proxy-plugin.service DESTINATION ${PLUGIN_SYSTEMD_DIR})
install(PROGRAMS ${plugin_made}/proxy-plugin DESTINATION ${PLUGIN_INIT_DIR})
