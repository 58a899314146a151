#include "StepDisplay.h"

#include <algorithm>
#include <chrono>

#include "Console.h"
#include "WallClock.h"

namespace {

constexpr std::chrono::milliseconds kUpdateEvery{100};
constexpr std::chrono::seconds kShowPatience{1};

const char *RunName(DriverRun::Kind kind) {
    return kind == DriverRun::Kind::Installation ? "installation" : "removal";
}

std::string Indented(const DriverStep &step, char mark) {
    return std::string(step.depth + 1, ' ') + mark + step.name;
}

}  // namespace

std::string NewsLine(const DriverNews &news) {
    const std::string took = SecondsText(news.time - news.begin);
    const std::string most = news.step.limit == 0 ? "" : " of " + std::to_string(news.step.limit) + " s";
    const std::string line = "step    ";
    switch (news.what) {
        case DriverNews::What::RunBegins:
            return line + RunName(news.kind) + " begins";
        case DriverNews::What::StepBegins:
            return line + Indented(news.step, '>') + ", " + std::to_string(news.step.limit) + " s at most";
        case DriverNews::What::StepEnds:
            return line + Indented(news.step, '<') + " after " + took + (news.step.failed ? ", with a failure" : "");
        case DriverNews::What::StepKilled:
            return line + Indented(news.step, '!') + " is given up after " + took + most;
        case DriverNews::What::RunEnds:
            break;
    }
    return line + RunName(news.kind) + " ends after " + took + (news.outcome.empty() ? "" : ": " + news.outcome);
}

std::string StatusText(const DriverRun &run, double now, std::size_t width) {
    std::string text = std::string(RunName(run.kind)) + ", " + SecondsText(now - run.begin);
    const auto open = std::find_if(run.steps.rbegin(), run.steps.rend(), [](const auto &step) { return !step.end; });
    if (open != run.steps.rend())
        text += ": " + open->name + ", " + SecondsText(now - open->begin) + " of " + std::to_string(open->limit) + " s";
    if (text.size() > width)
        text.resize(width);
    return text;
}

void StepDisplay::Begin(DriverRuns &runs) {
    if (IsTerminal()) {
        // At once, so that the script's next output finds an empty line.
        runs.OnNews([this](const DriverNews &news) {
            if (news.what != DriverNews::What::RunEnds)
                return;
            ShowNothing();
            PrintLineOf(news.time, NewsLine(news));
        });
        m_updater = std::thread([this, &runs] { Update(runs); });
        return;
    }
    runs.OnNews([](const DriverNews &news) { PrintLineOf(news.time, NewsLine(news)); });
}

void StepDisplay::Update(const DriverRuns &runs) {
    std::unique_lock lock(m_lock);
    while (!m_wake.wait_for(lock, kUpdateEvery, [this] { return m_ends; }))
        ShowCurrent(runs);
    ShowNothing();
}

void StepDisplay::ShowCurrent(const DriverRuns &runs) {
    const std::unique_lock showing(m_showing, kShowPatience);
    if (!showing.owns_lock())
        return;
    if (const std::optional<DriverRun> run = runs.Current())
        ShowStatus(StatusText(*run, WallClockSeconds(), TerminalWidth() - 1));
}

void StepDisplay::ShowNothing() {
    const std::unique_lock showing(m_showing, kShowPatience);
    ShowStatus({});
}

void StepDisplay::End() {
    {
        const std::lock_guard lock(m_lock);
        m_ends = true;
    }
    m_wake.notify_all();
    if (m_updater.joinable())
        m_updater.join();
}
