# Cross-compiles for 64-bit Windows with clang and lld of LLVM 19. Headers, C runtime and libstdc++ are those of Debian's
# MinGW-w64 (posix threads: std::thread and wxThread agree).
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_C_COMPILER clang-19)
set(CMAKE_CXX_COMPILER clang++-19)
set(CMAKE_C_COMPILER_TARGET x86_64-w64-windows-gnu)
set(CMAKE_CXX_COMPILER_TARGET x86_64-w64-windows-gnu)
set(CMAKE_AR llvm-ar-19)
set(CMAKE_RANLIB llvm-ranlib-19)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)

# clang itself would take any MinGW that it finds. The folders are those of this compiler.
set(FC_MINGW_COMPILER x86_64-w64-mingw32-g++-posix)
execute_process(COMMAND ${FC_MINGW_COMPILER} -print-libgcc-file-name OUTPUT_VARIABLE fc_libgcc
                OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
cmake_path(GET fc_libgcc PARENT_PATH fc_gcc_folder)
set(fc_cxx_folder "${fc_gcc_folder}/include/c++")
if(NOT EXISTS "${fc_cxx_folder}")
    message(FATAL_ERROR "no C++ headers in ${fc_cxx_folder}: is g++-mingw-w64-x86-64-posix installed?")
endif()

# PDB files for everything, with no path of the building machine in them or in the image.
set(CMAKE_C_FLAGS_INIT "-g -gcodeview -gno-codeview-command-line")
string(JOIN " " CMAKE_CXX_FLAGS_INIT ${CMAKE_C_FLAGS_INIT} -nostdinc++ -isystem ${fc_cxx_folder}
       -isystem ${fc_cxx_folder}/x86_64-w64-mingw32 -isystem ${fc_cxx_folder}/backward)
# lld wants the library of the threads by name. CMake gives the linker the compiler's flags, too.
string(JOIN " " fc_linker_flags
    -Wno-unused-command-line-argument -fuse-ld=lld -L${fc_gcc_folder} -lpthread
    -Wl,--pdb= -Wl,-Xlink=-pdbaltpath:%_PDB% -Wl,-Xlink=-pdbsourcepath:/fc -Wl,--no-insert-timestamp)
foreach(kind EXE SHARED MODULE)
    set(CMAKE_${kind}_LINKER_FLAGS_INIT "${fc_linker_flags}")
endforeach()

set(CMAKE_FIND_ROOT_PATH /usr/x86_64-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
