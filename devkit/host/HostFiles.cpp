#include "HostFiles.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Files.h"
#include "HostState.h"
#include "LuaEdge.h"
#include "Text.h"

namespace {

int CloseStream(lua_State *L) {
    auto *stream = static_cast<luaL_Stream *>(luaL_checkudata(L, 1, LUA_FILEHANDLE));
    return luaL_fileresult(L, std::fclose(stream->f) == 0, nullptr);
}

bool IsOpenMode(std::string_view mode) {
    if (mode.empty() || std::string_view("rwa").find(mode[0]) == std::string_view::npos)
        return false;
    mode.remove_prefix(1);
    if (!mode.empty() && mode[0] == '+')
        mode.remove_prefix(1);
    return mode.empty() || mode == "b";
}

/// Lua: file = io.open(name [, mode]), or nil, message, number.
int OpenFile(lua_State *L) {
    const std::string_view name = CheckText(L, 1);
    const std::string_view mode = lua_isnoneornil(L, 2) ? std::string_view("r") : CheckText(L, 2);
    luaL_argcheck(L, IsOpenMode(mode), 2, "invalid mode");
    // Closed for Lua until the file is open, so that an error in between closes nothing.
    auto *stream = static_cast<luaL_Stream *>(lua_newuserdata(L, sizeof(luaL_Stream)));
    *stream = {nullptr, nullptr};
    luaL_setmetatable(L, LUA_FILEHANDLE);
    {
        const std::wstring wideName = ToWide(name);
        const std::wstring wideMode = ToWide(mode);
        stream->f = _wfopen(wideName.c_str(), wideMode.c_str());
    }
    if (stream->f == nullptr)
        return luaL_fileresult(L, 0, name.data());
    stream->closef = CloseStream;
    return 1;
}

/// Lua: host.write_file(path, content). Replaces the file once the new one is complete; creates missing folders.
int WriteFileOfScript(lua_State *L) {
    const std::string_view path = CheckText(L, 1);
    const std::string_view content = CheckText(L, 2);
    bool written = false;
    bool pushed = false;
    {
        std::string error;
        written = WriteWholeFile(ToWide(path), content, error);
        pushed = written || PushText(L, error);
    }
    return written ? 0 : RaiseText(L, pushed);
}

}  // namespace

void AddFileFunctions(lua_State *L, HostState &host) {
    constexpr luaL_Reg functions[] = {{"write_file", WriteFileOfScript}, {nullptr, nullptr}};
    AddFunctions(L, host, functions);
}

void UseUtf8FileNames(lua_State *L) {
    lua_getglobal(L, "io");
    lua_pushcfunction(L, OpenFile);
    lua_setfield(L, -2, "open");
    lua_pop(L, 1);
}
