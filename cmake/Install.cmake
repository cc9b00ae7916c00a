# What an installation holds. The components let a device leave out what it has of its own: "velclog" where the maker's
# logging library is installed, "software" where the platform's elements are.
include(CMakePackageConfigHelpers)

# A library looks for the logging library beside itself first, so that an installation works under any prefix.
set_target_properties(velstream-gst PROPERTIES INSTALL_RPATH "$ORIGIN")

install(TARGETS velstream-gst EXPORT velstream-gst-targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT development)
install(TARGETS velclog
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT velclog)
install(TARGETS gstvelsoftware
  LIBRARY DESTINATION ${VELSTREAM_PLUGIN_INSTALL_DIR} COMPONENT software)
install(TARGETS velstream
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tool)
# The library reads its configuration at one fixed place, and runs the merge script at another; a package has them there
# whatever its prefix is, and with the tool, so that libraries of two versions can stand side by side.
if(VELSTREAM_PACKAGING)
  set(conf_component tool)
  set(fixed_prefix /usr/local/)
else()
  set(conf_component library)
  set(fixed_prefix "")
endif()
install(FILES conf/velstream-gst.conf
  DESTINATION ${fixed_prefix}${VELSTREAM_CONF_INSTALL_DIR} COMPONENT ${conf_component})
install(FILES conf/velstream-gst.schema.json conf/velstream-compose.schema.json
  DESTINATION ${VELSTREAM_CONF_INSTALL_DIR} COMPONENT ${conf_component})
# The library runs it as /usr/local/bin/concate_video.py, the tool as the one beside itself.
install(PROGRAMS scripts/concate_video.py DESTINATION ${fixed_prefix}bin COMPONENT tool)
install(FILES include/velstream.h modules/velclog/include/velclog.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development)

# find_package(velstream-gst)
set(VELSTREAM_PACKAGE_INSTALL_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/velstream-gst)
install(EXPORT velstream-gst-targets NAMESPACE velstream-gst::
  DESTINATION ${VELSTREAM_PACKAGE_INSTALL_DIR} COMPONENT development)
configure_package_config_file(cmake/velstream-gst-config.cmake.in
  ${CMAKE_BINARY_DIR}/package/velstream-gst-config.cmake
  INSTALL_DESTINATION ${VELSTREAM_PACKAGE_INSTALL_DIR}
  PATH_VARS VELSTREAM_PLUGIN_INSTALL_DIR
  NO_CHECK_REQUIRED_COMPONENTS_MACRO)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/package/velstream-gst-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/package/velstream-gst-config.cmake
  ${CMAKE_BINARY_DIR}/package/velstream-gst-config-version.cmake
  DESTINATION ${VELSTREAM_PACKAGE_INSTALL_DIR} COMPONENT development)

# pkg-config velstream-gst: relative to itself, so that a prefix may be moved.
file(RELATIVE_PATH VELSTREAM_PREFIX_FROM_PKGCONFIG
  /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(cmake/velstream-gst.pc.in ${CMAKE_BINARY_DIR}/package/velstream-gst.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/package/velstream-gst.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
