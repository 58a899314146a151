// An installation that hangs in one call, of its worker or of its watchdog, and what becomes of it.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "HungCall.h"
#include "InstallPlaces.h"
#include "InstallRoads.h"

/// An event when it was sent.
struct TimedEvent {
    int number = 0;
    std::uint64_t atMs = 0;  ///< Since the installation began, by the simulated clock.
};

/// What became of it; the thread is the one that hung.
struct HungOutcome : HangResult {
    InstallOutcome installation;
    std::vector<TimedEvent> events;         ///< Up to the script's answer.
    std::array<bool, 3> bindings{};         ///< The filter's, at the script's answer.
    bool holdsLock = false;                 ///< Whether somebody holds the write lock then.
    std::uint64_t answeredAtMs = 0;         ///< Since the beginning, by the simulated clock, as is the next.
    std::uint64_t watchdogsDeadlineMs = 0;  ///< When the watchdog's hour is up.
};

/// An installation that ended well, and its calls.
struct GoodInstall {
    InstallOutcome installation;
    std::vector<std::string> workersLines;  ///< In the text of its event.
    std::vector<InstallPlace> places;
};

/// Driver versions are asked by calls that can hang, too.
class HungInstall : public InstallRoads {
protected:
    HungInstall();
    ~HungInstall() override;

    /// @return without places if it did not end well.
    GoodInstall InstallOn(Road road);

    /// Hangs the call, moves the clock to the last millisecond of its time and then to the end of it. A call whose
    /// thread lives on is let go when the script has its answer. No fault is left.
    HungOutcome HangAt(const InstallPlace &place);

    HungCall hung{simulation(), returned};

private:
    class EventTimes;

    void HangWorker(const InstallPlace &place, HungOutcome &outcome);
    void HangWatchdog(const InstallPlace &place, HungOutcome &outcome);
    void AwaitAnswer(HungOutcome &outcome);
    bool AwaitEndOfWorker();
    /// Not while the caller looks: it must not compare a heartbeat that it has read with the time behind the leap.
    bool AdvanceBetweenLooks(std::uint64_t ms);
    /// Until the caller has looked at the watchdog's last heartbeat twice.
    bool AwaitLooksOfCaller();

    const DWORD m_caller = GetCurrentThreadId();
    const std::unique_ptr<EventTimes> m_events;
    std::uint64_t m_begin = 0;
    Simulator::BalanceSnapshot m_before;
};
