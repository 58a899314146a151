# The target header_checks, for ./dev check: compiles each header of the product and of interfaces/ alone, and each body of
# the driver threads' classes, so that none depends on what another includes before it.
file(GLOB_RECURSE headers CONFIGURE_DEPENDS RELATIVE "${PROJECT_SOURCE_DIR}" plugins/*.h interfaces/*.h)
file(GLOB bodies CONFIGURE_DEPENDS RELATIVE "${PROJECT_SOURCE_DIR}" plugins/filter/WindowsDriverInstaller/threads/*.cpp)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${headers})

# vta_core.h includes most of the system's headers. It is precompiled for those that include it, or a class of the driver
# threads, which does, and windows.h for those that include that; never for others, which would not have to include what
# they use.
set(core_sources "")
set(windows_sources "")
set(other_sources "")
foreach(file IN LISTS headers bodies)
    set(source "${CMAKE_BINARY_DIR}/headers/${file}.cpp")
    file(CONFIGURE OUTPUT "${source}" CONTENT "#include \"${PROJECT_SOURCE_DIR}/${file}\"\n" @ONLY)
    file(STRINGS "${PROJECT_SOURCE_DIR}/${file}" core_include REGEX "^#include \"(vta_core|CDriver[A-Za-z]+)\\.h\"")
    file(STRINGS "${PROJECT_SOURCE_DIR}/${file}" windows_include REGEX "^#include <windows\\.h>")
    if(core_include)
        list(APPEND core_sources "${source}")
    elseif(windows_include)
        list(APPEND windows_sources "${source}")
    else()
        list(APPEND other_sources "${source}")
    endif()
endforeach()
add_library(core_header_checks OBJECT EXCLUDE_FROM_ALL ${core_sources})
target_precompile_headers(core_header_checks PRIVATE <vta_core.h>)
add_library(windows_header_checks OBJECT EXCLUDE_FROM_ALL ${windows_sources})
target_precompile_headers(windows_header_checks PRIVATE <windows.h>)
add_library(other_header_checks OBJECT EXCLUDE_FROM_ALL ${other_sources})
add_custom_target(header_checks)
foreach(target core_header_checks windows_header_checks other_header_checks)
    add_dependencies(header_checks ${target})
    target_link_libraries(${target} PRIVATE fc_objects)
    if(NOT MSVC)
        # Without warnings: a header may leave declarations unused, and a body functions undefined.
        target_compile_options(${target} PRIVATE -O0 -g0 -w)
    endif()
endforeach()
