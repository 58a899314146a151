# The libraries that ./dev has built into FC_LIBRARIES.
set(FC_LIBRARIES "" CACHE PATH "folder with wxWidgets base, Lua 5.2 and cJSON")
if(NOT EXISTS "${FC_LIBRARIES}/complete")
    message(FATAL_ERROR "FC_LIBRARIES ('${FC_LIBRARIES}') holds no libraries: build with ./dev, which makes them")
endif()

# Copies in the build folder: they are linked by relative paths, so that the PDB files contain no path of the build
# machine.
set(linked "${CMAKE_BINARY_DIR}/libraries")
file(GLOB wx_dll "${FC_LIBRARIES}/lib/*/wxbase32u_*.dll")
file(GLOB import_libraries "${FC_LIBRARIES}/lib/*.a" "${FC_LIBRARIES}/lib/*.lib"
                           "${FC_LIBRARIES}/lib/*/*wxbase32u.*a" "${FC_LIBRARIES}/lib/*/wxbase32u.lib")
file(MAKE_DIRECTORY "${linked}")
foreach(file ${import_libraries})
    cmake_path(GET file FILENAME name)
    file(COPY_FILE "${file}" "${linked}/${name}" ONLY_IF_DIFFERENT)
endforeach()

# Its name depends on the compiler that built it.
cmake_path(GET wx_dll FILENAME wx_name)
add_compile_definitions(FC_WX_DLL="${wx_name}")

# import_library(TARGET NAME DLL): one that ./dev has built.
function(import_library target name dll)
    add_library(${target} SHARED IMPORTED)
    file(GLOB import_library "${linked}/*${name}.*a" "${linked}/${name}.lib")
    set_target_properties(${target} PROPERTIES IMPORTED_LOCATION "${dll}" IMPORTED_IMPLIB "${import_library}")
endfunction()

cmake_path(GET wx_dll PARENT_PATH wx_dir)
import_library(wx wxbase32u "${wx_dll}")
target_include_directories(wx SYSTEM INTERFACE "${wx_dir}/baseu" "${FC_LIBRARIES}/include")
target_compile_definitions(wx INTERFACE __WXMSW__ WXUSINGDLL wxUSE_GUI=0)

import_library(lua lua52 "${FC_LIBRARIES}/bin/lua52.dll")
target_include_directories(lua SYSTEM INTERFACE "${FC_LIBRARIES}/include")
target_compile_definitions(lua INTERFACE LUA_BUILD_AS_DLL LUA_COMPAT_ALL)

add_library(cjson STATIC IMPORTED)
file(GLOB cjson_library "${linked}/libcjson.a" "${linked}/cjson.lib")
set_target_properties(cjson PROPERTIES IMPORTED_LOCATION "${cjson_library}")
target_include_directories(cjson SYSTEM INTERFACE "${FC_LIBRARIES}/include")
target_compile_definitions(cjson INTERFACE CJSON_HIDE_SYMBOLS)

set(FC_HEADERS "" CACHE PATH "folder with robin-map and xxHash")
if(NOT EXISTS "${FC_HEADERS}/complete")
    message(FATAL_ERROR "FC_HEADERS ('${FC_HEADERS}') holds no headers: build with ./dev, which copies them")
endif()
add_library(header_libraries INTERFACE IMPORTED)
target_include_directories(header_libraries SYSTEM INTERFACE "${FC_HEADERS}/include")

# Everything that one of our programs needs in its folder, once: the libraries with their PDB files, and MinGW's
# runtimes.
file(GLOB beside "${FC_LIBRARIES}/bin/*.dll" "${FC_LIBRARIES}/bin/*.pdb" "${wx_dir}/wxbase32u_*.pdb")
list(APPEND beside "${wx_dll}")
if(FC_MINGW_COMPILER)
    foreach(runtime libstdc++-6.dll libgcc_s_seh-1.dll libwinpthread-1.dll zlib1.dll)
        execute_process(COMMAND "${FC_MINGW_COMPILER}" "-print-file-name=${runtime}" OUTPUT_VARIABLE path
                        OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
        list(APPEND beside "${path}")
    endforeach()
endif()
file(MAKE_DIRECTORY "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}")
set(FC_BESIDE "")  # their names
foreach(file ${beside})
    cmake_path(GET file FILENAME name)
    file(COPY_FILE "${file}" "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/${name}" ONLY_IF_DIFFERENT)
    list(APPEND FC_BESIDE "${name}")
endforeach()
