#include "SimulatedSystem.h"

#include <algorithm>
#include <chrono>
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
/// The library's full name depends on how it was built.
constexpr std::string_view kWxPrefix = "wxbase";
/// A method, and what the module's events call it.
constexpr std::string_view kBinding = "INetCfgBindingPath::Enable";
constexpr std::string_view kBindingInEvents = "INetCfgBindingInterface::Enable";

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
    std::optional<FastForward> fastForward;  // destroyed after the functions, which release its threads
    Simulator::FunctionSet functions{core};
    std::set<std::string> wxFunctions;  ///< Those of them that are put under wxWidgets.
};

SimulatedSystem::SimulatedSystem() = default;
SimulatedSystem::~SimulatedSystem() = default;

SimulatedSystem::Parts &SimulatedSystem::Use() {
    if (m_parts == nullptr) {
        m_parts = std::make_unique<Parts>();
        m_parts->core->journal.MuteAll();  // nothing reads it here, and a script may run for days
    }
    return *m_parts;
}

/// All functions of the set; called whenever a part was added to it.
void SimulatedSystem::PutUnderModule() {
    m_parts->functions.AttachWhenLoaded(kModule);
    m_parts->functions.Attach(GetModuleHandleW(kModule));
}

void SimulatedSystem::PutClock() {
    Parts &parts = Use();
    Simulator::InstallClock(parts.functions, parts.core->clock);
    m_hasClock = true;
    const std::set<std::string> clockFunctions = parts.functions.Names();
    parts.functions.Attach(GetModuleHandleW(nullptr), {"Sleep", "WaitForSingleObject", "GetSystemTimeAsFileTime"});
    parts.wxFunctions.insert(clockFunctions.begin(), clockFunctions.end());
    parts.functions.Attach(FindWx(), parts.wxFunctions);
    for (const wchar_t *library : kLoadedLibraries)
        parts.functions.Attach(GetModuleHandleW(library), clockFunctions);
    PutUnderModule();
}

void SimulatedSystem::StartFastClock(unsigned factor, std::function<void(double seconds)> late) {
    PutClock();
    if (late)
        m_parts->core->clock.OnLate([late = std::move(late)](Simulator::Interval delay) {
            late(std::chrono::duration<double>(delay).count());
        });
    m_parts->fastForward.emplace(m_parts->core);
    m_parts->core->clock.RunFast(factor);
}

void SimulatedSystem::StartSteppedClock() {
    constexpr std::int64_t begin = 1'767'225'600;  // 1 January 2026, 00:00 UTC
    Simulator::InstallTurns(Use().functions, Use().core);
    PutClock();
    m_parts->core->clock.TakeTurns(begin);
}

void SimulatedSystem::Advance(double seconds) {
    constexpr double intervalsPerSecond = Simulator::Interval::period::den;
    m_parts->core->clock.Advance(Simulator::Interval(std::llround(seconds * intervalsPerSecond)));
}

void SimulatedSystem::SetWallClock(std::int64_t seconds) {
    m_parts->core->clock.SetWallClockUnix(seconds);
}

void SimulatedSystem::AdvanceWhenHit(std::shared_ptr<Simulator::FaultPlan> plan, unsigned long milliseconds) {
    if (m_parts->fastForward)
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
            Simulator::InstallClock(parts.functions, parts.core->clock);  // like the real one
        parts.installation.emplace();
        parts.installation->PutUnder(parts.functions, parts.core, m_machine);
        parts.wxFunctions.insert({"_beginthreadex", "ResumeThread", "TerminateThread"});
        parts.functions.Attach(FindWx(), parts.wxFunctions);
        PutUnderModule();
    }
    return *parts.installation;
}

const Installation *SimulatedSystem::FindInstallation() const {
    return m_parts != nullptr && m_parts->installation ? &*m_parts->installation : nullptr;
}

void SimulatedSystem::KillThreads() {
    if (m_parts == nullptr)
        return;
    m_parts->core->clock.GetTurns().KillOthers();
    m_parts->core->faults.KillHung();
}

void SimulatedSystem::EndProcess() {
    if (m_parts != nullptr && m_parts->installation)
        m_parts->installation->EndProcess();
}

void SimulatedSystem::Reboot() {
    UseInstallation().Reboot();
    if (m_hasClock)
        m_parts->core->clock.SetTick(0);
}

Simulator::Faults &SimulatedSystem::UseFaults() {
    (void)UseInstallation();
    return m_parts->core->faults;
}

std::vector<std::string> SimulatedSystem::Calls() {
    std::vector<std::string> calls;
    for (const auto &[name, canFail] : Simulator::ReplaceableFunctions())
        calls.emplace_back(name);
    for (const std::span<const char *const> methods : {Simulator::NetworkMethods(), Simulator::FirewallMethods()})
        calls.insert(calls.end(), methods.begin(), methods.end());
    std::sort(calls.begin(), calls.end());
    return calls;
}

std::optional<std::string_view> SimulatedSystem::FindCall(std::string_view name) {
    name = name.substr(0, name.find('('));
    if (name == kBindingInEvents)
        name = kBinding;
    if (const auto function = Simulator::ReplaceableFunctions().find(name);
        function != Simulator::ReplaceableFunctions().end())
        return function->first;
    if (const auto wide = Simulator::ReplaceableFunctions().find(std::string(name) + "W");
        wide != Simulator::ReplaceableFunctions().end())
        return wide->first;
    for (const std::span<const char *const> methods : {Simulator::NetworkMethods(), Simulator::FirewallMethods()}) {
        const auto method = std::find(methods.begin(), methods.end(), name);
        if (method != methods.end())
            return *method;
    }
    return std::nullopt;
}

bool SimulatedSystem::CanFail(std::string_view call) {
    const auto function = Simulator::ReplaceableFunctions().find(call);
    return function == Simulator::ReplaceableFunctions().end() || function->second;
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
