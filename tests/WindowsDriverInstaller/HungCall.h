// What it takes to hang a call that a driver thread makes: a clock that is moved for whoever watches the thread, and
// the things that a killed thread leaves.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include "Balance.h"
#include "CallScope.h"
#include "LogCollector.h"
#include "Simulation.h"

class WatcherSight;

/// Whoever waits longer, in real milliseconds, fails the test.
inline constexpr DWORD kPatienceMs = 20'000;

/// Asks again every millisecond.
template <class Condition>
bool Await(DWORD realMs, Condition condition) {
    const Simulator::InsideSimulator inside;
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(realMs);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        Sleep(1);
    }
    return true;
}

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
    /// The watcher is the calling thread at first.
    HungCall(Simulator::Simulation &simulation, const std::atomic<bool> &returned);
    ~HungCall();
    HungCall(const HungCall &) = delete;
    HungCall &operator=(const HungCall &) = delete;

    /// Lets the library for stacks look at the modules once only. It takes a second each time. Without effect if a test
    /// of the same program has called the product before without a HungCall: that library's functions are found once in
    /// a process.
    void KeepModulesForStacks();
    /// The thread for which AdvanceTo moves the clock.
    /// @param poller  one that looks at the clock between its sleeps, and must not see it move while it does; or 0.
    void SetWatcher(DWORD watcher, DWORD poller);

    /// Moves the clock whenever the watcher waits, so far that the wait ends.
    /// @param leapMs  so far at a time at most.
    /// @return false if the script's call came back before, or the watcher never waited.
    [[nodiscard]] bool AdvanceTo(std::uint64_t tick, std::uint64_t leapMs = UINT64_MAX);
    /// Gives a watcher that looks at the wrong time the time to do so.
    static void LetLook();
    [[nodiscard]] bool AwaitReturn() const;
    /// Until there are no more than so many objects of the agent's library, and no handle of a thread is open.
    [[nodiscard]] static bool AwaitObjects(int objects, const Simulator::BalanceSnapshot &before);

    /// Closes files, folders, keys and services that a killed thread left open, so that they can go, and takes all from
    /// the balance: the values may come again, of a thread for example.
    void ClearAway(const std::vector<Simulator::BalanceItem> &left);

private:
    Simulator::Simulation &m_simulation;
    const std::atomic<bool> &m_returned;
    const std::shared_ptr<WatcherSight> m_sight;
    bool m_hasModules = false;
};
