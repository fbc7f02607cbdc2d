# The Debian package: `cpack -G DEB` in the build directory.
#
# Two install layouts share the binaries (bin/, lib/, module/ under the prefix, which the detection
# module's library search path names):
# - component "tree", what `cmake --install` lays out: everything under the prefix (conf/, log/,
#   var/spool/) and a unit that writes there;
# - component "deb", only in the package: configuration in /etc/corvane (conffiles; <prefix>/conf
#   links there), alerts and logs in /var/log/corvane and the spool in /var/spool/corvane (both made
#   by postinst), a logrotate snippet, the documentation Debian expects and the lintian overrides.
set(CORVANE_PACKAGING_DIR ${CMAKE_BINARY_DIR}/packaging)
set(CORVANE_DEB_DIR ${CORVANE_PACKAGING_DIR}/deb)
set(CORVANE_DEB_SOURCE ${PROJECT_SOURCE_DIR}/packaging/debian)
set(CORVANE_DEB_ETC /etc/corvane)
set(CORVANE_DEB_DOC /usr/share/doc/corvane-agent)
set(CORVANE_DEB_WRITABLE "/var/log/corvane /var/spool/corvane ${CORVANE_DEB_ETC}")

# The unit of each layout: they differ in where the agent writes.
set(CORVANE_UNIT_DOC file://${CMAKE_INSTALL_PREFIX}/share/doc/corvane/README.md)
set(CORVANE_UNIT_WRITABLE "${CMAKE_INSTALL_PREFIX}/log ${CMAKE_INSTALL_PREFIX}/conf ${CMAKE_INSTALL_PREFIX}/var/spool")
configure_file(${PROJECT_SOURCE_DIR}/packaging/corvane-agent.service.in
  ${CORVANE_PACKAGING_DIR}/corvane-agent.service @ONLY)
set(CORVANE_UNIT_DOC file://${CORVANE_DEB_DOC}/README.md)
set(CORVANE_UNIT_WRITABLE "${CORVANE_DEB_WRITABLE}")
configure_file(${PROJECT_SOURCE_DIR}/packaging/corvane-agent.service.in
  ${CORVANE_DEB_DIR}/corvane-agent.service @ONLY)

# systemd reads units from /lib/systemd/system whatever the prefix.
install(FILES ${CORVANE_PACKAGING_DIR}/corvane-agent.service DESTINATION /lib/systemd/system COMPONENT tree)
install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION share/doc/corvane COMPONENT tree)

# Package-only files.
install(FILES ${CORVANE_DEB_DIR}/corvane-agent.service DESTINATION /lib/systemd/system
  COMPONENT deb EXCLUDE_FROM_ALL)
# agent.json may hold credentials (Kafka SASL properties).
install(FILES ${CORVANE_DEB_SOURCE}/agent.json DESTINATION ${CORVANE_DEB_ETC}
  PERMISSIONS OWNER_READ OWNER_WRITE COMPONENT deb EXCLUDE_FROM_ALL)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/conf/policies DESTINATION ${CORVANE_DEB_ETC}
  COMPONENT deb EXCLUDE_FROM_ALL)
# The prefix keeps the tree's layout, its conf/, log/ and var/spool/ linking to where Debian keeps
# them (the agent makes <prefix>/log at start whatever its log target, and a relative path in
# agent.json still lands in /var). The links go with the package; what they point to does not.
file(MAKE_DIRECTORY ${CORVANE_DEB_DIR}/var)
file(CREATE_LINK ${CORVANE_DEB_ETC} ${CORVANE_DEB_DIR}/conf SYMBOLIC)
file(CREATE_LINK /var/log/corvane ${CORVANE_DEB_DIR}/log SYMBOLIC)
file(CREATE_LINK /var/spool/corvane ${CORVANE_DEB_DIR}/var/spool SYMBOLIC)
install(FILES ${CORVANE_DEB_DIR}/conf ${CORVANE_DEB_DIR}/log DESTINATION . COMPONENT deb EXCLUDE_FROM_ALL)
install(FILES ${CORVANE_DEB_DIR}/var/spool DESTINATION var COMPONENT deb EXCLUDE_FROM_ALL)
install(FILES ${CORVANE_DEB_SOURCE}/corvane-agent.logrotate DESTINATION /etc/logrotate.d
  RENAME corvane-agent COMPONENT deb EXCLUDE_FROM_ALL)

# changelog.Debian.gz, compressed without a time stamp (reproducible).
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${CORVANE_DEB_SOURCE}/changelog)
execute_process(COMMAND gzip -9 -n -c INPUT_FILE ${CORVANE_DEB_SOURCE}/changelog
  OUTPUT_FILE ${CORVANE_DEB_DIR}/changelog.Debian.gz RESULT_VARIABLE gzip_result)
if(NOT gzip_result EQUAL 0)
  message(FATAL_ERROR "gzip of ${CORVANE_DEB_SOURCE}/changelog failed: ${gzip_result}")
endif()
install(FILES ${CORVANE_DEB_SOURCE}/copyright ${CORVANE_DEB_DIR}/changelog.Debian.gz ${PROJECT_SOURCE_DIR}/README.md
  DESTINATION ${CORVANE_DEB_DOC} COMPONENT deb EXCLUDE_FROM_ALL)
string(REGEX REPLACE "^/" "" CORVANE_DEB_PREFIX_IN_ARCHIVE "${CMAKE_INSTALL_PREFIX}")
configure_file(${CORVANE_DEB_SOURCE}/lintian-overrides.in ${CORVANE_DEB_DIR}/lintian-overrides @ONLY)
install(FILES ${CORVANE_DEB_DIR}/lintian-overrides DESTINATION /usr/share/lintian/overrides
  RENAME corvane-agent COMPONENT deb EXCLUDE_FROM_ALL)

# Every file the package puts under /etc is a conffile: dpkg keeps the administrator's edits.
file(GLOB_RECURSE corvane_policy_files CONFIGURE_DEPENDS RELATIVE ${PROJECT_SOURCE_DIR}/conf
  ${PROJECT_SOURCE_DIR}/conf/policies/*)
list(SORT corvane_policy_files)
set(corvane_conffiles "${CORVANE_DEB_ETC}/agent.json\n")
foreach(policy IN LISTS corvane_policy_files)
  string(APPEND corvane_conffiles "${CORVANE_DEB_ETC}/${policy}\n")
endforeach()
string(APPEND corvane_conffiles "/etc/logrotate.d/corvane-agent\n")
file(WRITE ${CORVANE_DEB_DIR}/conffiles "${corvane_conffiles}")
foreach(script preinst postinst prerm postrm)
  configure_file(${CORVANE_DEB_SOURCE}/${script} ${CORVANE_DEB_DIR}/${script} COPYONLY
    FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
endforeach()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME corvane-agent)
set(CPACK_PACKAGE_VENDOR "Corvane")
set(CPACK_PACKAGE_CONTACT "Corvane maintainers <maintainers@corvane.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "host-security agent: suspicious processes and privilege escalation")
set(CPACK_PACKAGE_DESCRIPTION_FILE ${CORVANE_DEB_SOURCE}/description)
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
# One package of the binaries and the package-only files; not the tree's conf/, log/ and unit.
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)
set(CPACK_COMPONENTS_ALL Unspecified deb)
# The Debian revision: bump it for a package of the same sources, with a changelog entry.
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The agent's own libraries are found through its run path, not as Debian packages.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CORVANE_LIB_DIR} ${CORVANE_MODULE_DIR})
# Loaded when a sink or a digest first needs them (dlopen), so dpkg-shlibdeps cannot see them;
# added to what it finds.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libcurl4, libssl3, librdkafka1, librelp0")
# Stripped binaries; their debug information goes to corvane-agent-dbgsym (a .ddeb).
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
  ${CORVANE_DEB_DIR}/preinst ${CORVANE_DEB_DIR}/postinst ${CORVANE_DEB_DIR}/prerm ${CORVANE_DEB_DIR}/postrm ${CORVANE_DEB_DIR}/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
if(CMAKE_VERSION VERSION_LESS 3.19)
  message(WARNING "CMake ${CMAKE_VERSION} runs no CPack post-build scripts: the Debian packages will not pass lintian")
endif()
set(CPACK_POST_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/DebPostBuild.cmake)
include(CPack)
