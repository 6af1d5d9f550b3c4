# CPack: the Debian package. scripts/package runs it, with prefix /usr and SOURCE_DATE_EPOCH.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME proxy-plugin)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "device-side management agent of a network device")
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
"proxy_plugin joins a Linux network device to its remote management server.
It carries the server's commands to the device's local agent and the device's
results, alarms and status back, reports the health of the box, and opens a
remote-web and a remote-telnet tunnel into the device when the server asks.")
set(CPACK_PACKAGE_CONTACT "The proxy_plugin maintainers <maintainers@example.org>")
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)

# The libraries of a cross build are in its sysroot and beside it, with DEBIAN folders that say which packages they are of.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
if(CMAKE_CROSSCOMPILING AND CMAKE_LIBRARY_ARCHITECTURE STREQUAL "arm-linux-gnueabihf")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS
        ${armhf_libraries} "${armhf_sysroot}/../libc/lib/arm-linux-gnueabihf")
endif()

set(plugin_debian ${CMAKE_SOURCE_DIR}/packaging/debian)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${plugin_debian}/conffiles ${plugin_debian}/postinst ${plugin_debian}/prerm ${plugin_debian}/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# What a Debian package has beyond cmake --install: copyright, changelog, compressed pages.
string(TIMESTAMP PLUGIN_PACKAGE_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC) # SOURCE_DATE_EPOCH where it is set
configure_file(${plugin_debian}/changelog.in ${plugin_made}/changelog @ONLY)
configure_file(${plugin_debian}/copyright ${plugin_made}/copyright COPYONLY)
configure_file(cmake/package_files.cmake.in ${plugin_made}/package_files.cmake @ONLY)
set(CPACK_PRE_BUILD_SCRIPTS ${plugin_made}/package_files.cmake)
include(CPack)
