# A function with a buffer checks at its end that nothing was written beyond it: for everything built here, the libraries
# included. Include it after project().
if(MSVC)
    return()  # its default
endif()
add_compile_options(-fstack-protector-strong)
# A copy, since CMake names the object of a source outside of the project after the whole path, and a PDB file has that
# name.
configure_file("${CMAKE_CURRENT_LIST_DIR}/runtime/StackGuard.c" stack-guard/StackGuard.c COPYONLY)
add_library(stack_guard STATIC "${CMAKE_CURRENT_BINARY_DIR}/stack-guard/StackGuard.c")
target_compile_options(stack_guard PRIVATE -fno-stack-protector)
link_libraries($<BUILD_INTERFACE:stack_guard>)  # not for users of wxWidgets' installation, which lacks it
