#include "SimulatedSystem.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <set>
#include <span>
#include <string_view>
#include <utility>

#include <windows.h>

#include "Clock.h"
#include "FastForward.h"
#include "FunctionSet.h"
#include "ImportTable.h"
#include "Installation.h"
#include "MappedPaths.h"

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

struct SimulatedSystem::Parts {
    std::shared_ptr<Simulator::Core> core = std::make_shared<Simulator::Core>();
    Simulator::MappedPaths paths;
    std::optional<Installation> installation;
    std::optional<FastForward> fastForward;  // ends after the functions, which let its threads go
    Simulator::FunctionSet functions{core};
};

SimulatedSystem::SimulatedSystem() = default;
SimulatedSystem::~SimulatedSystem() = default;

SimulatedSystem::Parts &SimulatedSystem::Use() {
    if (m_parts == nullptr) {
        m_parts = std::make_unique<Parts>();
        m_parts->core->journal.MuteAll();  // nobody reads it here, and a script may run for days
    }
    return *m_parts;
}

/// All functions of the set; called whenever a part has come to it.
void SimulatedSystem::PutUnderModule() {
    m_parts->functions.AttachWhenLoaded(kModule);
    m_parts->functions.Attach(GetModuleHandleW(kModule));
}

void SimulatedSystem::StartFastClock(unsigned factor) {
    Parts &parts = Use();
    Simulator::InstallClock(parts.functions, parts.core->clock);
    m_hasClock = true;
    const std::set<std::string> clockFunctions = parts.functions.Names();
    parts.functions.Attach(GetModuleHandleW(nullptr), {"Sleep", "WaitForSingleObject", "GetSystemTimeAsFileTime"});
    parts.functions.Attach(FindWx(), clockFunctions);
    for (const wchar_t *library : kLoadedLibraries)
        parts.functions.Attach(GetModuleHandleW(library), clockFunctions);
    PutUnderModule();
    parts.fastForward.emplace(parts.core);
    parts.core->clock.RunFast(factor);
}

void SimulatedSystem::Advance(double seconds) {
    constexpr double intervalsPerSecond = Simulator::Interval::period::den;
    m_parts->core->clock.Advance(Simulator::Interval(std::llround(seconds * intervalsPerSecond)));
}

void SimulatedSystem::SetWallClock(std::int64_t seconds) {
    m_parts->core->clock.SetWallClockUnix(seconds);
}

void SimulatedSystem::AdvanceWhenHit(std::shared_ptr<Simulator::FaultPlan> plan, unsigned long milliseconds) {
    m_parts->fastForward->WhenHit(std::move(plan), milliseconds);
}

Simulator::Machine &SimulatedSystem::UseMachine() {
    if (!m_hasMachine) {
        Simulator::InstallMachine(Use().functions, m_machine);
        PutUnderModule();
        m_hasMachine = true;
    }
    return m_machine;
}

Installation &SimulatedSystem::UseInstallation() {
    Parts &parts = Use();
    if (!parts.installation) {
        (void)UseMachine();
        if (!m_hasClock)
            Simulator::InstallClock(parts.functions, parts.core->clock);  // as the real one
        parts.installation.emplace();
        parts.installation->PutUnder(parts.functions, parts.core, m_machine);
        PutUnderModule();
    }
    return *parts.installation;
}

const Installation *SimulatedSystem::FindInstallation() const {
    return m_parts != nullptr && m_parts->installation ? &*m_parts->installation : nullptr;
}

Simulator::Faults &SimulatedSystem::UseFaults() {
    (void)UseInstallation();
    return m_parts->core->faults;
}

bool SimulatedSystem::CanFail(std::string_view call) {
    const auto has = [call](std::span<const char *const> methods) {
        return std::find(methods.begin(), methods.end(), call) != methods.end();
    };
    return Simulator::ReplaceableFunctions().count(call) != 0 || has(Simulator::NetworkMethods()) ||
           has(Simulator::FirewallMethods());
}

std::size_t SimulatedSystem::RecordedCalls() const {
    return m_parts == nullptr ? 0 : m_parts->core->journal.Entries().size();
}

void SimulatedSystem::MapPath(const std::wstring &from, const std::wstring &folder) {
    Parts &parts = Use();
    parts.paths.MapPath(from, folder);
    if (!m_hasPaths) {
        Simulator::InstallMappedPaths(parts.functions, parts.paths);
        PutUnderModule();
        m_hasPaths = true;
    }
}

void SimulatedSystem::End() {
    m_parts.reset();
    m_hasClock = m_hasMachine = m_hasPaths = false;
}
