#include "DriverRuns.h"

#include <algorithm>
#include <charconv>

#include "Text.h"
#include "WallClock.h"

namespace {

constexpr std::string_view kWatchdog = "CDriverInstallerWatchdog";
constexpr std::string_view kInstaller = "CDriverInstallerThread";
constexpr std::string_view kUninstaller = "CDriverUninstallerThread";
/// The step of a whole thread. The creator of the thread logs its beginning, so here it stands for the run.
constexpr std::string_view kWholeThread = "ThreadRunning";

// Agent events of the module.
constexpr int kInstallFailed = 1004;
constexpr int kInstalled = 1007;
constexpr int kCallFailed = 3005;

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

void NoteFailedStep(DriverRun &run, const std::string &name) {
    DriverStep *const failed = LastStep(run, [&name](const DriverStep &step) { return step.name == name; });
    if (failed != nullptr)
        failed->failed = true;
}

}  // namespace

std::optional<StepLine> ParseStepLine(std::string_view line) {
    constexpr std::string_view tail = "s max";
    line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
    if (line.starts_with('<'))
        return StepLine{false, std::string(line.substr(1)), 0};
    const std::size_t dot = line.find(". ");
    if (!line.starts_with('>') || dot == line.npos || !line.ends_with(tail))
        return std::nullopt;
    StepLine step{true, std::string(line.substr(1, dot - 1)), 0};
    const char *const end = line.data() + line.size() - tail.size();
    const std::from_chars_result read = std::from_chars(line.data() + dot + 2, end, step.limit);
    return read.ec == std::errc() && read.ptr == end ? std::optional(step) : std::nullopt;
}

DriverRun *DriverRuns::RunOf(DWORD thread) {
    const auto found = m_threads.find(thread);
    return found == m_threads.end() ? nullptr : &m_runs[found->second];
}

bool DriverRuns::IsUnderWay() const {
    return !m_runs.empty() && !m_runs.back().end;
}

/// The latest run, if it has not ended.
DriverRun *DriverRuns::OpenRun() {
    return IsUnderWay() ? &m_runs.back() : nullptr;
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
        if (isOwner) {
            const auto kind = name == kWatchdog ? DriverRun::Kind::Installation : DriverRun::Kind::Removal;
            const double now = WallClockSeconds();
            m_runs.push_back({.kind = kind, .begin = now});
            m_owners.insert(thread);
            news.push_back({DriverNews::What::RunBegins, kind, now, now, {}});
        }
        if (!m_runs.empty())
            m_threads[thread] = m_runs.size() - 1;
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

void DriverRuns::OnThreadLine(const VtaCore::Control::ThreadLine &line) {
    const std::optional<StepLine> step = ParseStepLine(ToUtf8(line.text));
    if (!step || step->name == kWholeThread)
        return;
    std::vector<DriverNews> news;
    {
        const Lock lock(m_lock, kPatience);
        DriverRun *const run = lock.owns_lock() ? RunOf(line.thread) : nullptr;
        if (run != nullptr && step->begins)
            BeginStep(*run, *step, line.time, news);
        else if (run != nullptr)
            EndStep(*run, step->name, line.time, news);
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
        if (killed)
            KillStep(*run, now, news);
        if (m_owners.erase(thread) != 0) {
            run->end = now;
            news.push_back({DriverNews::What::RunEnds, run->kind, now, run->begin, {}});
        }
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
    run->succeeded = run->succeeded || number == kInstalled;
    if (number != kInstallFailed)
        return;
    run->failedStep = text.substr(0, text.find('|'));
    if (run->killed)
        NoteKilledStep(*run, run->failedStep);
    else
        NoteFailedStep(*run, run->failedStep);
}

void DriverRuns::OnRebootNotification() {
    const Lock lock(m_lock, kPatience);
    DriverRun *const run = lock.owns_lock() ? OpenRun() : nullptr;
    if (run != nullptr)
        run->rebootAsked = true;
}

std::vector<DriverRun> DriverRuns::All() const {
    const Lock lock(m_lock, kPatience);
    return lock.owns_lock() ? m_runs : std::vector<DriverRun>();
}

std::optional<DriverRun> DriverRuns::Current() const {
    const Lock lock(m_lock, kPatience);
    return lock.owns_lock() && IsUnderWay() ? std::optional(m_runs.back()) : std::nullopt;
}

void DriverRuns::Tell(const std::vector<DriverNews> &news) const {
    if (!m_tell)
        return;
    for (const DriverNews &item : news)
        m_tell(item);
}
