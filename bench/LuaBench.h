// Measurements in a Lua state: the same loop around different functions.
#pragma once

#include <string>

#include <lua.hpp>

#include "BlockPool.h"

/// A Lua state that loads modules from this program's folder, which the global `folder` names. One at a time: fc.dll is
/// unloaded with it, so that the next measurement loads it afresh.
class LuaBench {
public:
    LuaBench();
    ~LuaBench();
    LuaBench(const LuaBench &) = delete;
    LuaBench &operator=(const LuaBench &) = delete;

    operator lua_State *() const { return m_state; }

    /// Runs code; an error ends the program with its message.
    void Run(const std::string &code);
    /// Seconds that a chunk takes with the garbage collector stopped; earlier garbage is collected first.
    double Time(const std::string &code);
    double Number(const std::string &expression);

private:
    BlockPool m_pool;  ///< Outlives the state.
    lua_State *m_state;
};
