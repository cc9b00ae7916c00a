# Compiler settings that every target shares.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE RelWithDebInfo CACHE STRING "Build type" FORCE)
endif()

set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
# The software elements get a folder of their own, so that they never shadow a device's elements.
set(VELSTREAM_PLUGIN_DIR ${CMAKE_BINARY_DIR}/lib/velstream-gst/gstreamer-1.0)
set(VELSTREAM_CONF_INSTALL_DIR ${CMAKE_INSTALL_DATADIR}/velstream-gst/conf)
set(VELSTREAM_PLUGIN_INSTALL_DIR ${CMAKE_INSTALL_LIBDIR}/velstream-gst/gstreamer-1.0)

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow)
if(VELSTREAM_WERROR)
  add_compile_options(-Werror)
endif()
# __FILE__ is relative to the repository: log lines name a module's path, never a build machine's.
add_compile_options(-fmacro-prefix-map=${CMAKE_SOURCE_DIR}/=)
# ccache with a base_dir hands the compiler paths that are relative to the build folder.
file(RELATIVE_PATH VELSTREAM_SOURCE_FROM_BUILD ${CMAKE_BINARY_DIR} ${CMAKE_SOURCE_DIR})
if(VELSTREAM_SOURCE_FROM_BUILD)
  string(REGEX REPLACE "/$" "" VELSTREAM_SOURCE_FROM_BUILD "${VELSTREAM_SOURCE_FROM_BUILD}")
  add_compile_options(-fmacro-prefix-map=${VELSTREAM_SOURCE_FROM_BUILD}/=)
endif()

if(VELSTREAM_SANITIZER STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
elseif(VELSTREAM_SANITIZER STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(VELSTREAM_SANITIZER)
  message(FATAL_ERROR "VELSTREAM_SANITIZER is '${VELSTREAM_SANITIZER}'; it must be empty, address or thread")
endif()

find_program(CCACHE ccache)
if(CCACHE)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE})
endif()
