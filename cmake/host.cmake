# What the appliance provides: the headers that a handler compiles against, and the libcvutils that it is linked with.

set(host_headers
    cvcloud/cvcloud_api.h cvcloud/cvhandler_api.h cvcloud/message.h
    cvutils/json.h cvutils/log.h cvutils/network.h cvutils/settings.h)
set(stand_ins)
if(CV_BUILD_SANDBOX)
    list(APPEND stand_ins cvutils)
endif()
if(BUILD_TESTING)
    list(APPEND stand_ins kit_cvutils_shared)
endif()

if(NOT CV_CVUTILS_LIBRARY IN_LIST stand_ins)
    if(NOT IS_ABSOLUTE "${CV_CVUTILS_LIBRARY}" AND NOT CV_HOST_INCLUDE_DIR)
        message(FATAL_ERROR
            "CV_HOST_INCLUDE_DIR and CV_CVUTILS_LIBRARY are not set: name the directory of the maker's headers and the "
            "whole path of the maker's libcvutils.so, since CV_BUILD_SANDBOX=OFF leaves out the stand-ins.")
    elseif(NOT IS_ABSOLUTE "${CV_CVUTILS_LIBRARY}")
        message(FATAL_ERROR
            "CV_CVUTILS_LIBRARY is '${CV_CVUTILS_LIBRARY}': name the whole path of the maker's libcvutils.so.")
    elseif(NOT CV_HOST_INCLUDE_DIR)
        message(FATAL_ERROR
            "CV_HOST_INCLUDE_DIR is not set, but CV_CVUTILS_LIBRARY is ${CV_CVUTILS_LIBRARY}: name the directory of the "
            "headers that belong to that library, for the library would be built for the stand-in's.")
    elseif(NOT EXISTS "${CV_CVUTILS_LIBRARY}" OR IS_DIRECTORY "${CV_CVUTILS_LIBRARY}")
        message(FATAL_ERROR
            "CV_CVUTILS_LIBRARY is ${CV_CVUTILS_LIBRARY}: there is no such file; name the maker's libcvutils.so.")
    endif()
    # A reference to one of its functions, for the linker takes an empty file for a library.
    set(link_check "${PROJECT_BINARY_DIR}/CMakeFiles/cvutils_link_check.cpp")
    file(WRITE "${link_check}"
        "namespace cv { namespace log { void print(int, int, const char*); } }\nvoid check() { cv::log::print(0, 0, \"\"); }\n")
    try_compile(cvutils_links "${PROJECT_BINARY_DIR}/CMakeFiles/cvutils_link_check" SOURCES "${link_check}"
        COMPILE_DEFINITIONS -fPIC
        LINK_OPTIONS -shared LINKER:-z,defs LINKER:--allow-shlib-undefined
        LINK_LIBRARIES "${CV_CVUTILS_LIBRARY}"
        OUTPUT_VARIABLE link_output)
    if(NOT cvutils_links)
        file(APPEND "${PROJECT_BINARY_DIR}/CMakeFiles/CMakeError.log" "${link_output}\n")
        message(FATAL_ERROR
            "CV_CVUTILS_LIBRARY is ${CV_CVUTILS_LIBRARY}: ${CMAKE_CXX_COMPILER} cannot link it, or it has no "
            "cv::log::print; name the maker's libcvutils.so for the target (the linker's output is in "
            "${PROJECT_BINARY_DIR}/CMakeFiles/CMakeError.log).")
    endif()
endif()

set(host_include_dir "${PROJECT_SOURCE_DIR}/host/include")
if(CV_HOST_INCLUDE_DIR)
    set(host_include_dir "${CV_HOST_INCLUDE_DIR}")
    set(host_is_system SYSTEM) # Warnings in the maker's headers are not ours.
endif()
foreach(header IN LISTS host_headers)
    if(NOT EXISTS "${host_include_dir}/${header}")
        message(FATAL_ERROR
            "CV_HOST_INCLUDE_DIR is ${host_include_dir}: it has no ${header}; name the directory of the maker's headers.")
    endif()
endforeach()

# The declarations that a handler compiles against.
add_library(cv_host INTERFACE)
target_include_directories(cv_host ${host_is_system} INTERFACE "${host_include_dir}")
target_link_libraries(cv_host INTERFACE PkgConfig::JANSSON)
