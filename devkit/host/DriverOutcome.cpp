#include "DriverOutcome.h"

#include <algorithm>
#include <cstdio>
#include <string_view>

#include "WallClock.h"

namespace {

using OutcomeKind = DriverOutcome::What;

constexpr std::string_view kInstalling = "InstallingDriver";
constexpr std::string_view kUninstalling = "UninstallingDriver";
constexpr std::string_view kApplying = "ApplyingInetCfgChanges";
constexpr std::string_view kRemovingCallout = "UninstallingWfpCalloutDriver";

bool HasStep(const DriverRun &run, std::string_view name) {
    return std::any_of(run.steps.begin(), run.steps.end(),
                       [name](const DriverStep &step) { return step.name == name; });
}

bool HasLine(const DriverRun &run, std::string_view part) {
    return std::any_of(run.log.begin(), run.log.end(),
                       [part](const LoggedLine &line) { return line.text.find(part) != line.text.npos; });
}

/// The step in which the worker was killed, or hangs if it could not be.
const DriverStep *OverrunStep(const DriverRun &run) {
    const auto found = std::find_if(run.steps.rbegin(), run.steps.rend(), [&run](const DriverStep &step) {
        return run.outlivesKill ? !step.end.has_value() : step.killed;
    });
    return found == run.steps.rend() ? nullptr : &*found;
}

/// After a removal that Windows leaves to the next boot, the module does not apply the changes.
bool IsRemovalLeftToBoot(const DriverRun &run) {
    for (std::size_t i = 0; i < run.steps.size(); ++i) {
        const DriverStep &step = run.steps[i];
        const bool isRemoved = step.name == kUninstalling && step.end && !step.failed && !step.killed;
        if (isRemoved && (i + 1 == run.steps.size() || run.steps[i + 1].name != kApplying))
            return true;
    }
    return false;
}

/// Of some requests nobody is told: all those of a removal, and those that an upgrade's removal of the old driver
/// loses.
bool NeedsReboot(const DriverRun &run) {
    return run.rebootAsked || run.outlivesKill || IsRemovalLeftToBoot(run) ||
           HasLine(run, "orphan scan needs reboot") || (run.state && run.state->hasLeftToBoot);
}

/// Of calls whose failure the module ignores.
bool IsIgnored(const DriverFailure &failure) {
    return failure.call.starts_with("SetupDi") || failure.step.starts_with("Releasing");
}

/// The call to which a failed run is due.
std::optional<DriverFailure> CauseOf(const DriverRun &run) {
    const auto first = [&run](const auto &is) {
        const auto found = std::find_if(run.failures.begin(), run.failures.end(), is);
        return found == run.failures.end() ? std::nullopt : std::optional(*found);
    };
    if (run.kind == DriverRun::Kind::Installation) {
        const auto named = first([&run](const DriverFailure &failure) { return failure.step == run.failedStep; });
        return named ? named : first([](const DriverFailure &failure) { return !IsIgnored(failure); });
    }
    // Orphans are only searched for when the component is gone, and then they alone decide.
    const auto ofOrphans = first([](const DriverFailure &failure) { return failure.ofOrphans && !IsIgnored(failure); });
    return ofOrphans ? ofOrphans : first([](const DriverFailure &failure) { return !IsIgnored(failure); });
}

OutcomeKind OutcomeOfInstallation(const DriverRun &run) {
    if (!run.failedStep.empty() || run.killed || run.result == false)
        return OutcomeKind::Failed;
    if (run.succeeded) {
        if (!HasStep(run, kInstalling))
            return OutcomeKind::Pending;
        return run.isUpgrade ? OutcomeKind::Upgraded : OutcomeKind::Installed;
    }
    return run.end ? OutcomeKind::Nothing : OutcomeKind::Unfinished;
}

OutcomeKind OutcomeOfRemoval(const DriverRun &run) {
    if (run.killed || run.result == false)
        return OutcomeKind::Failed;
    if (!run.end)
        return OutcomeKind::Unfinished;
    const bool hasRemoved =
        HasStep(run, kUninstalling) || HasStep(run, kRemovingCallout) || HasLine(run, "Deleting this inf+pnf+cat.");
    return hasRemoved ? OutcomeKind::Removed : OutcomeKind::Nothing;
}

/// When the latest step has begun or ended.
double LatestStepTime(const DriverRun &run) {
    double time = run.begin;
    for (const DriverStep &step : run.steps)
        time = std::max(time, step.end.value_or(step.begin));
    return time;
}

void SetFailure(const DriverRun &run, DriverOutcome &outcome) {
    if (run.killed) {
        const DriverStep *const step = OverrunStep(run);
        const double begin = step != nullptr ? step->begin : LatestStepTime(run);
        outcome.step = step != nullptr ? step->name : run.failedStep;
        (run.outlivesKill ? outcome.notKilledAfter : outcome.killedAfter) = std::max(0.0, *run.killed - begin);
        return;
    }
    outcome.cause = CauseOf(run);
    outcome.step = !run.failedStep.empty() || !outcome.cause ? run.failedStep : outcome.cause->step;
}

std::string Code(std::uint32_t code) {
    char text[16] = "";
    (void)std::snprintf(text, sizeof text, "0x%08x", static_cast<unsigned>(code));
    return text;
}

std::string FailureText(const DriverRun &run, const DriverOutcome &outcome) {
    std::string text = run.isUpgrade ? "upgrade from " + run.from + " to " + run.to + " failed" : "failed";
    if (!outcome.step.empty())
        text += " in " + outcome.step;
    const std::string where = outcome.step.empty() ? " in a step that leaves no line in the log" : "";
    if (outcome.killedAfter)
        return text + ", killed after " + SecondsText(*outcome.killedAfter) + where;
    if (outcome.notKilledAfter)
        return text + ", given up after " + SecondsText(*outcome.notKilledAfter) + where +
               "; its thread could not be ended";
    if (outcome.cause)
        return text + " with " + Code(outcome.cause->code) + " (" + outcome.cause->call + ")";
    if (run.isAtWork)
        return text + ": given up while its thread was still at work";
    return outcome.step.empty() ? text + ", for a reason that is not told" : text;
}

std::string WhatText(const DriverRun &run, const DriverOutcome &outcome) {
    switch (outcome.what) {
        case OutcomeKind::Installed:
            return "installed " + run.to;
        case OutcomeKind::Upgraded:
            return "upgraded from " + run.from + " to " + run.to;
        case OutcomeKind::Pending:
            return run.to + " is not installed yet";
        case OutcomeKind::Removed:
            return "removed";
        case OutcomeKind::Nothing:
            return outcome.isCalloutLeft || outcome.isFilterLeft ? "nothing was removed" : "nothing to do";
        case OutcomeKind::Failed:
            return FailureText(run, outcome);
        case OutcomeKind::Unfinished:
            break;
    }
    return "did not come to its end";
}

std::string LeftText(const DriverOutcome &outcome) {
    if (outcome.isFilterLeft && outcome.isCalloutLeft)
        return "; the filter qbimvta and the callout qbimwfp are left behind";
    if (outcome.isFilterLeft)
        return "; the filter qbimvta is left behind";
    return outcome.isCalloutLeft ? "; the callout qbimwfp is left behind" : "";
}

}  // namespace

DriverOutcome OutcomeOf(const DriverRun &run) {
    const bool isRemoval = run.kind == DriverRun::Kind::Removal;
    DriverOutcome outcome{.what = isRemoval ? OutcomeOfRemoval(run) : OutcomeOfInstallation(run),
                          .needsReboot = NeedsReboot(run)};
    if (isRemoval && run.state) {
        outcome.isCalloutLeft = run.state->callout.has_value();
        outcome.isFilterLeft = run.state->hasFilter;
    }
    if (outcome.HasFailed())
        SetFailure(run, outcome);
    return outcome;
}

void DriverTotals::Count(const DriverRun &run) {
    const OutcomeKind what = OutcomeOf(run).what;
    ++(run.kind == DriverRun::Kind::Installation ? installations : removals);
    failed += what == OutcomeKind::Failed || what == OutcomeKind::Unfinished ? 1 : 0;
    killed += run.killed && !run.outlivesKill ? 1 : 0;
}

const char *OutcomeName(DriverOutcome::What what) {
    switch (what) {
        case OutcomeKind::Installed:
            return "installed";
        case OutcomeKind::Upgraded:
            return "upgraded";
        case OutcomeKind::Pending:
            return "pending";
        case OutcomeKind::Removed:
            return "removed";
        case OutcomeKind::Nothing:
            return "nothing";
        case OutcomeKind::Failed:
            return "failed";
        case OutcomeKind::Unfinished:
            break;
    }
    return "unfinished";
}

std::string OutcomeText(const DriverRun &run) {
    const DriverOutcome outcome = OutcomeOf(run);
    return WhatText(run, outcome) + (outcome.needsReboot ? "; a reboot is needed" : "") + LeftText(outcome);
}
