#include "LuaBench.h"

#include <cstdio>
#include <cstdlib>

#include <windows.h>

#include "Bench.h"
#include "FcModule.h"

namespace {

void Load(lua_State *L, const std::string &code) {
    if (luaL_loadbuffer(L, code.data(), code.size(), "=bench") == LUA_OK)
        return;
    std::fprintf(stderr, "bench: %s\n", lua_tostring(L, -1));
    std::exit(2);
}

void Call(lua_State *L, int results) {
    if (lua_pcall(L, 0, results, 0) == LUA_OK)
        return;
    std::fprintf(stderr, "bench: %s\n", lua_tostring(L, -1));
    std::exit(2);
}

}  // namespace

LuaBench::LuaBench() : m_state(lua_newstate(&BlockPool::Allocate, &m_pool)) {
    luaL_openlibs(m_state);
    char path[MAX_PATH] = "";
    GetModuleFileNameA(nullptr, path, MAX_PATH);
    const std::string program = path;
    const std::string folder = program.substr(0, program.find_last_of("\\/") + 1);
    lua_pushlstring(m_state, folder.data(), folder.size());
    lua_setglobal(m_state, "folder");
    Run("package.cpath = folder .. '?.dll'");
}

LuaBench::~LuaBench() {
    lua_close(m_state);
    UnloadFc();
}

void LuaBench::Run(const std::string &code) {
    Load(m_state, code);
    Call(m_state, 0);
}

double LuaBench::Time(const std::string &code) {
    Load(m_state, code);
    lua_gc(m_state, LUA_GCCOLLECT, 0);
    // When the collector runs within a job depends on what else is alive, not on the job.
    lua_gc(m_state, LUA_GCSTOP, 0);
    const double start = Now();
    Call(m_state, 0);
    const double time = Now() - start;
    lua_gc(m_state, LUA_GCRESTART, 0);
    return time;
}

double LuaBench::Number(const std::string &expression) {
    Load(m_state, "return " + expression);
    Call(m_state, 1);
    const double number = lua_tonumber(m_state, -1);
    lua_pop(m_state, 1);
    return number;
}
