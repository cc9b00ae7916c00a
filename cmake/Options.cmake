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
# What is installed is hardened as the distributions harden their own packages; packaging/hardening.sh looks at it.
include(CheckPIESupported)
check_pie_supported()
if(CMAKE_BUILD_TYPE STREQUAL Release AND NOT VELSTREAM_SANITIZER)
  add_compile_options(-fstack-protector-strong -fstack-clash-protection -Wformat -Werror=format-security
    -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|amd64")
    add_compile_options(-fcf-protection)
  elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "aarch64|arm64")
    add_compile_options(-mbranch-protection=standard)
  endif()
  add_link_options(-Wl,-z,relro -Wl,-z,now)
  # An installation cuts the build's folder out of what it copies, but not the room that its name took.
  set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)
endif()
# ccache with a base_dir hands the compiler paths that are relative to the build folder.
file(RELATIVE_PATH VELSTREAM_SOURCE_FROM_BUILD ${CMAKE_BINARY_DIR} ${CMAKE_SOURCE_DIR})
if(VELSTREAM_SOURCE_FROM_BUILD)
  string(REGEX REPLACE "/$" "" VELSTREAM_SOURCE_FROM_BUILD "${VELSTREAM_SOURCE_FROM_BUILD}")
  add_compile_options(-fmacro-prefix-map=${VELSTREAM_SOURCE_FROM_BUILD}/=)
endif()

# velstream_link_into_executables(<source>): what a sanitizer must know of the libraries around, in every executable.
macro(velstream_link_into_executables source)
  add_library(sanitizer-support OBJECT ${CMAKE_SOURCE_DIR}/${source})
  target_include_directories(sanitizer-support PRIVATE
    $<TARGET_PROPERTY:PkgConfig::GSTREAMER,INTERFACE_INCLUDE_DIRECTORIES>)
  link_libraries($<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:$<TARGET_OBJECTS:sanitizer-support>>)
endmacro()

# What a sanitizer adds to the code takes long to optimise; its reports need the lines, not the variables.
if(VELSTREAM_SANITIZER STREQUAL "address")
  add_compile_options(-O1 -g1 -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
  velstream_link_into_executables(tests/support/leak_check_startup.cpp)
elseif(VELSTREAM_SANITIZER STREQUAL "thread")
  add_compile_options(-O1 -g1 -fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
  velstream_link_into_executables(tests/support/thread_check_glib.cpp)
elseif(VELSTREAM_SANITIZER STREQUAL "fuzzer")
  add_compile_options(-fsanitize=address,fuzzer-no-link -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address)
elseif(VELSTREAM_SANITIZER)
  message(FATAL_ERROR "VELSTREAM_SANITIZER is '${VELSTREAM_SANITIZER}'; it must be empty, address, thread or fuzzer")
endif()

if(VELSTREAM_SANITIZER)
  # The instrumentation hides initialisations from GCC: it then warns about the standard library's own headers.
  add_compile_options(-Wno-maybe-uninitialized)
endif()

find_program(CCACHE ccache)
if(CCACHE)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE})
endif()
