#include "ModuleMachine.h"

#include <chrono>
#include <stdexcept>

ModuleMachine::ModuleMachine(const Simulator::SimulationParts &parts) : m_simulation(parts) {
    m_simulation.GetClock().Step();
    // Libraries that share the heap with the module come before it, whether the program uses them or not.
    for (const wchar_t *name : {L"" FC_WX_DLL, L"libstdc++-6.dll", L"lua52.dll", L"SLB3.dll"})
        Watch(LoadLibraryW(name));
    Watch(GetModuleHandleW(nullptr));
    // These system libraries stay loaded: loading them again takes longer than loading the module.
    for (const wchar_t *name : {L"dbghelp.dll", L"iphlpapi.dll", L"pdh.dll", L"setupapi.dll"})
        (void)LoadLibraryW(name);
    m_simulation.AttachWhenLoaded(L"fc.dll");
    m_module = std::make_unique<FcModule>();
    Open(lua);
}

ModuleMachine::~ModuleMachine() = default;

void ModuleMachine::Watch(HMODULE module) {
    if (!module || m_simulation.Attach(module) == 0)
        throw std::logic_error("a library that is to be watched is not there, or imports nothing that is counted");
}

void ModuleMachine::Open(lua_State *state) {
    lua_pushcfunction(state, m_module->luaopen());
    lua_call(state, 0, 0);
}

void ModuleMachine::AdvanceSeconds(std::int64_t seconds) {
    if (seconds >= 0)
        m_simulation.GetClock().Advance(std::chrono::seconds(seconds));
    else
        SetTime(Time() + seconds);
}

void ModuleMachine::SetTime(std::int64_t seconds) {
    m_simulation.GetClock().SetWallClockUnix(seconds);
}

std::int64_t ModuleMachine::Time() {
    return m_simulation.GetClock().WallUnix();
}

void ModuleMachine::Reload() {
    m_module.reset();
    m_module = std::make_unique<FcModule>();
    Open(lua);
}
