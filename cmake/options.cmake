# Where binaries go, and the flags of everything that is built here.
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/bin")

if(MSVC)
    add_compile_options(/W4 /WX /permissive- /utf-8 /EHsc)
else()
    add_compile_options(-Wall -Wextra -Wpedantic -Werror -Wshadow -Wconversion -Wsign-conversion -Wformat=2
                        -Wno-unknown-pragmas -g)
    add_link_options(-Wl,--dynamicbase -Wl,--high-entropy-va -Wl,--nxcompat)
endif()

add_compile_definitions(UNICODE _UNICODE _WIN32_WINNT=0x0A00 WINVER=0x0A00)
