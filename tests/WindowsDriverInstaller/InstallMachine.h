// What tests of the installation share: texts of logs and reports, the caller's polls, and networks that change during
// an installation.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "InstallFixture.h"
#include "WatcherClock.h"

/// Called for each event as it is sent, on the thread that sends it.
class EventObserver : public VtaCore::Control::Observer {
public:
    explicit EventObserver(std::function<void(const VtaCore::Control::Event &)> onEvent);
    ~EventObserver() override;
    EventObserver(const EventObserver &) = delete;
    EventObserver &operator=(const EventObserver &) = delete;

    void OnEvent(const VtaCore::Control::Event &event) override { m_onEvent(event); }

private:
    std::function<void(const VtaCore::Control::Event &)> m_onEvent;
};

class InstallMachine : public InstallFixture {
protected:
    using Lines = std::vector<std::string>;
    using What = Simulator::NetworkMoment::What;
    using FaultPlan = Simulator::FaultPlanHandle;

    ~InstallMachine() override;

    [[nodiscard]] Simulator::Faults &faults() { return simulation().GetFaults(); }
    [[nodiscard]] Simulator::Clock &clock() { return simulation().GetClock(); }

    /// How an event 3005 reports a failed call.
    [[nodiscard]] static std::string Report(const std::string &call, unsigned long code);
    /// What event 1004 or 1007 contains of the worker's log, with <folder> for the system's folders, and <address> or
    /// <null> for addresses; after the versions, or after the step.
    [[nodiscard]] std::string WorkerLog(const InstallOutcome &outcome);
    /// The lines of the thread log that the watchdog writes, in the same form.
    [[nodiscard]] std::string WatchdogLog(const InstallOutcome &outcome);
    /// The step that event 1004 names; empty unless there is exactly one such event, and none of a success.
    [[nodiscard]] static std::string FailedStep(const InstallOutcome &outcome);
    /// Whether there is exactly one event of a success, and none of a failure.
    [[nodiscard]] static bool Succeeded(const InstallOutcome &outcome);
    [[nodiscard]] static bool Has(const Lines &lines, const std::string &line);
    [[nodiscard]] static std::size_t Count(const std::string &text, const std::string &part);
    [[nodiscard]] static std::size_t Reboots(const InstallOutcome &outcome);

    [[nodiscard]] std::size_t CallsOf(const std::string &function);
    /// How often the worker began a removal.
    [[nodiscard]] std::size_t Removals(const InstallOutcome &outcome);
    [[nodiscard]] std::string SystemFile();

    /// The adapters lose their connection for good as soon as the filter is installed.
    void BreakNetworkWhenInstalled();
    void TakeAllAdaptersOffline();
    /// The removal does not remove the filter's component.
    void KeepComponentOnRemoval(HRESULT deInstallResult = S_OK);

    // For `meanwhile`:

    /// Until the caller has polled the watchdog so many more times.
    [[nodiscard]] bool AwaitPolls(unsigned polls = 3);
    [[nodiscard]] bool AwaitReturn();
    /// Until the watchdog waits for the worker.
    [[nodiscard]] bool AwaitWait() { return m_watcherClock.AwaitWait(returned); }
    /// Between two polls of the caller.
    void AdvanceMs(std::int64_t milliseconds);
    /// The same in leaps, with a poll of the worker by the watchdog after each.
    void PassTime(std::int64_t milliseconds, std::uint64_t leapMs = 50'000);

    /// The call hangs until the given time after the moment of the hang.
    InstallOutcome InstallHungIn(const std::string &function, unsigned nth, std::int64_t milliseconds);
    /// The same with a plan that was made before.
    InstallOutcome InstallHungBy(const FaultPlan &plan, std::int64_t milliseconds);

private:
    [[nodiscard]] std::size_t Polls();
    [[nodiscard]] std::string Plain(const std::string &line);

    WatcherClock m_watcherClock{simulation()};
    const DWORD m_caller = GetCurrentThreadId();
};
