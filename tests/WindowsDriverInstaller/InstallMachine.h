// What tests of the installation have in common: texts of logs and reports, sights of the caller, and networks that
// change while something is installed.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "InstallFixture.h"
#include "WatcherSight.h"

/// Is told of each event as it is sent, on the thread that sends it.
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

    /// How an event 3005 tells of a failed call.
    [[nodiscard]] static std::string Report(const std::string &call, unsigned long code);
    /// What event 1004 or 1007 has of the worker's log, with <folder> for the system's folders, and <address> or
    /// <null> for addresses; behind the versions, or behind the step.
    [[nodiscard]] std::string WorkerLog(const InstallOutcome &outcome);
    /// The lines of the thread log that the watchdog writes, in the same way.
    [[nodiscard]] std::string WatchdogLog(const InstallOutcome &outcome);
    /// The step that event 1004 names; empty unless there is just one such event, and none of a success.
    [[nodiscard]] static std::string FailedStep(const InstallOutcome &outcome);
    /// Whether there is just the event of a success, and none of a failure.
    [[nodiscard]] static bool Succeeded(const InstallOutcome &outcome);
    [[nodiscard]] static bool Has(const Lines &lines, const std::string &line);
    [[nodiscard]] static std::size_t Count(const std::string &text, const std::string &part);
    [[nodiscard]] static std::size_t Reboots(const InstallOutcome &outcome);

    [[nodiscard]] std::size_t CallsOf(const std::string &function);
    /// How often the worker began a removal.
    [[nodiscard]] std::size_t Removals(const InstallOutcome &outcome);
    [[nodiscard]] std::string SystemFile();

    /// The adapters lose their connection as soon as the filter is installed, for good.
    void BreakNetworkWhenInstalled();
    void TakeAllAdaptersOffline();
    /// The removal leaves the filter's component.
    void KeepComponentOnRemoval(HRESULT deInstallResult = S_OK);

    // For `meanwhile`:

    /// Until the caller has looked at the watchdog so many more times.
    [[nodiscard]] bool AwaitLooks(unsigned looks = 3);
    [[nodiscard]] bool AwaitReturn();
    /// Until the watchdog waits for the worker.
    [[nodiscard]] bool AwaitWait() { return m_sight.AwaitWait(returned); }
    /// Between two looks of the caller.
    void AdvanceMs(std::int64_t milliseconds);
    /// The same in leaps, with a poll of the worker by the watchdog behind each.
    void PassTime(std::int64_t milliseconds, std::uint64_t leapMs = 50'000);

    /// The call hangs until the time is up: so long behind the moment of the hang.
    InstallOutcome InstallHungIn(const std::string &function, unsigned nth, std::int64_t milliseconds);
    /// The same by a plan that was made before.
    InstallOutcome InstallHungBy(const FaultPlan &plan, std::int64_t milliseconds);

private:
    [[nodiscard]] std::size_t Looks();
    [[nodiscard]] std::string Plain(const std::string &line);

    WatcherSight m_sight{simulation()};
    const DWORD m_caller = GetCurrentThreadId();
};
