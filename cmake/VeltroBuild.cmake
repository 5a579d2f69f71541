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
set(VELTRO_SANITIZER "" CACHE STRING "The sanitizer in CMAKE_CXX_FLAGS, if any: address or thread")

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
  # 64-bit integers stay in pairs of general registers: handed from call to call in halves and then
  # read whole by a vector register, each costs a failed store forwarding.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    add_compile_options(-mno-stv)
  endif()
endif()

set(VELTRO_WARNINGS -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror)
if(VELTRO_SANITIZER AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # The instrumentation hides from gcc that std::function's members are set.
  list(APPEND VELTRO_WARNINGS -Wno-maybe-uninitialized)
endif()

# Nobody may take over our functions from outside, so calls among them are direct. The glibc checks
# need an optimiser, and would hide from the sanitizers what they look for.
set(VELTRO_SHIPPED_COMPILE -fno-semantic-interposition -fstack-protector-strong)
if(NOT VELTRO_SANITIZER)
  list(APPEND VELTRO_SHIPPED_COMPILE
    $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE>
    $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-D_FORTIFY_SOURCE=2>)
endif()
# Across files too: what the linker binds, the loader need not look up in every start of a program.
set(VELTRO_SHIPPED_LINK
  -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack -Wl,-O1 -Wl,-Bsymbolic-functions)

# A fuzz target is one program, so that it reaches the insides of the libraries too.
set(VELTRO_LIBRARY_TYPE SHARED)
if(VELTRO_FUZZ)
  set(VELTRO_LIBRARY_TYPE STATIC)
endif()

# veltro_library(target NAME soname-stem VERSION_SCRIPT file): a shared library of ours, soname
# lib<stem>.so.0, exported as KivVeltro::<target>. Installed, the libraries find each other in the
# folder they are in (CMAKE_SKIP_INSTALL_RPATH leaves that to the system's loader).
function(veltro_library target)
  cmake_parse_arguments(ARG "" "NAME;VERSION_SCRIPT" "" ${ARGN})
  add_library(${target} ${VELTRO_LIBRARY_TYPE})
  add_library(KivVeltro::${target} ALIAS ${target})
  set_target_properties(${target} PROPERTIES
    OUTPUT_NAME "${ARG_NAME}" VERSION ${PROJECT_VERSION} SOVERSION 0
    INSTALL_RPATH "$ORIGIN"
    LINK_DEPENDS "${ARG_VERSION_SCRIPT}")
  target_compile_options(${target} PRIVATE ${VELTRO_WARNINGS} ${VELTRO_SHIPPED_COMPILE})
  target_compile_features(${target} PUBLIC cxx_std_17)
  target_compile_definitions(${target} PUBLIC _FILE_OFFSET_BITS=64)
  target_link_options(${target} PRIVATE
    "-Wl,--version-script=${ARG_VERSION_SCRIPT}" ${VELTRO_SHIPPED_LINK})
  install(TARGETS ${target} EXPORT KivVeltro
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev)
  set_property(GLOBAL APPEND PROPERTY VELTRO_LIBRARIES ${target})
endfunction()
