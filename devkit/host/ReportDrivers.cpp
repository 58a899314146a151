#include "ReportDrivers.h"

#include <algorithm>

#include "DriverOutcome.h"
#include "ReportJson.h"

namespace {

/// More would make the page large.
constexpr std::size_t kMaxDriverRuns = 100;
constexpr std::size_t kMaxLogLines = 1000;

/// The items of an array, one a line.
template <typename Items, typename Write>
std::string ItemsAsJson(const Items &items, const Write &write) {
    std::string json;
    for (const auto &item : items) {
        json += json.empty() ? "\n" : ",\n";
        json += write(item);
    }
    return json;
}

std::string StepsAsJson(const std::vector<DriverStep> &steps, double start) {
    return ItemsAsJson(steps, [start](const DriverStep &step) {
        return "{\"name\":" + Quoted(step.name) + ",\"depth\":" + std::to_string(step.depth) +
               ",\"limit\":" + std::to_string(step.limit) + ",\"begin\":" + Number(step.begin - start) +
               ",\"end\":" + (step.end ? Number(*step.end - start) : "null") + "," + Flag("killed", step.killed) + "," +
               Flag("failed", step.failed) + "}";
    });
}

/// Its end, where it is too long.
std::string LogAsJson(const std::vector<LoggedLine> &log, double start) {
    const std::size_t left = log.size() - std::min(log.size(), kMaxLogLines);
    const std::vector<LoggedLine> lines(log.begin() + static_cast<std::ptrdiff_t>(left), log.end());
    return ItemsAsJson(lines, [start](const LoggedLine &line) {
        return "{\"time\":" + Number(line.time - start) + ",\"level\":" + Quoted(line.level) +
               ",\"text\":" + Quoted(line.text) + "}";
    });
}

std::string StateAsJson(const DriverState &state) {
    return "{" + OptionalText("driver", state.driver) + "," + Flag("hasMachine", state.hasMachine) + "," +
           Flag("hasFilter", state.hasFilter) + "," + OptionalText("callout", state.callout) + "," +
           OptionalText("lock", state.lock) + ",\"adapters\":[" +
           ItemsAsJson(state.adapters,
                       [](const DriverState::Adapter &adapter) {
                           return "{\"name\":" + Quoted(adapter.name) + "," + Flag("bound", adapter.isBound) + "}";
                       }) +
           "]}";
}

std::string DriverRunAsJson(const DriverRun &run, double start) {
    const bool isInstallation = run.kind == DriverRun::Kind::Installation;
    const DriverOutcome outcome = OutcomeOf(run);
    return std::string(R"({"kind":")") + (isInstallation ? "installation" : "removal") + R"(","begin":)" +
           Number(run.begin - start) + R"(,"end":)" + (run.end ? Number(*run.end - start) : "null") +
           R"(,"outcome":")" + OutcomeName(outcome.what) + R"(","text":)" + Quoted(OutcomeText(run)) + R"(,"steps":[)" +
           StepsAsJson(run.steps, start) + R"(],"state":)" + (run.state ? StateAsJson(*run.state) : "null") +
           R"(,"log":[)" + LogAsJson(run.log, start) + R"(],"stack":)" + Quoted(run.stack) + "}";
}

}  // namespace

std::string DriverRunsAsJson(const std::vector<DriverRun> &runs, double start) {
    const std::size_t left = runs.size() - std::min(runs.size(), kMaxDriverRuns);
    return ItemsAsJson(std::vector<DriverRun>(runs.begin() + static_cast<std::ptrdiff_t>(left), runs.end()),
                       [start](const DriverRun &run) { return DriverRunAsJson(run, start); });
}
