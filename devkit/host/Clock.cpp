#include "Clock.h"

#include <cmath>

#include <windows.h>

#include "../simulator/Clock.h"
#include "../simulator/FunctionSet.h"
#include "../simulator/ImportTable.h"

namespace {

constexpr wchar_t kModule[] = L"fc.dll";
constexpr const wchar_t *kLoadedLibraries[] = {L"vta_core.dll", L"lua52.dll"};
/// The library's whole name tells how it was built.
constexpr std::string_view kWxPrefix = "wxbase";

HMODULE FindWx() {
    for (const Simulator::Import &import : Simulator::Imports(GetModuleHandleW(nullptr)))
        if (import.library.compare(0, kWxPrefix.size(), kWxPrefix) == 0)
            return GetModuleHandleA(import.library.c_str());
    return nullptr;
}

}  // namespace

struct Clock::Simulation {
    std::shared_ptr<Simulator::Core> core = std::make_shared<Simulator::Core>();
    Simulator::FunctionSet functions{core};
};

Clock::Clock() = default;
Clock::~Clock() = default;

void Clock::StartFast(unsigned factor) {
    m_simulation = std::make_unique<Simulation>();
    Simulator::FunctionSet &functions = m_simulation->functions;
    Simulator::InstallClock(functions, m_simulation->core->clock);
    for (const std::string &function : functions.Names())
        m_simulation->core->journal.Mute(function);  // nobody reads it here, and a script may run for days
    functions.Attach(GetModuleHandleW(nullptr), {"Sleep", "GetSystemTimeAsFileTime"});  // HostClock.cpp
    functions.Attach(FindWx());
    for (const wchar_t *library : kLoadedLibraries)
        functions.Attach(GetModuleHandleW(library));
    functions.AttachWhenLoaded(kModule);
    m_simulation->core->clock.RunFast(factor);
}

void Clock::Advance(double seconds) {
    constexpr double intervalsPerSecond = Simulator::Interval::period::den;
    m_simulation->core->clock.Advance(Simulator::Interval(std::llround(seconds * intervalsPerSecond)));
}
