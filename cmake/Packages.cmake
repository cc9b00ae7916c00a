# Debian packages: cpack, or ./dev package, in a build whose prefix is /usr. Each component is a package of its own, so
# that a device takes its own logging library or its own elements in place of ours.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME velstream-gst)
set(CPACK_PACKAGE_VENDOR velstream-gst)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(VELSTREAM_MAINTAINER "velstream-gst <velstream-gst@packages.invalid>" CACHE STRING "Who the packages name as maintainer")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${VELSTREAM_MAINTAINER})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_COMPONENTS_ALL library development tool software velclog)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
if(CMAKE_SYSTEM_PROCESSOR STREQUAL aarch64)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
endif()

# velstream_package(<component> <package> <section> <summary>): also the documents that every package carries.
function(velstream_package component package section summary)
  string(TOUPPER ${component} upper)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${package} PARENT_SCOPE)
  set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section} PARENT_SCOPE)
  set(CPACK_COMPONENT_${upper}_DESCRIPTION "${summary}\n${ARGN}" PARENT_SCOPE)
  set(CPACK_DEBIAN_${upper}_DESCRIPTION "${summary}\n${ARGN}" PARENT_SCOPE)
  install(FILES packaging/debian/copyright DESTINATION share/doc/${package} COMPONENT ${component})
  install(FILES ${CMAKE_BINARY_DIR}/package/changelog.gz DESTINATION share/doc/${package} COMPONENT ${component})
  set(overrides ${CMAKE_SOURCE_DIR}/packaging/debian/${package}.lintian-overrides)
  if(EXISTS ${overrides})
    install(FILES ${overrides} DESTINATION share/lintian/overrides RENAME ${package} COMPONENT ${component})
  endif()
endfunction()

velstream_package(library libvelstream-gst1 libs "live video streams through GStreamer, library"
  "Runs live video streams from cameras and files and hands every decoded RGB\nframe to a callback; displays, pushes, records and composes them.\nBuilt for the platform ${VELSTREAM_PLATFORM}.")
velstream_package(development libvelstream-gst-dev libdevel "live video streams through GStreamer, development files"
  "The header, the link name, and files for pkg-config and CMake.")
velstream_package(tool velstream video "live video streams through GStreamer, command-line tool"
  "Checks, lists and runs the streams of a configuration file, by hand or as\nsystemd services, one process a stream.")
velstream_package(software velstream-gst-software libs "live video streams through GStreamer, elements in software"
  "The platform's GStreamer elements by their own names, so that every pipeline\nruns without the board. They are in a folder of their own and never stand in\nthe way of a device's elements.")
velstream_package(velclog libvelclog libs "logging library of velstream-gst"
  "Stands in for the maker's logging library. A device's own takes its place: a\npackage that provides, conflicts with and replaces libvelclog.")

# What the libraries link with is found by dpkg-shlibdeps. It reads the package database of the system that it runs on;
# for a cross build ./dev package hands over what it found for the same sources here.
set(VELSTREAM_SHLIBDEPS_FROM "" CACHE PATH "Folder of native packages whose library dependencies a cross build takes over")
set(plugins "gstreamer1.0-plugins-base, gstreamer1.0-plugins-good, gstreamer1.0-plugins-bad")
set(version "(= ${PROJECT_VERSION})")
# ps, find and the merge script's interpreter are run by the library.
set(CPACK_DEBIAN_LIBRARY_PACKAGE_DEPENDS "libvelclog, ${plugins}, gstreamer1.0-rtsp, procps, findutils (>= 4.8), python3")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SUGGESTS "velstream-gst-software")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libvelstream-gst1 ${version}, libvelclog")
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS "libvelstream-gst1 ${version}, libvelclog, python3")
set(CPACK_DEBIAN_TOOL_PACKAGE_RECOMMENDS "velstream-gst-software, ffmpeg")
set(CPACK_DEBIAN_SOFTWARE_PACKAGE_DEPENDS "${plugins}, gstreamer1.0-plugins-ugly, gstreamer1.0-libav, fonts-dejavu-core")
set(CPACK_DEBIAN_TOOL_PACKAGE_CONTROL_EXTRA
  ${CMAKE_SOURCE_DIR}/packaging/debian/conffiles ${CMAKE_SOURCE_DIR}/packaging/debian/prerm
  ${CMAKE_SOURCE_DIR}/packaging/debian/postrm)
file(WRITE ${CMAKE_BINARY_DIR}/package/shlibs "libvelstream-gst 1 libvelstream-gst1 (>= ${PROJECT_VERSION})\n")
set(CPACK_DEBIAN_VELCLOG_PACKAGE_CONTROL_EXTRA ${CMAKE_SOURCE_DIR}/packaging/debian/triggers)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${CMAKE_SOURCE_DIR}/packaging/debian/triggers
  ${CMAKE_BINARY_DIR}/package/shlibs)
if(CMAKE_CROSSCOMPILING)
  foreach(pair "library libvelstream-gst1" "tool velstream" "software velstream-gst-software" "velclog libvelclog")
    separate_arguments(pair)
    list(GET pair 0 component)
    list(GET pair 1 package)
    string(TOUPPER ${component} component)
    file(GLOB native ${VELSTREAM_SHLIBDEPS_FROM}/${package}_*.deb)
    if(NOT native)
      message(FATAL_ERROR "VELSTREAM_SHLIBDEPS_FROM has no native package ${package}: \"./dev package arm64\" makes both")
    endif()
    execute_process(COMMAND dpkg-deb --field ${native} Depends OUTPUT_VARIABLE depends
      OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
    set(CPACK_DEBIAN_${component}_PACKAGE_DEPENDS "${depends}")
  endforeach()
else()
  foreach(component LIBRARY TOOL SOFTWARE VELCLOG)
    set(CPACK_DEBIAN_${component}_PACKAGE_SHLIBDEPS ON)
  endforeach()
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
endif()

# The tool's help as a manual page, and the changelog as the policy wants it.
find_program(GZIP_PROGRAM gzip REQUIRED)
execute_process(COMMAND ${GZIP_PROGRAM} -9nc ${CMAKE_SOURCE_DIR}/packaging/debian/changelog
  OUTPUT_FILE ${CMAKE_BINARY_DIR}/package/changelog.gz COMMAND_ERROR_IS_FATAL ANY)
add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/package/velstream.1.gz
  COMMAND bash -o pipefail -c "packaging/manpage.sh ${PROJECT_VERSION} \"$@\" | ${GZIP_PROGRAM} -9nc >${CMAKE_BINARY_DIR}/package/velstream.1.gz"
    _ ${CMAKE_CROSSCOMPILING_EMULATOR} $<TARGET_FILE:velstream>
  WORKING_DIRECTORY ${CMAKE_SOURCE_DIR} DEPENDS velstream packaging/manpage.sh VERBATIM)
add_custom_target(manual ALL DEPENDS ${CMAKE_BINARY_DIR}/package/velstream.1.gz)

install(FILES ${CMAKE_BINARY_DIR}/package/velstream.1.gz DESTINATION share/man/man1 COMPONENT tool)
install(FILES packaging/debian/velstream.bash DESTINATION share/bash-completion/completions RENAME velstream COMPONENT tool)
install(FILES packaging/debian/velstream@.service DESTINATION lib/systemd/system COMPONENT tool)
include(CPack)
