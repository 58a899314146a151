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

/// What one call of SLB.filter.UninstallDriver did.
struct Removal {
    bool result = false;
    std::vector<LogLine> log;         ///< The caller's lines, then the worker's.
    std::vector<std::string> events;  ///< As "number|text".
    std::vector<VtaCore::Control::Notification> notifications;
    std::uint64_t tookMs = 0;  ///< By the simulated clock.

    /// The thread's log: its lines without what goes before them.
    [[nodiscard]] std::vector<std::string> ThreadLog() const;
    /// The lines of one level.
    [[nodiscard]] std::vector<std::string> Lines(wxLogLevel level) const;
};

/// Sleeps move the clock; a wait ends by what it waits for, or when somebody moves the clock.
class DriverMachine : protected ModuleMachine {
protected:
    DriverMachine();

    /// Both drivers with all that belongs to them; what is there of them already is replaced:
    /// - the component qbimvta with a device of its own, the running service qbimwfp, whose INF takes it away,
    /// - oem1.inf of the one, oem2.inf of the other, and oem3.inf of somebody else, with their .pnf and .cat,
    /// - the two health-check files.
    void InstallDrivers();
    void RemoveFilterComponent();
    /// The component stays when it is de-installed, and so the orphans are not looked for.
    void KeepFilterComponent();
    /// Nothing is left of either driver but the folder of the callout's files.
    void RemoveDrivers();
    /// A device that is left of the filter. Without a component of its own it stays, whatever is de-installed.
    void PutOrphan();
    void PutInf(const std::wstring &name, const std::string &content);

    /// Calls SLB.filter.UninstallDriver. Before the journal is emptied.
    Removal Uninstall();
    /// The same on a thread of its own, while `meanwhile` runs on this one.
    Removal UninstallWhile(const std::function<void()> &meanwhile);

    /// The same for any call that yields true or false.
    Removal CallWhile(const std::string &call, const std::function<void()> &meanwhile);
    /// Adds what was logged, sent and shown since.
    void TakeRecords(Removal &removal);

    /// The calls of these functions since the last Uninstall began, in their order, such as "FreeLibrary(*)": pointers
    /// and handles are stars.
    [[nodiscard]] std::vector<std::string> Calls(const std::set<std::string> &functions);
    /// The same by their names alone.
    [[nodiscard]] std::vector<std::string> NamesOfCalls(const std::set<std::string> &functions);

    [[nodiscard]] bool HasInf(const std::wstring &name);
    [[nodiscard]] bool HasService();

    /// An INF text that names a driver so many times.
    static std::string InfNaming(const std::string &driver, int times);
    /// The folder of the callout's files, with a backslash behind it.
    [[nodiscard]] std::wstring WfpFolder();

    StartedThreads threads{simulation()};
    VtaCore::Control::Dom dom;
    LogCollector log;
    /// Whether the script's call that is under way has come back; for `meanwhile`.
    std::atomic<bool> returned{false};
};
