#include "Steps.h"

#include <array>

namespace {

struct Step {
    std::uint32_t id;
    const wchar_t *name;
    std::uint32_t limitSeconds;
    bool isLogged = true;
};

constexpr std::uint32_t kNeverBegun = 0;
/// compat 90: four steps log neither their start nor their end
constexpr bool kNotLogged = false;

constexpr std::array<Step, 22> kSteps{{
    {ThreadRunning, L"ThreadRunning", 3'600},
    {ApplyingInetCfgChanges, L"ApplyingInetCfgChanges", 300},
    {CheckingIfStillInstalled, L"CheckingIfStillInstalled", 60},
    {CleaningUpOrphans, L"CleaningUpOrphans", 180},
    {CopyingInfFiles, L"CopyingInfFiles", 600},
    {EnsuringDriverUnloaded, L"EnsuringDriverUnloaded", 60},
    {FindingComponent, L"FindingComponent", 15},
    {GettingAdapterInfo, L"GettingAdapterInfo", 10},
    {GettingClassGUID, L"GettingClassGUID", 10},
    {GettingInetCfg, L"GettingInetCfg", 10, kNotLogged},
    {GettingINetCfgClass, L"GettingINetCfgClass", 10},
    {GettingINetCfgClassSetup, L"GettingINetCfgClassSetup", 10},
    {GettingNetworkConfigLock, L"GettingNetworkConfigLock", 30, kNotLogged},
    {InstallingDriver, L"InstallingDriver", 600},
    {ReleasingInetCfg, L"ReleasingInetCfg", 10, kNotLogged},
    {ReleasingNetworkConfigLock, L"ReleasingNetworkConfigLock", 10, kNotLogged},
    {RemovingInfFiles, L"RemovingInfFiles", 300},
    {UninstallingDriver, L"UninstallingDriver", 600},
    {InstallingWfpCalloutDriver, L"InstallingWfpCalloutDriver", 300},
    {UninstallingWfpCalloutDriver, L"UninstallingWfpCalloutDriver", 300},
    // compat 91: no code starts these two
    {StartingWfpCalloutDriver, L"StartingWfpCalloutDriver", kNeverBegun},
    {StoppingWfpCalloutDriver, L"StoppingWfpCalloutDriver", kNeverBegun},
}};

consteval bool AreStepsInOrderOfIds() {
    for (std::uint32_t id = 0; id < kSteps.size(); ++id)
        if (kSteps[id].id != id)
            return false;
    return true;
}
static_assert(AreStepsInOrderOfIds(), "an id is the place in the table");

constexpr Step kUnknownStep{NoStep, L"<UnknownStep>", kNeverBegun};

Step StepWithId(std::uint32_t id) {
    return id < kSteps.size() ? kSteps[id] : kUnknownStep;
}

}  // namespace

const wchar_t *StepName(std::uint32_t step) {
    return StepWithId(step).name;
}

std::uint32_t StepLimitSeconds(std::uint32_t step) {
    return StepWithId(step).limitSeconds;
}

bool IsSilentStep(std::uint32_t step) {
    return !StepWithId(step).isLogged;
}
