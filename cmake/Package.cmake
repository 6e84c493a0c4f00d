# Installs the library with what finds it: a CMake package and a pkg-config file.
include(CMakePackageConfigHelpers)

set(tavrik_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/tavrik)
install(TARGETS tavrik EXPORT tavrikTargets ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY ${tavrik_include_dir}/tavrik DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT tavrikTargets NAMESPACE tavrik:: DESTINATION ${tavrik_package_dir})

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/tavrikConfig.cmake.in
  ${PROJECT_BINARY_DIR}/tavrikConfig.cmake INSTALL_DESTINATION ${tavrik_package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/tavrikConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/tavrikConfig.cmake
  ${PROJECT_BINARY_DIR}/tavrikConfigVersion.cmake DESTINATION ${tavrik_package_dir})

# Relative to the file itself, so that the installation can be moved.
file(RELATIVE_PATH tavrik_pc_prefix
  /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(${CMAKE_CURRENT_LIST_DIR}/tavrik.pc.in ${PROJECT_BINARY_DIR}/tavrik.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tavrik.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
