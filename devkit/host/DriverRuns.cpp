#include "DriverRuns.h"

#include <algorithm>
#include <utility>

#include "DriverOutcome.h"
#include "DriverTexts.h"
#include "Text.h"
#include "WallClock.h"

namespace {

constexpr std::string_view kWatchdog = "CDriverInstallerWatchdog";
constexpr std::string_view kInstaller = "CDriverInstallerThread";
constexpr std::string_view kUninstaller = "CDriverUninstallerThread";
/// The step of a whole thread. The creator of the thread logs its beginning, so here it stands for the run.
constexpr std::string_view kWholeThread = "ThreadRunning";
constexpr std::string_view kOrphans = "CleaningUpOrphans";
/// The line that has the stack below it.
constexpr std::string_view kStackTrace = "Stack trace:\n";

constexpr std::size_t kMaxRuns = 1000;

// Agent events of the module.
constexpr int kInstallFailed = 1004;
constexpr int kUpgradeBegins = 1005;
constexpr int kRebootNeeded = 1006;
constexpr int kInstalled = 1007;
constexpr int kCallFailed = 3005;

/// The version in event 1007 if there was no driver.
constexpr std::string_view kNoVersion = "0.0.0.0";
/// An installation that is abandoned as a whole; the event has a stack instead of a log.
constexpr std::string_view kWholeInstallation = "OverallInstall";

/// The last step for which that is true; null for none.
template <typename Predicate>
DriverStep *LastStep(DriverRun &run, const Predicate &isMeant) {
    const auto found = std::find_if(run.steps.rbegin(), run.steps.rend(), isMeant);
    return found == run.steps.rend() ? nullptr : &*found;
}

/// The innermost step that has not ended; null for none.
DriverStep *OpenStep(DriverRun &run) {
    return LastStep(run, [](const DriverStep &step) { return !step.end.has_value(); });
}

std::size_t OpenSteps(const DriverRun &run) {
    return static_cast<std::size_t>(std::count_if(run.steps.begin(), run.steps.end(),
                                                  [](const DriverStep &step) { return !step.end.has_value(); }));
}

DriverNews StepNews(DriverNews::What what, const DriverRun &run, const DriverStep &step, double time) {
    return {what, run.kind, time, step.begin, step};
}

/// An unlogged step may be killed, too; then only the event names it.
void NoteKilledStep(DriverRun &run, const std::string &name) {
    DriverStep *const killed = LastStep(run, [](const DriverStep &step) { return step.killed; });
    if (killed != nullptr && killed->name == name)
        return;
    DriverStep silent{.name = name, .begin = run.begin, .end = run.killed, .killed = true};
    if (killed != nullptr) {
        killed->killed = false;
        silent.depth = killed->depth + 1;
        silent.begin = killed->begin;
    } else if (!run.steps.empty()) {
        silent.begin = run.steps.back().end.value_or(run.steps.back().begin);
    }
    run.steps.push_back(std::move(silent));
}

/// A kill can fail, and takes effect later.
Simulator::UniqueHandle OpenOverrun(DWORD thread) {
    return Simulator::UniqueHandle(OpenThread(THREAD_QUERY_LIMITED_INFORMATION, FALSE, thread));
}

bool IsAlive(const Simulator::UniqueHandle &thread) {
    DWORD code = 0;
    return thread != nullptr && GetExitCodeThread(thread.get(), &code) != 0 && code == STILL_ACTIVE;
}

/// What was noted as the end of its worker was none.
void NoteThatWorkerLives(DriverRun &run) {
    run.outlivesKill = true;
    for (DriverStep &step : run.steps) {
        step.killed = false;
        if (step.end == run.killed)
            step.end.reset();
    }
}

void NoteFailedStep(DriverRun &run, const std::string &name) {
    DriverStep *const failed = LastStep(run, [&name](const DriverStep &step) { return step.name == name; });
    if (failed != nullptr)
        failed->failed = true;
}

bool IsWithin(const DriverRun &run, std::string_view name) {
    return std::any_of(run.steps.begin(), run.steps.end(),
                       [name](const DriverStep &step) { return !step.end && step.name == name; });
}

void NoteFailure(DriverRun &run, const std::string &text) {
    std::optional<DriverFailure> failure = ParseFailure(text);
    if (!failure)
        return;
    const DriverStep *const step = OpenStep(run);
    if (failure->step.empty())
        failure->step = step != nullptr ? step->name : kWholeThread;
    failure->ofOrphans = IsWithin(run, kOrphans);
    run.failures.push_back(std::move(*failure));
}

void NoteVersions(DriverRun &run, std::string_view text) {
    run.from = TakeUntil(text, '|');
    if (run.from == kNoVersion)
        run.from.clear();
    run.to = TakeUntil(text, '|');
}

void NoteFailedInstallation(DriverRun &run, std::string_view text) {
    run.failedStep = TakeUntil(text, '|');
    if (run.failedStep == kWholeInstallation)
        run.stack = text;
    else if (run.killed)
        NoteKilledStep(run, run.failedStep);
    else
        NoteFailedStep(run, run.failedStep);
}

void AddLine(DriverRun &run, LoggedLine line) {
    if (line.level == nullptr)
        return;
    if (line.text.starts_with(kStackTrace)) {
        run.stack = line.text.substr(kStackTrace.size());
        line.text.resize(kStackTrace.size() - 1);
    }
    run.log.push_back(std::move(line));
}

}  // namespace

DriverRuns::Id DriverRuns::Add(DriverRun run) {
    if (m_runs.size() >= kMaxRuns) {
        m_forgotten.Count(m_runs.begin()->second);
        m_runs.erase(m_runs.begin());
    }
    m_runs.emplace(m_next, std::move(run));
    return m_next++;
}

DriverRun *DriverRuns::Find(Id id) {
    const auto found = m_runs.find(id);
    return found == m_runs.end() ? nullptr : &found->second;
}

DriverRun *DriverRuns::RunOf(DWORD thread) {
    const auto found = m_threads.find(thread);
    return found == m_threads.end() ? nullptr : Find(found->second);
}

/// The latest run, if it has not ended.
DriverRun *DriverRuns::OpenRun() {
    return m_runs.empty() || m_runs.rbegin()->second.end ? nullptr : &m_runs.rbegin()->second;
}

/// Else it is the watchdog of one.
bool DriverRuns::IsWorker(const DriverRun &run, DWORD thread) const {
    return run.kind == DriverRun::Kind::Removal || m_owners.count(thread) == 0;
}

void DriverRuns::BeginCall(DriverRun::Kind kind) {
    const Lock lock(m_lock, kPatience);
    if (!lock.owns_lock())
        return;
    if (m_call && !m_hasBegun)
        m_runs.erase(*m_call);
    m_call = Add({.kind = kind, .begin = WallClockSeconds()});
    m_hasBegun = false;
    m_overrun.reset();
}

void DriverRuns::EndCall(bool result, std::optional<DriverState> state) {
    std::vector<DriverNews> news;
    {
        const Lock lock(m_lock, kPatience);
        DriverRun *const run = lock.owns_lock() && m_call ? Find(*m_call) : nullptr;
        if (run == nullptr)
            return;
        run->result = result;
        run->state = std::move(state);
        run->isAtWork = std::any_of(m_owners.begin(), m_owners.end(),
                                    [this](DWORD owner) { return m_threads.at(owner) == *m_call; });
        if (IsAlive(std::exchange(m_overrun, nullptr)))
            NoteThatWorkerLives(*run);
        m_call.reset();
        EndRun(*run, WallClockSeconds(), news);
    }
    Tell(news);
}

void DriverRuns::OnScriptLine(LoggedLine line) {
    const Lock lock(m_lock, kPatience);
    DriverRun *const run = lock.owns_lock() && m_call ? Find(*m_call) : nullptr;
    if (run != nullptr)
        AddLine(*run, std::move(line));
}

/// The script's call, or a run of its own for who begins without one.
DriverRuns::Id DriverRuns::RunForOwner(DriverRun::Kind kind, double now) {
    const DriverRun *const called = m_call && !m_hasBegun ? Find(*m_call) : nullptr;
    if (called == nullptr || called->kind != kind)
        return Add({.kind = kind, .begin = now});
    m_hasBegun = true;
    return *m_call;
}

void DriverRuns::OnThreadBegin(DWORD thread, const char *name) {
    const bool isOwner = name == kWatchdog || name == kUninstaller;
    if (!isOwner && name != kInstaller)
        return;
    std::vector<DriverNews> news;
    {
        const Lock lock(m_lock, kPatience);
        if (!lock.owns_lock())
            return;
        m_owners.erase(thread);  // of one with the same number that was ended from outside
        if (isOwner) {
            const auto kind = name == kWatchdog ? DriverRun::Kind::Installation : DriverRun::Kind::Removal;
            const double now = WallClockSeconds();
            m_threads[thread] = RunForOwner(kind, now);
            m_owners.insert(thread);
            news.push_back({DriverNews::What::RunBegins, kind, now, now, {}});
        } else if (!m_runs.empty()) {
            m_threads[thread] = m_runs.rbegin()->first;
        }
    }
    Tell(news);
}

void DriverRuns::BeginStep(DriverRun &run, const StepLine &line, double time, std::vector<DriverNews> &news) {
    run.steps.push_back({.name = line.name, .depth = OpenSteps(run), .limit = line.limit, .begin = time});
    news.push_back(StepNews(DriverNews::What::StepBegins, run, run.steps.back(), time));
}

void DriverRuns::EndStep(DriverRun &run, const std::string &name, double time, std::vector<DriverNews> &news) {
    DriverStep *const step = OpenStep(run);
    if (step == nullptr || step->name != name)
        return;
    step->end = time;
    news.push_back(StepNews(DriverNews::What::StepEnds, run, *step, time));
}

/// The innermost step is to blame; those around it end with it.
void DriverRuns::KillStep(DriverRun &run, double time, std::vector<DriverNews> &news) {
    run.killed = time;
    for (bool innermost = true; DriverStep *const step = OpenStep(run); innermost = false) {
        step->end = time;
        step->killed = innermost;
        if (innermost)
            news.push_back(StepNews(DriverNews::What::StepKilled, run, *step, time));
    }
}

void DriverRuns::EndRun(DriverRun &run, double time, std::vector<DriverNews> &news) {
    run.end = time;
    news.push_back({DriverNews::What::RunEnds, run.kind, time, run.begin, {}, OutcomeText(run)});
}

void DriverRuns::OnThreadLine(const VtaCore::Control::ThreadLine &line) {
    const std::string text = ToUtf8(line.text);
    std::vector<DriverNews> news;
    {
        const Lock lock(m_lock, kPatience);
        DriverRun *const run = lock.owns_lock() ? RunOf(line.thread) : nullptr;
        if (run == nullptr)
            return;
        const std::optional<StepLine> step = ParseStepLine(text);
        if (step && step->name != kWholeThread && step->begins)
            BeginStep(*run, *step, line.time, news);
        else if (step && step->name != kWholeThread)
            EndStep(*run, step->name, line.time, news);
        AddLine(*run, {line.time, LevelName(line.level), text});
    }
    Tell(news);
}

void DriverRuns::OnThreadEnd(DWORD thread, bool killed) {
    std::vector<DriverNews> news;
    {
        const Lock lock(m_lock, kPatience);
        DriverRun *const run = lock.owns_lock() ? RunOf(thread) : nullptr;
        if (run == nullptr)
            return;
        const double now = WallClockSeconds();
        // A script's call ends later, and a run that was given up has ended before.
        const bool isOfCall = m_call && m_threads[thread] == *m_call;
        if (killed)
            KillStep(*run, now, news);
        if (killed && isOfCall)
            m_overrun = OpenOverrun(thread);
        if (m_owners.erase(thread) != 0 && !isOfCall && !run->end)
            EndRun(*run, now, news);
        m_threads.erase(thread);
    }
    Tell(news);
}

void DriverRuns::OnAgentEvent(int number, const std::string &text) {
    const Lock lock(m_lock, kPatience);
    DriverRun *run = lock.owns_lock() ? RunOf(GetCurrentThreadId()) : nullptr;
    if (lock.owns_lock() && run == nullptr && number == kInstallFailed)
        run = OpenRun();  // the script's thread reports one that hangs as a whole
    if (run == nullptr)
        return;
    DriverStep *const step = OpenStep(*run);
    if (number == kCallFailed && step != nullptr)
        step->failed = true;
    if (number == kCallFailed && IsWorker(*run, GetCurrentThreadId()))
        NoteFailure(*run, text);
    run->succeeded = run->succeeded || number == kInstalled;
    run->isUpgrade = run->isUpgrade || number == kUpgradeBegins;
    run->rebootAsked = run->rebootAsked || number == kRebootNeeded;
    if (number == kInstalled || number == kUpgradeBegins)
        NoteVersions(*run, text);
    if (number == kInstallFailed)
        NoteFailedInstallation(*run, text);
}

void DriverRuns::OnRebootNotification() {
    const Lock lock(m_lock, kPatience);
    DriverRun *const run = lock.owns_lock() ? OpenRun() : nullptr;
    if (run != nullptr)
        run->rebootAsked = true;
}

std::vector<DriverRun> DriverRuns::All() const {
    std::vector<DriverRun> all;
    const Lock lock(m_lock, kPatience);
    if (!lock.owns_lock())
        return all;
    for (const auto &[id, run] : m_runs)
        if (id != m_call || m_hasBegun)
            all.push_back(run);
    return all;
}

DriverTotals DriverRuns::Forgotten() const {
    const Lock lock(m_lock, kPatience);
    return lock.owns_lock() ? m_forgotten : DriverTotals();
}

std::optional<DriverRun> DriverRuns::Current() const {
    const Lock lock(m_lock, kPatience);
    const bool isUnderWay = lock.owns_lock() && !m_runs.empty() && !m_runs.rbegin()->second.end;
    return isUnderWay ? std::optional(m_runs.rbegin()->second) : std::nullopt;
}

void DriverRuns::Tell(const std::vector<DriverNews> &news) const {
    if (!m_tell)
        return;
    for (const DriverNews &item : news)
        m_tell(item);
}
