// A removal that hangs in one call, and what becomes of it when the time of the step that is on top has passed.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Balance.h"
#include "RemovalFixture.h"

class WatcherSight;

/// What became of it.
struct Hang {
    Removal removal;
    bool met = false;             ///< Whether the removal came to the call.
    bool waitedToTheEnd = false;  ///< Whether the watcher still waited in the last millisecond of the time.
    bool killed = false;          ///< Whether the worker had ended although its call still hung.
    bool ended = false;           ///< Whether it ended, be it once its call was let go.
    bool destroyed = false;       ///< Whether its object is gone, and its handle closed.
    double returnedAfterMs = 0;   ///< From the end of the time to the return, real milliseconds.
    std::vector<Simulator::BalanceItem> inFlight;  ///< What was open while it hung, but for blocks and the worker.
    std::vector<Simulator::BalanceItem> left;      ///< What stays open, but for blocks.

    /// The lines of the log that show a stack.
    [[nodiscard]] std::vector<std::string> Stacks() const;
};

/// The caller's sleep at the beginning is held back until the worker hangs, so that the watcher's first look finds the
/// step in which that happens, and the clock stands still up to there.
class HungRemoval : public RemovalFixture {
protected:
    HungRemoval();
    ~HungRemoval() override;

    /// Hangs the call, moves the clock to the last millisecond before the deadline and then to it. A call whose thread
    /// lives on is let go in the end. No fault is left.
    /// @param nth         among the calls of all threads.
    /// @param deadlineMs  simulated milliseconds from the beginning of the removal.
    Hang HangIn(const std::string &function, unsigned nth, std::uint64_t deadlineMs);

    /// For `meanwhile`: until the worker of the removal under way has ended, for some real seconds at the most.
    [[nodiscard]] bool AwaitEndOfWorker();

    /// Lets the library for stacks look at the modules once only. It takes a second each time.
    void KeepModulesForStacks();

    /// Both drivers as they were, without orphans.
    void PutRight();

    /// Closes files, folders, keys and services that a killed worker left open, so that they can go, and takes all from
    /// the balance: the values may come again, of a thread for example.
    void ClearAway(const std::vector<Simulator::BalanceItem> &left);

    static constexpr wchar_t kMiniportKey[] = L"SYSTEM\\CurrentControlSet\\Enum\\Root\\QBIMVTA_MP";

private:
    void PassTheTime(Hang &hang, const Simulator::BalanceSnapshot &before, std::uint64_t deadline);
    [[nodiscard]] bool AwaitReturn() const;
    /// What was logged and reported after the return.
    void ForgetTheRest();

    const std::shared_ptr<WatcherSight> m_sight;
    const DWORD m_caller = GetCurrentThreadId();
    bool m_hasModules = false;
};
