# What an agent's build finds the installed libraries by: the CMake package KivVeltro, and one
# pkg-config file for each library. Both can be moved with the tree they are in.
include(CMakePackageConfigHelpers)

set(VELTRO_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/KivVeltro)
write_basic_package_version_file(KivVeltroConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/KivVeltroConfigVersion.cmake cmake/KivVeltroConfig.cmake
  DESTINATION ${VELTRO_PACKAGE_DIR} COMPONENT dev)
install(EXPORT KivVeltro NAMESPACE KivVeltro:: FILE KivVeltroTargets.cmake
  DESTINATION ${VELTRO_PACKAGE_DIR} COMPONENT dev)

# A library requires those of ours that its public headers include.
get_property(libraries GLOBAL PROPERTY VELTRO_LIBRARIES)
set(pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH to_prefix /${pkgconfig_dir} /)
foreach(library ${libraries})
  set(requires "")
  get_target_property(links ${library} INTERFACE_LINK_LIBRARIES)
  foreach(link ${links})
    string(REPLACE "KivVeltro::" "" link "${link}")
    if(link IN_LIST libraries)
      string(APPEND requires " ${link}")
    endif()
  endforeach()
  configure_file(cmake/library.pc.in ${library}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${library}.pc
    DESTINATION ${pkgconfig_dir} COMPONENT dev)
endforeach()
