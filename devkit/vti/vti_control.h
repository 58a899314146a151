// The driver of the stand-in for vti: its answers, its failures, and its calls.
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

/// How one operation fails.
struct Fault {
    int32_t status = 0;  ///< The status it returns.
    std::string error;   ///< What vti_get_error then returns.
    int remaining = -1;  ///< For this many calls, -1 for all.
    int after = 0;       ///< Only after this many successful calls.
    bool works = false;  ///< It does its work before it fails; otherwise it leaves its record untouched.
    unsigned met = 0;    ///< By this many calls.
};

/// A connection as the driver's table holds it.
struct Connection {
    std::array<uint8_t, 64> bytes{};
};

/// A plain value; fill it in, and read it afterwards. Guarded by `Lock` while threads run.
struct Driver {
    bool present = true;    ///< vti_open returns a handle.
    bool available = true;  ///< vti_driver_available returns 1.
    std::string version = "1.0.0.0";
    std::array<uint32_t, 174> variables{};
    std::array<uint16_t, 3> statsLayout{293, 21, 1};  ///< What vti_get_stats returns in its layout words.
    std::vector<Connection> udp;
    std::vector<Connection> tcp;
    std::vector<uint8_t> blacklist;
    std::vector<uint8_t> profile;
    std::array<uint64_t, 10> scanCounters{};
    /// The counters per row and rows that vti_get_scan_metrics reports. It fills in only that many, at most ten.
    std::array<uint32_t, 2> scanShape{10, 1};
    /// By how much a read of a table, the blacklist or the profile overstates what it has filled in.
    uint32_t overstatement = 0;
    /// The sizes that blacklist and profile claim to a request without a buffer; 0 for their actual size.
    uint32_t claimedBytes = 0;
    std::vector<std::string> statsLines;  ///< What qb_dump_stats prints after the statistics, one call each.
    std::map<std::string, Fault> faults;  ///< By the operation's name, such as "vti_get_stats".
    /// Called for each operation, in the form of `calls`, before it does its work; may change the driver's data. Under
    /// `Lock`.
    std::function<void(Driver &, const std::string &call)> onCall;

    // What the module did.
    std::vector<std::string> calls;  ///< Every operation in order, with its plain arguments.
    int openHandles = 0;
    std::vector<uint8_t> monitorRequest;  ///< The last ScanMonitorRequest.
    std::vector<uint8_t> statsRequest;    ///< The last StatsRecord as it came in,
    std::uintptr_t statsAddress = 0;      ///< and its address.
    volatile unsigned *profilerBlockfilter = nullptr;
    volatile unsigned *profilerRunning = nullptr;
    int32_t traceLevel = 0;
    vti_trace_handler traceHandler = nullptr;
};

/// The one driver of the process.
VTI_API Driver &TheDriver();
VTI_API std::mutex &Lock();
/// Resets the driver to its initial state; open handles stay open.
VTI_API void Reset();
/// Makes the library trace a line through the handler, if the level is enabled.
VTI_API void Trace(int32_t level, const char *source, const char *file, int32_t line, const char *text);

}  // namespace Vti
