# cv_embed(TARGET FILE...): gives the target a header "embedded.h" that holds the text of each file as a string_view.
# page.css becomes embedded::page_css. The header is made anew when a file has changed.
function(cv_embed target)
    foreach(file IN LISTS ARGN)
        get_filename_component(path "${file}" ABSOLUTE)
        get_filename_component(name "${file}" NAME)
        string(MAKE_C_IDENTIFIER "${name}" name)
        set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${path}")
        file(READ "${path}" text)
        string(APPEND texts "inline constexpr std::string_view ${name} = R\"embedded(${text})embedded\";\n")
    endforeach()
    file(CONFIGURE OUTPUT "${CMAKE_CURRENT_BINARY_DIR}/embedded/${target}/embedded.h" @ONLY CONTENT
"#pragma once
#include <string_view>
namespace embedded {
@texts@} // namespace embedded
")
    target_include_directories(${target} PRIVATE "${CMAKE_CURRENT_BINARY_DIR}/embedded/${target}")
endfunction()
