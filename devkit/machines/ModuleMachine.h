// A fresh module in a Lua state, with a clock that stands still until it is moved, and with everything counted that the
// module creates.
#pragma once

#include <cstdint>
#include <memory>

#include "FcModule.h"
#include "Simulation.h"

class ModuleMachine {
protected:
    /// @param parts  of the simulated Windows; the balance must be among them.
    explicit ModuleMachine(const Simulator::SimulationParts &parts);
    ~ModuleMachine();
    ModuleMachine(const ModuleMachine &) = delete;
    ModuleMachine &operator=(const ModuleMachine &) = delete;

    /// Forward, or backward for a negative number: only the wall clock moves backwards.
    void AdvanceSeconds(std::int64_t seconds);
    /// @param seconds  since 1970.
    void SetTime(std::int64_t seconds);
    [[nodiscard]] std::int64_t Time();
    /// Reloads the module, as after a restart of the process, and opens it in the same Lua state.
    void Reload();
    /// Opens the module in another state.
    void Open(lua_State *state);

    Simulator::Simulation &simulation() { return m_simulation; }
    Simulator::Balance &balance() { return m_simulation.GetBalance(); }

private:
    void Watch(HMODULE module);

    Simulator::Simulation m_simulation;
    std::unique_ptr<FcModule> m_module;

protected:
    LuaState lua;  ///< Closed before the module is unloaded.
};
