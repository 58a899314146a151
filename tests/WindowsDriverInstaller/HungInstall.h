// An installation that hangs in one call of its worker or its watchdog, and the outcome.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "HungCall.h"
#include "InstallPlaces.h"
#include "InstallScenarios.h"

/// An event when it was sent.
struct TimedEvent {
    int number = 0;
    std::uint64_t atMs = 0;  ///< Since the installation began, by the simulated clock.
};

/// The outcome; the thread is the one that hung.
struct HungOutcome : HangResult {
    InstallOutcome installation;
    std::vector<TimedEvent> events;         ///< Up to the script's answer.
    std::array<bool, 3> bindings{};         ///< The filter's, at the script's answer.
    bool holdsLock = false;                 ///< Whether the write lock is held then.
    std::uint64_t answeredAtMs = 0;         ///< Since the beginning, by the simulated clock, like the next one.
    std::uint64_t watchdogsDeadlineMs = 0;  ///< When the watchdog's hour ends.
};

/// An installation that succeeded, and its calls.
struct GoodInstall {
    InstallOutcome installation;
    std::vector<std::string> workersLines;  ///< In the text of its event.
    std::vector<InstallPlace> places;
};

/// Includes the calls that query driver versions, which can hang, too.
class HungInstall : public InstallScenarios {
protected:
    HungInstall();
    ~HungInstall() override;

    /// @return without places if it did not succeed.
    GoodInstall InstallOn(Scenario scenario);

    /// Hangs the call, moves the clock to the last millisecond of its limit and then to the end of it. A call whose
    /// thread survives is released when the script has its answer. No fault is left.
    HungOutcome HangAt(const InstallPlace &place);

    HungCall hung{simulation(), returned};

private:
    class EventTimes;

    void HangWorker(const InstallPlace &place, HungOutcome &outcome);
    void HangWatchdog(const InstallPlace &place, HungOutcome &outcome);
    void AwaitAnswer(HungOutcome &outcome);
    bool AwaitEndOfWorker();
    /// Not during the caller's poll: it must not compare a heartbeat read before the leap with the time after it.
    bool AdvanceBetweenPolls(std::uint64_t ms);
    /// Until the caller has polled the watchdog's last heartbeat twice.
    bool AwaitPollsOfCaller();

    const DWORD m_caller = GetCurrentThreadId();
    const std::unique_ptr<EventTimes> m_events;
    std::uint64_t m_begin = 0;
    Simulator::BalanceSnapshot m_before;
};
