# What an image needs of the library, and what an author of handlers needs beside it.

set(package_include_dir "${CMAKE_INSTALL_INCLUDEDIR}/cvcloudregisterhandler")

install(TARGETS cvcloudregisterhandler LIBRARY DESTINATION "${CV_HANDLER_DIR}" COMPONENT handler)

install(DIRECTORY "${host_include_dir}/cvcloud" "${host_include_dir}/cvutils"
    DESTINATION "${package_include_dir}" COMPONENT dev)
# The prefix is known when something is installed: the first pass leaves its name.
set(prefix "@CMAKE_INSTALL_PREFIX@")
configure_file("${PROJECT_SOURCE_DIR}/cmake/cvcloudregisterhandler.pc.in" cvcloudregisterhandler.pc.in @ONLY)
install(CODE "configure_file(
    \"${PROJECT_BINARY_DIR}/cvcloudregisterhandler.pc.in\" \"${PROJECT_BINARY_DIR}/cvcloudregisterhandler.pc\" @ONLY)"
    COMPONENT dev)
install(FILES "${PROJECT_BINARY_DIR}/cvcloudregisterhandler.pc"
    DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT dev)

include(CMakePackageConfigHelpers)
set(package_config_dir "${CMAKE_INSTALL_LIBDIR}/cmake/cvcloudregisterhandler")
configure_package_config_file(
    "${PROJECT_SOURCE_DIR}/cmake/cvcloudregisterhandler-config.cmake.in" cvcloudregisterhandler-config.cmake
    INSTALL_DESTINATION "${package_config_dir}"
    PATH_VARS package_include_dir CV_HANDLER_DIR)
write_basic_package_version_file(cvcloudregisterhandler-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES
    "${PROJECT_BINARY_DIR}/cvcloudregisterhandler-config.cmake"
    "${PROJECT_BINARY_DIR}/cvcloudregisterhandler-config-version.cmake"
    DESTINATION "${package_config_dir}" COMPONENT dev)
