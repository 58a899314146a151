// The installations and removals of the drivers, as the agent sees them: the calls of the module's functions, what its
// threads log, and its events.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "DriverOutcome.h"
#include "UniqueHandle.h"
#include "thread_log_control.h"

/// An event of a run.
struct DriverNews {
    enum class What { RunBegins, StepBegins, StepEnds, StepKilled, RunEnds };
    What what;
    DriverRun::Kind kind;
    double time;
    double begin;           ///< When the run or the step did so.
    DriverStep step;        ///< The step; null for the run.
    std::string outcome{};  ///< Of a run that ends, in words.
};

struct StepLine;

/// Keeps the latest thousand. Any thread. If a thread is killed within a call, later calls do nothing.
class DriverRuns : public VtaCore::Control::ThreadListener {
public:
    /// @param tell  called on the thread of the event, with no lock held. Set it before the first event.
    void OnNews(std::function<void(const DriverNews &)> tell) { m_tell = std::move(tell); }

    /// A script is about to call the module's function. A call that raises an error does not end, and is forgotten.
    void BeginCall(DriverRun::Kind kind);
    /// @param state  of the machine, now.
    void EndCall(bool result, std::optional<DriverState> state);
    /// A line of the script's thread.
    void OnScriptLine(LoggedLine line);

    void OnThreadBegin(DWORD thread, const char *name) override;
    void OnThreadLine(const VtaCore::Control::ThreadLine &line) override;
    void OnThreadEnd(DWORD thread, bool killed) override;
    /// An agent event, on the thread that sends it.
    void OnAgentEvent(int number, const std::string &text);
    void OnRebootNotification();

    [[nodiscard]] std::vector<DriverRun> All() const;
    /// Of those that are no longer kept.
    [[nodiscard]] DriverTotals Forgotten() const;
    /// The latest run, if it has not ended.
    [[nodiscard]] std::optional<DriverRun> Current() const;

private:
    using Id = std::size_t;
    using Lock = std::unique_lock<std::timed_mutex>;
    static constexpr std::chrono::seconds kPatience{1};

    Id Add(DriverRun run);
    DriverRun *Find(Id id);
    DriverRun *RunOf(DWORD thread);
    DriverRun *OpenRun();
    bool IsWorker(const DriverRun &run, DWORD thread) const;
    Id RunForOwner(DriverRun::Kind kind, double now);
    void BeginStep(DriverRun &run, const StepLine &line, double time, std::vector<DriverNews> &news);
    void EndStep(DriverRun &run, const std::string &name, double time, std::vector<DriverNews> &news);
    void KillStep(DriverRun &run, double time, std::vector<DriverNews> &news);
    void EndRun(DriverRun &run, double time, std::vector<DriverNews> &news);
    void Tell(const std::vector<DriverNews> &news) const;

    mutable std::timed_mutex m_lock;
    std::function<void(const DriverNews &)> m_tell;
    std::map<Id, DriverRun> m_runs;
    Id m_next = 0;
    std::optional<Id> m_call;           ///< The run of the script's call that is under way.
    bool m_hasBegun = false;            ///< A thread works for that.
    std::map<DWORD, Id> m_threads;      ///< The runs that threads currently work for.
    std::set<DWORD> m_owners;           ///< Those of them that end the run.
    Simulator::UniqueHandle m_overrun;  ///< The worker of that call that was to be killed; null: none.
    DriverTotals m_forgotten;
};
