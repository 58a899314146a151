// What it takes to hang a call that a driver thread makes: a clock that is moved for whoever watches the thread, and
// the things that a killed thread leaves.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "Balance.h"
#include "CallScope.h"
#include "LogCollector.h"
#include "Patience.h"
#include "Simulation.h"
#include "WatcherSight.h"

/// A thread, to wait for its end.
class SeenThread {
public:
    SeenThread() = default;
    explicit SeenThread(DWORD id);

    /// @return false if it has not ended then, or is none.
    [[nodiscard]] bool AwaitEnd(DWORD realMs) const;

private:
    struct Close {
        void operator()(HANDLE thread) const;
    };
    std::unique_ptr<std::remove_pointer_t<HANDLE>, Close> m_handle;
};

/// What became of a call of the script, one of whose threads hung in a call of its own.
struct HangResult {
    bool met = false;             ///< Whether a thread came to its call.
    bool waitedToTheEnd = false;  ///< Whether whoever waits still did in the last millisecond of the time.
    bool killed = false;          ///< Whether the thread had ended although its call still hung.
    bool ended = false;           ///< Whether it ended, be it once its call was let go.
    bool destroyed = false;       ///< Whether the objects of all threads are gone, and their handles closed.
    double returnedAfterMs = 0;   ///< From the end of the time to the script's answer, real milliseconds.
    std::vector<Simulator::BalanceItem> inFlight;  ///< What was open while it hung, but for blocks and threads.
    std::vector<Simulator::BalanceItem> left;      ///< What stays open, but for blocks.
};

/// The lines that show a stack.
[[nodiscard]] std::vector<std::string> StacksIn(const std::vector<LogLine> &log);

/// What was made since, but for blocks.
[[nodiscard]] std::vector<Simulator::BalanceItem> NewThings(const Simulator::BalanceSnapshot &before);
[[nodiscard]] bool IsThread(const Simulator::BalanceItem &item);

/// While it lives, logs are verbose, and the functions that a test needs to see are redirected. In fault plans a sleep
/// is a function of its own for each length, such as "Sleep(500)", beside "Sleep".
class HungCall {
public:
    /// @param returned  whether the script's call has come back.
    HungCall(Simulator::Simulation &simulation, const std::atomic<bool> &returned);
    ~HungCall();
    HungCall(const HungCall &) = delete;
    HungCall &operator=(const HungCall &) = delete;

    /// Keeps the library for stacks from loading the symbols of all modules, which takes a second each time. Frames
    /// have no names then.
    void LoadNoModulesForStacks();
    /// As WatcherSight has it.
    [[nodiscard]] bool AdvanceTo(std::uint64_t tick, std::uint64_t leapMs = UINT64_MAX) {
        return m_sight.AdvanceTo(tick, leapMs, m_returned);
    }
    [[nodiscard]] bool AwaitWait() { return m_sight.AwaitWait(m_returned); }
    [[nodiscard]] bool AwaitReturn() const;
    /// Until there are no more than so many objects of the agent's library, and no handle of a thread is open.
    [[nodiscard]] static bool AwaitObjects(int objects, const Simulator::BalanceSnapshot &before);

    /// Closes files, folders, keys and services that a killed thread left open, so that they can go, and takes all from
    /// the balance: the values may come again, of a thread for example.
    void ClearAway(const std::vector<Simulator::BalanceItem> &left);

private:
    Simulator::Simulation &m_simulation;
    const std::atomic<bool> &m_returned;
    WatcherSight m_sight;
};
