// What the system tells of the host's load.
#pragma once

#include <cstdint>

/// A figure of the host.
struct VmStatEntry {
    const char *const name;
    const char *const short_name;
    const std::uint64_t unused;  ///< Nothing reads it.
    std::uint64_t value;
};

/// Rows of the table.
enum VmStatRow {
    vmstat_phys_mem,
    vmstat_runQ,
    vmstat_avm,
    vmstat_freemem,
    user_cpu,
    sys_cpu,
    idle_cpu,
    wait_cpu,
    kVmStatRows
};

/// Only vmstat_phys_mem and vmstat_freemem are in use; both in KiB.
extern VmStatEntry vmStats[kVmStatRows];

/// Threads that wait for a processor, measured over 100 ms, for which the caller is held.
/// @param rqlen  receives the number.
/// @return 0 for success, 1 for a failure, which is traced.
std::int32_t queryRunQueueLength(double &rqlen);

/// Fills the two rows of the table. @return false for a failure, which is traced.
bool getMemoryMetrics();
