// The simulated machine: its processor queue, its processors, its memory, the version of its system.
#pragma once

#include <cstdint>

#include <windows.h>

namespace Simulator {

class FunctionSet;

/// What the machine reports from the next call on. Do not change it while another thread queries it.
struct Machine {
    double processorQueue = 0;  ///< \System\Processor Queue Length, when it is collected; any double, even NaN.
    DWORD processorCount = 4;   ///< May be 0.
    std::uint64_t memoryTotal = std::uint64_t{8} << 30;      ///< Bytes of physical memory; may be 0.
    std::uint64_t memoryAvailable = std::uint64_t{4} << 30;  ///< Bytes; may exceed the total.
    DWORD osMajor = 10;
    DWORD osMinor = 0;
    DWORD osBuild = 19045;
    WORD servicePack = 0;                   ///< Its major number; the minor is 0.
    BYTE productType = VER_NT_WORKSTATION;  ///< Or VER_NT_SERVER, VER_NT_DOMAIN_CONTROLLER.
    WORD suiteMask = VER_SUITE_SINGLEUSERTS;
};

/// Simulates these functions with the machine:
/// - PdhOpenQueryW, PdhAddCounterW, PdhCollectQueryData, PdhGetFormattedCounterValue and PdhCloseQuery. The only
///   counter is \System\Processor Queue Length (case-insensitive), and its only format PDH_FMT_DOUBLE. It has data
///   from the first collection after it was added, and keeps it until the next. Handles of queries and counters are
///   never reused; those of a closed query are invalid.
/// - GetSystemInfo, of which only the number of processors is the machine's.
/// - GlobalMemoryStatusEx, whose physical memory and load are the machine's; fails with ERROR_INVALID_PARAMETER
///   unless dwLength is right.
/// - GetVersionExW; fails with ERROR_INSUFFICIENT_BUFFER unless dwOSVersionInfoSize is that of one of the two structs.
/// - VerifyVersionInfoW; fails with ERROR_OLD_WIN_VERSION, and with ERROR_BAD_ARGUMENTS if no field is compared, or one
///   without a condition.
/// - wxWidgets' wxGetOsVersion, which queries the system only once in a process.
/// Failing calls do not change their output parameters.
/// @param machine  outlives the set.
void InstallMachine(FunctionSet &functions, Machine &machine);

}  // namespace Simulator
