# Where binaries go, and the flags of everything that is built here.
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/bin")

if(MSVC)
    add_compile_options(/W4 /WX /permissive- /utf-8 /EHsc)
    add_compile_definitions(_CRT_SECURE_NO_WARNINGS)  # fopen and sscanf are meant
else()
    add_compile_options(-Wall -Wextra -Wpedantic -Werror -Wshadow -Wconversion -Wsign-conversion -Wformat=2
                        -Wno-unknown-pragmas
                        # No path of the building machine goes into what is handed out.
                        "-ffile-prefix-map=${CMAKE_SOURCE_DIR}=." "-ffile-prefix-map=${CMAKE_BINARY_DIR}=build"
                        "-ffile-prefix-map=${FC_LIBRARIES}=libraries")
    add_link_options(-Wl,--dynamicbase -Wl,--high-entropy-va -Wl,--nxcompat)
endif()

add_compile_definitions(UNICODE _UNICODE _WIN32_WINNT=0x0A00 WINVER=0x0A00)

# fc_build_fast(TARGET headers...), fc_build_fast(TARGET REUSE_FROM OTHER): for the devkit and the tests, which are to be
# built fast rather than to be fast. The headers are precompiled, or the other target's are taken, which must have the
# same definitions; ./dev check does without.
function(fc_build_fast target)
    if(NOT MSVC)
        # The two warnings are false alarms of GCC 12 in libstdc++'s strings at this level.
        target_compile_options(${target} PRIVATE -O1 -g1 -Wno-array-bounds -Wno-stringop-overread)
    endif()
    if("${ARGV1}" STREQUAL "REUSE_FROM")
        target_precompile_headers(${target} ${ARGN})
    else()
        target_precompile_headers(${target} PRIVATE ${ARGN})
    endif()
endfunction()
