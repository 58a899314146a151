# Where binaries go, and the flags of everything built here.
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/bin")
set(FC_TRAPPING "${CMAKE_BINARY_DIR}/bin-trapping")  # the module that crashes on undefined behaviour
set(FC_COVERED "${CMAKE_BINARY_DIR}/covered")  # the module that counts what is reached

if(MSVC)
    add_compile_options(/W4 /permissive- /utf-8 /EHsc)
    add_compile_definitions(NOMINMAX _CRT_SECURE_NO_WARNINGS)  # fopen and sscanf are used deliberately
    # So are inet_addr, inet_ntoa and GetVersionExW: the module depends on exactly their results.
    add_compile_definitions(_WINSOCK_DEPRECATED_NO_WARNINGS BUILD_WINDOWS)
else()
    add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wformat=2
                        -Wno-unknown-pragmas
                        # Packages contain no path of the build machine.
                        -ffile-compilation-dir=.
                        "-ffile-prefix-map=${CMAKE_SOURCE_DIR}=." "-ffile-prefix-map=${CMAKE_BINARY_DIR}=build"
                        "-ffile-prefix-map=${FC_LIBRARIES}=libraries" "-ffile-prefix-map=${FC_HEADERS}=headers")
    add_link_options(-Wl,--dynamicbase -Wl,--high-entropy-va -Wl,--nxcompat)
    include("${CMAKE_CURRENT_LIST_DIR}/stack-guard.cmake")
endif()

add_compile_definitions(UNICODE _UNICODE _WIN32_WINNT=0x0A00 WINVER=0x0A00)

# fc_build_fast(TARGET headers...), fc_build_fast(TARGET REUSE_FROM OTHER): for the devkit and the tests, whose build
# time matters more than their speed. The headers are precompiled, or the other target's are reused, which must have the
# same definitions. FC_FAST_LEVEL is the level of optimization.
set(FC_FAST_LEVEL -O1)
function(fc_build_fast target)
    if(NOT MSVC)
        target_compile_options(${target} PRIVATE ${FC_FAST_LEVEL} -g1)
    endif()
    if("${ARGV1}" STREQUAL "REUSE_FROM")
        target_precompile_headers(${target} ${ARGN})
    else()
        target_precompile_headers(${target} PRIVATE ${ARGN})
    endif()
endfunction()
