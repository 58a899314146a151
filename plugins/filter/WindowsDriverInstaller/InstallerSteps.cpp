#include "InstallerSteps.h"

#include <array>

namespace {

constexpr std::array<const wchar_t *, 22> kNames{
    L"ThreadRunning",
    L"ApplyingInetCfgChanges",
    L"CheckingIfStillInstalled",
    L"CleaningUpOrphans",
    L"CopyingInfFiles",
    L"EnsuringDriverUnloaded",
    L"FindingComponent",
    L"GettingAdapterInfo",
    L"GettingClassGUID",
    L"GettingInetCfg",
    L"GettingINetCfgClass",
    L"GettingINetCfgClassSetup",
    L"GettingNetworkConfigLock",
    L"InstallingDriver",
    L"ReleasingInetCfg",
    L"ReleasingNetworkConfigLock",
    L"RemovingInfFiles",
    L"UninstallingDriver",
    L"InstallingWfpCalloutDriver",
    L"UninstallingWfpCalloutDriver",
    // compat 91: no code starts these two
    L"StartingWfpCalloutDriver",
    L"StoppingWfpCalloutDriver",
};
static_assert(kNames.size() == StoppingWfpCalloutDriver + 1);

}  // namespace

const wchar_t *StepName(std::uint32_t step) {
    // cppcheck-suppress CastIntegerToAddressAtReturn; there is no integer
    return step < kNames.size() ? kNames[step] : L"<UnknownStep>";
}

bool IsSilentStep(std::uint32_t step) {
    // compat 90: these four log neither their start nor their end
    return step == GettingInetCfg || step == GettingNetworkConfigLock || step == ReleasingInetCfg ||
           step == ReleasingNetworkConfigLock;
}
