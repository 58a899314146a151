// The installations and removals of the drivers, step by step, as their threads log them.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "thread_log_control.h"

/// Times are seconds since 1970.
struct DriverStep {
    std::string name;
    std::size_t depth = 0;  ///< How many steps are around it.
    unsigned limit = 0;     ///< Seconds; 0 if unknown.
    double begin = 0;
    std::optional<double> end{};
    bool killed = false;
    bool failed = false;  ///< A system call failed in it.
};

struct DriverRun {
    enum class Kind { Installation, Removal };
    Kind kind = Kind::Installation;
    double begin = 0;
    std::optional<double> end{};
    std::vector<DriverStep> steps{};  ///< In the order in which they began.
    bool succeeded = false;           ///< Of an installation.
    std::string failedStep{};         ///< Of a failed installation: the step that its event names.
    bool rebootAsked = false;
    std::optional<double> killed{};  ///< When its worker was killed.
};

/// An event of a run.
struct DriverNews {
    enum class What { RunBegins, StepBegins, StepEnds, StepKilled, RunEnds };
    What what;
    DriverRun::Kind kind;
    double time;
    double begin;     ///< When the run or the step did so.
    DriverStep step;  ///< The step; null for the run.
};

/// The content of a step's line in the log: ">Name. 600s max" and "<Name", after spaces.
struct StepLine {
    bool begins = false;
    std::string name;
    unsigned limit = 0;
};
std::optional<StepLine> ParseStepLine(std::string_view line);

/// Any thread. If a thread is killed within a call, later calls do nothing.
class DriverRuns : public VtaCore::Control::ThreadListener {
public:
    /// @param tell  called on the thread of the event, with no lock held. Set it before the first event.
    void OnNews(std::function<void(const DriverNews &)> tell) { m_tell = std::move(tell); }

    void OnThreadBegin(DWORD thread, const char *name) override;
    void OnThreadLine(const VtaCore::Control::ThreadLine &line) override;
    void OnThreadEnd(DWORD thread, bool killed) override;
    /// An agent event, on the thread that sends it.
    void OnAgentEvent(int number, const std::string &text);
    void OnRebootNotification();

    [[nodiscard]] std::vector<DriverRun> All() const;
    /// The latest run, if it has not ended.
    [[nodiscard]] std::optional<DriverRun> Current() const;

private:
    using Lock = std::unique_lock<std::timed_mutex>;
    static constexpr std::chrono::seconds kPatience{1};

    DriverRun *RunOf(DWORD thread);
    bool IsUnderWay() const;
    DriverRun *OpenRun();
    void BeginStep(DriverRun &run, const StepLine &line, double time, std::vector<DriverNews> &news);
    void EndStep(DriverRun &run, const std::string &name, double time, std::vector<DriverNews> &news);
    void KillStep(DriverRun &run, double time, std::vector<DriverNews> &news);
    void Tell(const std::vector<DriverNews> &news) const;

    mutable std::timed_mutex m_lock;
    std::function<void(const DriverNews &)> m_tell;
    std::vector<DriverRun> m_runs;
    std::map<DWORD, std::size_t> m_threads;  ///< The runs that threads currently work for.
    std::set<DWORD> m_owners;                ///< Those of them that end the run.
};
