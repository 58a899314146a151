// fc.dll as the agent loads it: from the program's folder, opened by Lua states.
#pragma once

#include <string>

#include <lua.hpp>
#include <windows.h>

/// Unloads the module completely, including the reference that it holds to itself; the next user loads it fresh.
void UnloadFc();

/// The module, freshly loaded: its objects are as at the start of a process. One at a time.
class FcModule {
public:
    FcModule();
    ~FcModule() { UnloadFc(); }

    FcModule(const FcModule &) = delete;
    FcModule &operator=(const FcModule &) = delete;

    HMODULE handle() const { return m_handle; }
    lua_CFunction luaopen() const;

private:
    HMODULE m_handle;
};

/// A Lua state with the standard libraries.
class LuaState {
public:
    LuaState() : m_state(luaL_newstate()) { luaL_openlibs(m_state); }
    ~LuaState() { lua_close(m_state); }

    LuaState(const LuaState &) = delete;
    LuaState &operator=(const LuaState &) = delete;

    operator lua_State *() const { return m_state; }

    /// Runs the code; an error is a failure (Failure.h).
    void Run(const std::string &code);
    /// Runs the code, and returns the message of the error that it raises, "" if it raises none.
    std::string ErrorOf(const std::string &code);
    /// The result of tostring for an expression.
    std::string Eval(const std::string &expression);

private:
    lua_State *m_state;
};
