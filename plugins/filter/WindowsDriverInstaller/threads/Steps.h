// The steps of the driver threads. Their one table, with names and limits, is in Steps.cpp.
#pragma once

#include <cstdint>

/// Support tools know these ids; keep them.
enum InstallerStep : std::uint32_t {
    ThreadRunning = 0,
    ApplyingInetCfgChanges = 1,
    CheckingIfStillInstalled = 2,
    CleaningUpOrphans = 3,
    CopyingInfFiles = 4,
    EnsuringDriverUnloaded = 5,
    FindingComponent = 6,
    GettingAdapterInfo = 7,
    GettingClassGUID = 8,
    GettingInetCfg = 9,
    GettingINetCfgClass = 10,
    GettingINetCfgClassSetup = 11,
    GettingNetworkConfigLock = 12,
    InstallingDriver = 13,
    ReleasingInetCfg = 14,
    ReleasingNetworkConfigLock = 15,
    RemovingInfFiles = 16,
    UninstallingDriver = 17,
    InstallingWfpCalloutDriver = 18,
    UninstallingWfpCalloutDriver = 19,
    StartingWfpCalloutDriver = 20,  ///< This one and the next exist in name only: they are never started.
    StoppingWfpCalloutDriver = 21,
    NoStep = 0xFFFFFFFF
};

/// The name of a step, or "<UnknownStep>" for an unknown id.
const wchar_t *StepName(std::uint32_t step);

/// How many seconds the step may take. 0 for the two that are never started, and for an unknown id.
std::uint32_t StepLimitSeconds(std::uint32_t step);

/// Whether the step logs nothing. Its limit is watched like the others.
bool IsSilentStep(std::uint32_t step);
