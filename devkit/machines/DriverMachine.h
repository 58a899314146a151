// A machine on which both drivers are installed, and the script's call that removes them.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "LogCollector.h"
#include "ModuleMachine.h"
#include "Patience.h"
#include "StartedThreads.h"
#include "vta_core_control.h"

/// The result of one call of SLB.filter.UninstallDriver.
struct Removal {
    bool result = false;
    std::vector<LogLine> log;         ///< The caller's lines, then the worker's.
    std::vector<std::string> events;  ///< As "number|text".
    std::vector<VtaCore::Control::Notification> notifications;
    std::uint64_t tookMs = 0;  ///< By the simulated clock.

    /// The thread's log: its lines without their prefix.
    [[nodiscard]] std::vector<std::string> ThreadLog() const;
    /// The lines of one level.
    [[nodiscard]] std::vector<std::string> Lines(wxLogLevel level) const;
};

/// Sleeps move the clock; a wait ends when its object is signalled, or when the clock is moved.
class DriverMachine : protected ModuleMachine {
protected:
    DriverMachine();

    /// Restores both drivers with everything that belongs to them:
    /// - the component qbimvta with its own device, the running service qbimwfp, whose INF removes it,
    /// - oem1.inf of the one, oem2.inf of the other, and oem3.inf of another product, with their .pnf and .cat,
    /// - the two health-check files.
    void InstallDrivers();
    void RemoveFilterComponent();
    /// The component stays when it is de-installed, so that orphans are not searched for.
    void KeepFilterComponent();
    /// Only the folder of the callout's files is left of the drivers.
    void RemoveDrivers();
    /// An orphaned device of the filter. Without its own component it stays, whatever is de-installed.
    void PutOrphan();
    void PutInf(const std::wstring &name, const std::string &content);

    /// Calls SLB.filter.UninstallDriver, after clearing the journal.
    Removal Uninstall();
    /// The same on another thread, while `meanwhile` runs on this one.
    Removal UninstallWhile(const std::function<void()> &meanwhile);

    /// The same for any call that returns a boolean.
    Removal CallWhile(const std::string &call, const std::function<void()> &meanwhile);
    /// Adds what was logged, sent and shown since.
    void TakeRecords(Removal &removal);

    /// The calls of these functions since the last Uninstall began, in order, such as "FreeLibrary(*)": pointers and
    /// handles are stars.
    [[nodiscard]] std::vector<std::string> Calls(const std::set<std::string> &functions);
    /// The same, only by name.
    [[nodiscard]] std::vector<std::string> NamesOfCalls(const std::set<std::string> &functions);

    [[nodiscard]] bool HasInf(const std::wstring &name);
    [[nodiscard]] bool HasService();

    /// An INF text that names a driver the given number of times.
    static std::string InfNaming(const std::string &driver, int times);
    /// The folder of the callout's files, with a trailing backslash.
    [[nodiscard]] std::wstring WfpFolder();

    StartedThreads threads{simulation()};
    VtaCore::Control::Dom dom;
    LogCollector log;
    /// Whether the current script's call has returned; for `meanwhile`.
    std::atomic<bool> returned{false};
};
