# The libraries that ./dev has built into FC_LIBRARIES.
set(FC_LIBRARIES "" CACHE PATH "folder with wxWidgets base, Lua 5.2 and cJSON")
if(NOT EXISTS "${FC_LIBRARIES}/complete")
    message(FATAL_ERROR "FC_LIBRARIES ('${FC_LIBRARIES}') holds no libraries: build with ./dev, which makes them")
endif()

add_library(wx SHARED IMPORTED)
file(GLOB wx_dll "${FC_LIBRARIES}/lib/*/wxbase32u_*.dll")
file(GLOB wx_implib "${FC_LIBRARIES}/lib/*/*wxbase32u.*a" "${FC_LIBRARIES}/lib/*/wxbase32u.lib")
cmake_path(GET wx_dll PARENT_PATH wx_dir)
set_target_properties(wx PROPERTIES IMPORTED_LOCATION "${wx_dll}" IMPORTED_IMPLIB "${wx_implib}")
target_include_directories(wx SYSTEM INTERFACE "${wx_dir}/baseu" "${FC_LIBRARIES}/include")
target_compile_definitions(wx INTERFACE __WXMSW__ WXUSINGDLL wxUSE_GUI=0)

add_library(lua SHARED IMPORTED)
set_target_properties(lua PROPERTIES IMPORTED_LOCATION "${FC_LIBRARIES}/bin/lua52.dll"
                                     IMPORTED_IMPLIB "${FC_LIBRARIES}/lib/liblua52.dll.a")
target_include_directories(lua SYSTEM INTERFACE "${FC_LIBRARIES}/include")
target_compile_definitions(lua INTERFACE LUA_BUILD_AS_DLL LUA_COMPAT_ALL)

add_library(cjson STATIC IMPORTED)
set_target_properties(cjson PROPERTIES IMPORTED_LOCATION "${FC_LIBRARIES}/lib/libcjson.a")
target_include_directories(cjson SYSTEM INTERFACE "${FC_LIBRARIES}/include")
target_compile_definitions(cjson INTERFACE CJSON_HIDE_SYMBOLS)

set(FC_HEADERS "" CACHE PATH "folder with robin-map and xxHash")
if(NOT EXISTS "${FC_HEADERS}/complete")
    message(FATAL_ERROR "FC_HEADERS ('${FC_HEADERS}') holds no headers: build with ./dev, which copies them")
endif()
add_library(header_libraries INTERFACE IMPORTED)
target_include_directories(header_libraries SYSTEM INTERFACE "${FC_HEADERS}/include")

file(MAKE_DIRECTORY "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}")
# Everything a program of ours needs beside itself, once, in the folder of the binaries.
file(COPY_FILE "${wx_dll}" "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/wxbase32u_gcc_custom.dll" ONLY_IF_DIFFERENT)
file(COPY_FILE "${FC_LIBRARIES}/bin/lua52.dll" "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/lua52.dll" ONLY_IF_DIFFERENT)
foreach(runtime libstdc++-6.dll libgcc_s_seh-1.dll libwinpthread-1.dll zlib1.dll)
    execute_process(COMMAND "${CMAKE_CXX_COMPILER}" "-print-file-name=${runtime}" OUTPUT_VARIABLE path
                    OUTPUT_STRIP_TRAILING_WHITESPACE)
    if(NOT EXISTS "${path}")
        set(path "/usr/x86_64-w64-mingw32/lib/${runtime}")
    endif()
    file(COPY_FILE "${path}" "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/${runtime}" ONLY_IF_DIFFERENT)
endforeach()
