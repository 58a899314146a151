# The target header_checks, for ./dev check: compiles each header of the product and of interfaces/ alone, so that none
# depends on another include before it.
file(GLOB_RECURSE headers CONFIGURE_DEPENDS RELATIVE "${PROJECT_SOURCE_DIR}" plugins/*.h interfaces/*.h)
set(sources "")
foreach(header IN LISTS headers)
    set(source "${CMAKE_BINARY_DIR}/headers/${header}.cpp")
    file(CONFIGURE OUTPUT "${source}" CONTENT "#include \"${PROJECT_SOURCE_DIR}/${header}\"\n" @ONLY)
    list(APPEND sources "${source}")
endforeach()
add_library(header_checks OBJECT EXCLUDE_FROM_ALL ${sources})
target_link_libraries(header_checks PRIVATE fc_objects)
if(NOT MSVC)
    target_compile_options(header_checks PRIVATE -O0 -g0 -w)  # a header may leave declarations unused
endif()
