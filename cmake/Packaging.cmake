# The Debian package: `cpack -G DEB` in the build directory.
set(CORVANE_PACKAGING_DIR ${CMAKE_BINARY_DIR}/packaging)
configure_file(${PROJECT_SOURCE_DIR}/packaging/corvane-agent.service.in
  ${CORVANE_PACKAGING_DIR}/corvane-agent.service @ONLY)
foreach(script postinst prerm postrm)
  configure_file(${PROJECT_SOURCE_DIR}/packaging/debian/${script} ${CORVANE_PACKAGING_DIR}/${script} @ONLY
    FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
endforeach()
configure_file(${PROJECT_SOURCE_DIR}/packaging/debian/conffiles.in ${CORVANE_PACKAGING_DIR}/conffiles @ONLY)

# systemd reads units from /lib/systemd/system whatever the prefix.
install(FILES ${CORVANE_PACKAGING_DIR}/corvane-agent.service DESTINATION /lib/systemd/system)
install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION share/doc/corvane)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME corvane-agent)
set(CPACK_PACKAGE_VENDOR "Corvane")
set(CPACK_PACKAGE_CONTACT "Corvane maintainers <maintainers@corvane.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Host-security agent with process-detection module")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The agent's own libraries are found through its run path, not as Debian packages.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CORVANE_LIB_DIR} ${CORVANE_MODULE_DIR})
# Loaded when a sink or a digest first needs them (dlopen), so dpkg-shlibdeps cannot see them;
# added to what it finds.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libcurl4, libssl3, librdkafka1, librelp0")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
  ${CORVANE_PACKAGING_DIR}/postinst ${CORVANE_PACKAGING_DIR}/prerm ${CORVANE_PACKAGING_DIR}/postrm
  ${CORVANE_PACKAGING_DIR}/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
