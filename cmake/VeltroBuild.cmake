# What every target of the project is built with.

set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE RelWithDebInfo)
endif()

find_program(VELTRO_CCACHE ccache)
if(VELTRO_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER "${VELTRO_CCACHE}")
endif()

# The same rounding on both architectures and at every optimisation level; stacks that can be
# walked from anywhere; source paths relative, so that no build path ends up in a message.
add_compile_options(
  -ffp-contract=off -fasynchronous-unwind-tables "-ffile-prefix-map=${CMAKE_SOURCE_DIR}/=")
if(CMAKE_CXX_FLAGS MATCHES "-m32")
  add_compile_options(-msse2 -mfpmath=sse)
endif()

set(VELTRO_WARNINGS -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror)
if(VELTRO_SANITIZER)
  # The instrumentation hides from gcc that std::function's members are set.
  list(APPEND VELTRO_WARNINGS -Wno-maybe-uninitialized)
endif()

# veltro_library(target NAME soname-stem VERSION_SCRIPT file): a shared library of ours, soname
# lib<stem>.so.0, exported as KivVeltro::<target>.
function(veltro_library target)
  cmake_parse_arguments(ARG "" "NAME;VERSION_SCRIPT" "" ${ARGN})
  add_library(${target} SHARED)
  add_library(KivVeltro::${target} ALIAS ${target})
  set_target_properties(${target} PROPERTIES
    OUTPUT_NAME "${ARG_NAME}" VERSION 0.1.0 SOVERSION 0
    LINK_DEPENDS "${ARG_VERSION_SCRIPT}")
  target_compile_options(${target} PRIVATE ${VELTRO_WARNINGS})
  target_compile_features(${target} PUBLIC cxx_std_17)
  target_compile_definitions(${target} PUBLIC _FILE_OFFSET_BITS=64)
  target_link_options(${target} PRIVATE "-Wl,--version-script=${ARG_VERSION_SCRIPT}")
  install(TARGETS ${target} EXPORT KivVeltro
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev)
endfunction()
