# What `cmake --install` lays down: the shared library, the headers, and both ways to find them.

include(CMakePackageConfigHelpers)

set(include_dir "${CMAKE_INSTALL_INCLUDEDIR}/oryx-dal")
install(TARGETS oryx-dal EXPORT oryx-dal
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
  FILE_SET dal DESTINATION "${include_dir}"
  FILE_SET platform DESTINATION "${include_dir}")

set(package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/oryx-dal")
install(EXPORT oryx-dal NAMESPACE oryx:: FILE oryx-dal-config.cmake DESTINATION "${package_dir}")
write_basic_package_version_file("${PROJECT_BINARY_DIR}/oryx-dal-config-version.cmake" COMPATIBILITY SameMajorVersion)
install(FILES "${PROJECT_BINARY_DIR}/oryx-dal-config-version.cmake" DESTINATION "${package_dir}")

# Relative, so that the installed tree can be moved.
set(pkgconfig_dir "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
file(RELATIVE_PATH prefix_from_pkgconfig "/prefix/${pkgconfig_dir}" "/prefix")
configure_file("${CMAKE_CURRENT_LIST_DIR}/oryx-dal.pc.in" "${PROJECT_BINARY_DIR}/oryx-dal.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/oryx-dal.pc" DESTINATION "${pkgconfig_dir}")
