# Three packages from one build: the handler where the daemon looks for handlers, the declarations for authors of
# handlers, and the appliance on a desk. scripts/package makes them all.

set(CV_PACKAGE_CONTACT "cvcloudregisterhandler maintainers <maintainers@cvcloudregisterhandler.invalid>"
    CACHE STRING "Whom the packages name as their maintainer")

set(package_include_dir "${CMAKE_INSTALL_INCLUDEDIR}/cvcloudregisterhandler")

install(TARGETS cvcloudregisterhandler LIBRARY DESTINATION "${CV_HANDLER_DIR}" COMPONENT handler)

install(DIRECTORY "${PROJECT_SOURCE_DIR}/host/include/" DESTINATION "${package_include_dir}" COMPONENT dev)
configure_file("${PROJECT_SOURCE_DIR}/cmake/cvcloudregisterhandler.pc.in" cvcloudregisterhandler.pc @ONLY)
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

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_VENDOR "cvcloudregisterhandler maintainers")
set(CPACK_PACKAGE_CONTACT "${CV_PACKAGE_CONTACT}")
set(CPACK_COMPONENTS_ALL handler dev)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
if(CMAKE_LIBRARY_ARCHITECTURE STREQUAL "arm-linux-gnueabihf")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf) # Otherwise that of this machine.
endif()
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${CMAKE_LIBRARY_OUTPUT_DIRECTORY}")

set(CPACK_DEBIAN_HANDLER_PACKAGE_NAME cvcloudregisterhandler)
set(CPACK_DEBIAN_HANDLER_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_HANDLER_DESCRIPTION 
    "Registers the box with its maker's cloud when a client on the local message
exchange asks for it. The daemon loads the library at its start; the utility
library that it links is the appliance's own.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME cvcloudregisterhandler-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS libjansson-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SHLIBDEPS OFF)
set(CPACK_COMPONENT_DEV_DESCRIPTION 
    "Declarations for authors of handlers: the handler interface, the cloud access
object, the message and response records and the utility library's functions,
as a handler compiles against them, for pkg-config and CMake.")

if(CV_BUILD_SANDBOX AND NOT CMAKE_CROSSCOMPILING)
    list(APPEND CPACK_COMPONENTS_ALL sandbox)
    set(CPACK_DEBIAN_SANDBOX_PACKAGE_NAME cvcloudregisterhandler-sandbox)
    set(CPACK_DEBIAN_SANDBOX_PACKAGE_SECTION devel)
    set(CPACK_DEBIAN_SANDBOX_PACKAGE_DEPENDS "cvcloudregisterhandler (= ${PROJECT_VERSION}), python3, python3-yaml")
    set(CPACK_COMPONENT_SANDBOX_DESCRIPTION 
        "An appliance on a desk: stand-ins for the cloud daemon, its utility library,
the message exchange and the maker's cloud, real enough to run a registration
on a workstation.")
endif()

# What Debian expects beside the files of every package.
set(documents "${PROJECT_BINARY_DIR}/documents")
add_custom_command(
    OUTPUT "${documents}/changelog.gz"
    COMMAND "${PROJECT_SOURCE_DIR}/scripts/debian-changelog"
        "${PROJECT_VERSION}" "${CV_PACKAGE_CONTACT}" "${documents}/changelog.gz"
    DEPENDS "${PROJECT_SOURCE_DIR}/CHANGELOG.md" "${PROJECT_SOURCE_DIR}/scripts/debian-changelog"
    VERBATIM)
add_custom_target(documents ALL DEPENDS "${documents}/changelog.gz")
foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    string(TOUPPER ${component} key)
    set(directory "${CMAKE_INSTALL_DATAROOTDIR}/doc/${CPACK_DEBIAN_${key}_PACKAGE_NAME}")
    install(FILES "${documents}/changelog.gz" DESTINATION "${directory}" COMPONENT ${component})
    install(FILES "${PROJECT_SOURCE_DIR}/cmake/copyright" DESTINATION "${directory}" COMPONENT ${component})
    install(FILES "${PROJECT_SOURCE_DIR}/cmake/lintian-overrides"
        DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides"
        RENAME "${CPACK_DEBIAN_${key}_PACKAGE_NAME}" COMPONENT ${component})
endforeach()

include(CPack)
