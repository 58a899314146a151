// Hangs a call of a driver thread: moves the clock for whoever watches the thread, and cleans up what a killed thread
// leaves.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "Balance.h"
#include "CallScope.h"
#include "LogCollector.h"
#include "Patience.h"
#include "Simulation.h"
#include "UniqueHandle.h"
#include "WatcherClock.h"

/// A thread, to wait for its end.
class SeenThread {
public:
    SeenThread() = default;
    explicit SeenThread(DWORD id);

    /// @return false if it has not ended by then, or there is none.
    [[nodiscard]] bool AwaitEnd(DWORD realMs) const;

private:
    Simulator::UniqueHandle m_handle;
};

/// The outcome of a script's call, one of whose threads hung in a call of its own.
struct HangResult {
    bool met = false;             ///< Whether a thread reached its call.
    bool waitedToTheEnd = false;  ///< Whether the watcher was still waiting in the last millisecond of the limit.
    bool killed = false;          ///< Whether the thread had ended although its call still hung.
    bool ended = false;           ///< Whether it ended, at the latest once its call was released.
    bool destroyed = false;       ///< Whether the objects of all threads are gone, and their handles closed.
    double returnedAfterMs = 0;   ///< From the deadline to the script's answer, real milliseconds.
    std::vector<Simulator::BalanceItem> inFlight;  ///< What was open while it hung, except blocks and threads.
    std::vector<Simulator::BalanceItem> left;      ///< What stays open, except blocks.
};

/// The lines that show a stack.
[[nodiscard]] std::vector<std::string> StacksIn(const std::vector<LogLine> &log);

/// What was created since, except blocks.
[[nodiscard]] std::vector<Simulator::BalanceItem> NewThings(const Simulator::BalanceSnapshot &before);
[[nodiscard]] bool IsThread(const Simulator::BalanceItem &item);

/// While it exists, logs are verbose, and the functions that a test needs to see are redirected. In fault plans a sleep
/// is a function of its own for each length, such as "Sleep(500)", beside "Sleep".
class HungCall {
public:
    /// @param returned  whether the script's call has come back.
    HungCall(Simulator::Simulation &simulation, const std::atomic<bool> &returned);
    ~HungCall();
    HungCall(const HungCall &) = delete;
    HungCall &operator=(const HungCall &) = delete;

    /// Keeps the stack library from loading the symbols of all modules, which takes a second each time. Frames have no
    /// names then.
    void LoadNoModulesForStacks();
    /// As in WatcherClock.
    [[nodiscard]] bool AdvanceTo(std::uint64_t tick, std::uint64_t leapMs = UINT64_MAX) {
        return m_watcherClock.AdvanceTo(tick, leapMs, m_returned);
    }
    [[nodiscard]] bool AwaitWait() { return m_watcherClock.AwaitWait(m_returned); }
    [[nodiscard]] bool AwaitReturn() const;
    /// Waits until at most so many objects of the agent's library exist, and no thread handle is open.
    [[nodiscard]] static bool AwaitObjects(int objects, const Simulator::BalanceSnapshot &before);

    /// Closes files, folders, keys and services that a killed thread left open, so that they can be deleted, and
    /// removes everything from the balance: the same handle values may be reused, by a thread for example.
    void ClearAway(const std::vector<Simulator::BalanceItem> &left);

private:
    Simulator::Simulation &m_simulation;
    const std::atomic<bool> &m_returned;
    WatcherClock m_watcherClock;
};
