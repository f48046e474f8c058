# Three packages from one build: the handler where the daemon looks for handlers, the declarations for authors of
# handlers, and the appliance on a desk. scripts/package makes them all.

set(CV_PACKAGE_CONTACT "cvcloudregisterhandler maintainers <maintainers@cvcloudregisterhandler.invalid>"
    CACHE STRING "Whom the packages name as their maintainer")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_VENDOR "cvcloudregisterhandler maintainers")
set(CPACK_PACKAGE_CONTACT "${CV_PACKAGE_CONTACT}")
set(packages handler dev)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_SET_DESTDIR ON) # As an image is filled: what is installed sees the prefix of the system.
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
if(CMAKE_LIBRARY_ARCHITECTURE STREQUAL "arm-linux-gnueabihf")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf) # Otherwise that of this machine.
endif()
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${PROJECT_BINARY_DIR}/${sandbox_library_dir}")

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

if(CV_BUILD_SANDBOX)
    list(APPEND packages sandbox)
    set(CPACK_DEBIAN_SANDBOX_PACKAGE_NAME cvcloudregisterhandler-sandbox)
    set(CPACK_DEBIAN_SANDBOX_PACKAGE_SECTION devel)
    set(CPACK_DEBIAN_SANDBOX_PACKAGE_DEPENDS "cvcloudregisterhandler (= ${PROJECT_VERSION}), python3, python3-yaml")
    set(CPACK_COMPONENT_SANDBOX_DESCRIPTION 
        "An appliance on a desk: stand-ins for the cloud daemon, its utility library,
the message exchange and the maker's cloud, real enough to run a registration
on a workstation.")
endif()

# What Debian expects beside the files of every package, and a bill of materials in SPDX's form. No image needs them: they
# are components of their own, which only the packages hold.
set(documents "${PROJECT_BINARY_DIR}/documents")
add_custom_command(
    OUTPUT "${documents}/changelog.gz"
    COMMAND "${PROJECT_SOURCE_DIR}/scripts/debian-changelog"
        "${PROJECT_VERSION}" "${CV_PACKAGE_CONTACT}" "${documents}/changelog.gz"
    DEPENDS "${PROJECT_SOURCE_DIR}/CHANGELOG.md" "${PROJECT_SOURCE_DIR}/scripts/debian-changelog"
    VERBATIM)
add_custom_target(documents DEPENDS "${documents}/changelog.gz")

# The materials of each package: name, version found when it is configured, licence, and how the package is related to it.
# The sandbox lists its own.
set(handler_materials "jansson ${JANSSON_VERSION} MIT DYNAMIC_LINK")
set(dev_materials "jansson ${JANSSON_VERSION} MIT DEPENDS_ON")
string(TIMESTAMP created "%Y-%m-%dT%H:%M:%SZ" UTC)

set(CPACK_COMPONENTS_ALL)
foreach(package IN LISTS packages)
    string(TOUPPER ${package} key)
    set(name ${CPACK_DEBIAN_${key}_PACKAGE_NAME})
    set(component ${package}-documents)
    string(TOUPPER ${component} component_key)
    list(APPEND CPACK_COMPONENTS_ALL ${package} ${component})
    set(CPACK_COMPONENT_${key}_GROUP ${package})
    set(CPACK_COMPONENT_${component_key}_GROUP ${package})

    set(entries)
    set(relationships)
    foreach(material IN LISTS ${package}_materials)
        string(REPLACE " " ";" material ${material})
        list(GET material 0 material_name)
        list(GET material 1 material_version)
        if(NOT material_version)
            message(FATAL_ERROR "${package}_materials names ${material_name} without its version: nothing has looked for it.")
        endif()
        list(GET material 2 material_licence)
        list(GET material 3 relationship)
        string(APPEND entries ",
    {\"SPDXID\": \"SPDXRef-${material_name}\", \"name\": \"${material_name}\", \"versionInfo\": \"${material_version}\",
     \"downloadLocation\": \"NOASSERTION\", \"filesAnalyzed\": false, \"licenseDeclared\": \"${material_licence}\"}")
        string(APPEND relationships ",
    {\"spdxElementId\": \"SPDXRef-${name}\", \"relationshipType\": \"${relationship}\", \"relatedSpdxElement\": \"SPDXRef-${material_name}\"}")
    endforeach()
    configure_file("${PROJECT_SOURCE_DIR}/cmake/package.spdx.json.in" "${documents}/${name}.spdx.json" @ONLY)

    set(directory "${CMAKE_INSTALL_DATAROOTDIR}/doc/${name}")
    install(FILES "${documents}/changelog.gz" "${PROJECT_SOURCE_DIR}/cmake/copyright" "${documents}/${name}.spdx.json"
        DESTINATION "${directory}" COMPONENT ${component} EXCLUDE_FROM_ALL)
    install(FILES "${PROJECT_SOURCE_DIR}/cmake/lintian-overrides"
        DESTINATION "${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides"
        RENAME ${name} COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()

include(CPack)
