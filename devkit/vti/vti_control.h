// The driver behind the stand-in for vti: what it answers, how it fails, what it was asked.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "vti.h"

namespace Vti {

/// The operations that a fault can be set for.
inline constexpr std::array kOperations{
    "vti_driver_available",
    "vti_get_blacklist",
    "vti_get_conntrack",
    "vti_get_profile_stats",
    "vti_get_scan_metrics",
    "vti_get_stats",
    "vti_get_var",
    "vti_get_varv",
    "vti_get_version",
    "vti_open",
    "vti_set_scan_monitoring",
    "vti_set_trace_handler",
    "vti_set_trace_level",
    "vti_set_var",
};

/// What one operation answers instead of doing its work.
struct Fault {
    int32_t status = 0;  ///< The status it yields.
    std::string error;   ///< What vti_get_error then tells.
    int remaining = -1;  ///< For so many calls, -1 for all of them.
    int after = 0;       ///< Only after so many calls that still work.
    unsigned met = 0;    ///< By so many calls.
};

/// A connection as the driver's table holds it.
struct Connection {
    std::array<uint8_t, 64> bytes{};
};

/// A plain value; fill it in, and look at it afterwards. Guarded by `Lock` while threads are about.
struct Driver {
    bool present = true;    ///< vti_open yields a handle.
    bool available = true;  ///< vti_driver_available yields 1.
    std::string version = "1.0.0.0";
    std::array<uint32_t, 174> variables{};
    std::array<uint16_t, 3> statsLayout{293, 21, 1};  ///< What vti_get_stats answers in its layout words.
    std::vector<Connection> udp;
    std::vector<Connection> tcp;
    std::vector<uint8_t> blacklist;
    std::vector<uint8_t> profile;
    std::array<uint64_t, 10> scanCounters{};
    /// What vti_get_scan_metrics answers as counters per row and rows. Only so many are filled in; never more than ten.
    std::array<uint32_t, 2> scanShape{10, 1};
    /// By how much a read of a table, the blacklist or the profile claims to have filled in more than it has.
    uint32_t overstatement = 0;
    /// What blacklist and profile claim as their size to a request without room; 0 for the size that they have.
    uint32_t claimedBytes = 0;
    std::vector<std::string> statsLines;  ///< What qb_dump_stats prints behind the statistics, a call each.
    std::map<std::string, Fault> faults;  ///< By the operation's name, such as "vti_get_stats".
    /// Sees each operation as `calls` has it before it does its work, and may change what the driver has. Under `Lock`.
    std::function<void(Driver &, const std::string &call)> onCall;

    // What the module did.
    std::vector<std::string> calls;  ///< Every operation in order, with its plain arguments.
    int openHandles = 0;
    std::vector<uint8_t> monitorRequest;  ///< The last ScanMonitorRequest, whole.
    std::vector<uint8_t> statsRequest;    ///< The last StatsRecord as it came in, whole,
    std::uintptr_t statsAddress = 0;      ///< and where it lay.
    volatile unsigned *profilerBlockfilter = nullptr;
    volatile unsigned *profilerRunning = nullptr;
    int32_t traceLevel = 0;
    vti_trace_handler traceHandler = nullptr;
};

/// The one driver of the process.
VTI_API Driver &TheDriver();
VTI_API std::mutex &Lock();
/// Back to a driver as at the start; handles given out stay open.
VTI_API void Reset();
/// Lets the library trace a line through the handler that was set, if the level is wanted.
VTI_API void Trace(int32_t level, const char *source, const char *file, int32_t line, const char *text);

}  // namespace Vti
