// The host's memory.
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

/// The table; vmstat_phys_mem and vmstat_freemem are in KiB.
/// compat 36: only these two of the rows and one of the numbers are used
struct HostMemory {
    VmStatEntry vmStats[kVmStatRows] = {
        {"vmstat_phys_mem", "null", 0, 0}, {"vmstat_runQ", "r", 0, 0}, {"vmstat_avm", "avm", 0, 0},
        {"vmstat_freemem", "fre", 0, 0},   {"user_cpu", "us", 0, 0},   {"sys_cpu", "sy", 15, 0},
        {"idle_cpu", "id", 0, 0},          {"wait_cpu", "wa", 0, 0},
    };
};

/// Fills the two rows of the table. @return false for a failure, which is traced.
bool getMemoryMetrics(HostMemory &memory);
