// An installation hung in each of its calls: the watchdog notices a worker that hangs when the limit of its step has
// passed and not before, the caller notices a watchdog that hangs after an hour, and the next installation works.
#include <algorithm>
#include <array>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Balance.h"
#include "HangReport.h"
#include "HungInstall.h"

namespace {

namespace Kind = Simulator::Kind;

using Bound = std::array<bool, 3>;
using Strings = std::vector<std::string>;

constexpr int kFailed = 1004;
constexpr int kUpgraded = 1005;
constexpr int kInstalled = 1007;
constexpr int kCallFailed = 3005;

/// How long the watchdog's check of the network takes: its sleeps, if all is well, and if both recoveries are tried.
constexpr std::uint64_t kHealthyCheckMs = 4'000;
constexpr std::uint64_t kUnhealthyCheckMs = 17'000;

/// Except the event of the worker's object, which its watchdog closes.
std::multiset<std::pair<std::string, std::uintptr_t>> ThingsIn(const std::vector<Simulator::BalanceItem> &items) {
    std::multiset<std::pair<std::string, std::uintptr_t>> things;
    for (const Simulator::BalanceItem &item : items) {
        if (item.function != std::string_view("CreateEventW"))
            things.emplace(item.kind, item.value);
    }
    return things;
}

Strings MakersOf(const std::vector<Simulator::BalanceItem> &items) {
    Strings makers;
    for (const Simulator::BalanceItem &item : items)
        makers.push_back(std::string(item.kind) + " by " + item.function);
    return makers;
}

std::vector<int> NumbersIn(const std::vector<TimedEvent> &events) {
    std::vector<int> numbers;
    for (const TimedEvent &event : events)
        numbers.push_back(event.number);
    return numbers;
}

std::string VersionsOn(Scenario scenario) {
    switch (scenario) {
        case Scenario::Upgrade:
            return "1.2.3.4|2.0.0.0|";
        case Scenario::ForcedDowngrade:
            return "2.0.0.1|2.0.0.0|";
        case Scenario::PartialAfterReboot:
            return "2.0.0.0|2.0.0.0|";
        default:
            return "0.0.0.0|2.0.0.0|";
    }
}

std::string StepOf(const InstallPlace &place) {
    return place.thread == InstallPlace::Thread::Worker ? place.step : "the watchdog";
}

/// Where a call belongs, for scenarios of which only new calls are tried.
std::string KeyOf(const InstallPlace &place) {
    return place.function + " in " + StepOf(place);
}

class InstallHang : public HungInstall {
protected:
    void SetUp() override {
        hung.LoadNoModulesForStacks();
        // What the first stack walk loads stays for good.
        const std::vector<InstallPlace> places = InstallOn(Scenario::Fresh).places;
        const auto first = std::find_if(places.begin(), places.end(),
                                        [](const InstallPlace &place) { return place.step == "GettingInetCfg"; });
        ASSERT_NE(first, places.end());
        Take(Scenario::Fresh);
        hung.ClearAway(HangAt(*first).left);
    }

    /// Hangs each call of an installation.
    void HangEachCallOn(Scenario scenario) { HangCallsOn(scenario, {}, "calls"); }

    /// Hangs each call that no earlier scenario makes in the same step, and the first one of each step.
    void HangNewCallsOn(Scenario scenario) {
        std::set<std::string> known;
        for (const Scenario other : kScenarios) {
            if (other == scenario)
                break;
            for (const InstallPlace &place : InstallOn(other).places)
                known.insert(KeyOf(place));
        }
        HangCallsOn(scenario, known, "calls, the first one of each step and those that no earlier scenario has,");
    }

    /// The steps in which the worker of the last scenario's installation makes calls.
    [[nodiscard]] std::set<std::string> WorkersSteps() const {
        std::set<std::string> steps;
        for (const InstallPlace &place : m_good.places) {
            if (place.thread == InstallPlace::Thread::Worker)
                steps.insert(place.step);
        }
        return steps;
    }
    /// Those functions that the watchdog of that installation does not call.
    [[nodiscard]] std::set<std::string> WatchdogLacks(std::set<std::string> functions) const {
        for (const InstallPlace &place : m_good.places) {
            if (place.thread == InstallPlace::Thread::Watchdog)
                functions.erase(place.function);
        }
        return functions;
    }

private:
    void HangCallsOn(Scenario scenario, const std::set<std::string> &known, const std::string &which) {
        m_scenario = scenario;
        m_good = InstallOn(scenario);
        const std::vector<InstallPlace> &places = m_good.places;
        ASSERT_FALSE(places.empty());
        std::set<std::string> steps;
        for (std::size_t i = 0; i < places.size() && !HasFailure(); ++i) {
            const bool isNew = !known.contains(KeyOf(places[i])) || steps.insert(StepOf(places[i])).second;
            if (!HangReport::IsWanted(i) || !(isNew || HangReport::IsForOnePlace()))
                continue;
            SCOPED_TRACE(KeyOf(places[i]) + ", no. " + std::to_string(places[i].nth) + "; " +
                         HangReport::HowToRepeat(i));
            Take(scenario);
            Try(places[i]);
        }
        m_report.Tell(places.size(), which + " of an installation (" + NameOf(scenario) +
                                         "), each noticed in the millisecond in which its time was up");
    }

    void Try(const InstallPlace &place) {
        const HungOutcome outcome = HangAt(place);
        EXPECT_TRUE(outcome.met);
        EXPECT_TRUE(outcome.ended);
        EXPECT_TRUE(outcome.destroyed);
        EXPECT_EQ(simulation().GetClock().Waiting(), 0U);
        if (place.thread == InstallPlace::Thread::EndedWatchdog)
            m_report.AddWithoutTime();
        else
            m_report.Add(outcome.returnedAfterMs);
        if (place.thread == InstallPlace::Thread::Worker)
            ExpectWorkerNoticed(place, outcome);
        else if (place.thread == InstallPlace::Thread::Watchdog)
            ExpectWatchdogNoticed(outcome);
        else
            ExpectAnsweredBeforehand(outcome);
        hung.ClearAway(outcome.left);
        ExpectTheNextOneWorks();
    }

    void ExpectWorkerNoticed(const InstallPlace &place, const HungOutcome &outcome) {
        const bool letGo = place.step == "ThreadRunning";
        const bool unhealthy = m_scenario == Scenario::BrokenNetwork && place.installed;
        EXPECT_TRUE(outcome.waitedToTheEnd);
        EXPECT_TRUE(outcome.installation.result);
        EXPECT_EQ(outcome.answeredAtMs, place.deadlineMs + (unhealthy ? kUnhealthyCheckMs : kHealthyCheckMs));
        EXPECT_EQ(outcome.installation.AskedForReboot(), unhealthy);
        ExpectWarningOfLongStep(place, outcome);
        EXPECT_EQ(outcome.killed, !letGo);
        ExpectInFlight(place, outcome);
        ExpectEventsOfWorker(place, outcome, letGo && place.succeeded);
        EXPECT_EQ(outcome.bindings, BindingsWhenNoticed(place, letGo && place.succeeded));
        if (!letGo)
            ExpectKilled(place, outcome);
        else if (LosesLock(place))
            ExpectLetGoWithoutLock(place, outcome);
        else
            ExpectLetGo(outcome);
    }

    /// The clock moves in leaps, so the caller may poll late.
    static void ExpectWarningOfLongStep(const InstallPlace &place, const HungOutcome &outcome) {
        const Strings warnings = outcome.installation.Lines(wxLOG_Warning);
        ASSERT_EQ(warnings.size(), LimitsOfInstallation().at(place.step) > 60'000 ? 1U : 0U);
        for (const std::string &warning : warnings)
            EXPECT_TRUE(warning.starts_with("Installer thread has not made any progress in the last ")) << warning;
    }

    /// When the watchdog itself changes bindings, it takes the write lock over from a worker that is not killed, and
    /// releases it.
    [[nodiscard]] bool LosesLock(const InstallPlace &place) const {
        return place.holdsLock && (IsUpgrade(m_scenario) ? place.succeeded : place.installed);
    }

    /// One event reports the outcome, at the moment of the deadline, with everything that the worker had logged.
    void ExpectEventsOfWorker(const InstallPlace &place, const HungOutcome &outcome, bool succeeded) {
        std::vector<int> numbers = m_scenario == Scenario::Upgrade ? std::vector{kUpgraded} : std::vector<int>{};
        numbers.push_back(succeeded ? kInstalled : kFailed);
        ASSERT_EQ(NumbersIn(outcome.events), numbers);
        EXPECT_EQ(outcome.events.back().atMs, place.deadlineMs);
        const std::string step = place.step == "ThreadRunning" ? "<UnknownStep>" : place.step;
        std::string text = succeeded ? VersionsOn(m_scenario) : step + "|";
        for (std::size_t i = 0; i < place.lines; ++i)
            text += m_good.workersLines.at(i) + "\n";
        EXPECT_EQ(outcome.installation.EventTexts(numbers.back()), Strings{text});
    }

    /// Without an upgrade the third adapter is unbound whatever the outcome. After one the bindings are restored, but
    /// only if it succeeded.
    [[nodiscard]] Bound BindingsWhenNoticed(const InstallPlace &place, bool succeeded) const {
        const bool hadDriver = IsUpgrade(m_scenario) || m_scenario == Scenario::PartialAfterReboot;
        if (place.installed)
            return IsUpgrade(m_scenario) && !succeeded ? Bound{true, true, true} : BindingsAfter(m_scenario);
        if (hadDriver && !place.removed)
            return BindingsAfter(m_scenario);
        return {};
    }

    /// The journal does not show the release of COM references.
    static void ExpectInFlight(const InstallPlace &place, const HungOutcome &outcome) {
        for (const std::string_view kind : KindsInJournals()) {
            const auto open = place.open.find(std::string(kind));
            const int event = kind == Kind::kHandle ? 1 : 0;
            EXPECT_EQ(std::count_if(outcome.inFlight.begin(), outcome.inFlight.end(),
                                    [kind](const auto &item) { return item.kind == kind; }),
                      event + (open == place.open.end() ? 0 : open->second))
                << kind;
        }
    }

    /// The write lock of a killed thread is held until the next writer has taken it over and released it.
    void ExpectKilled(const InstallPlace &place, const HungOutcome &outcome) {
        const Strings stacks = StacksIn(outcome.installation.log);
        ASSERT_EQ(stacks.size(), 1U);
        EXPECT_EQ(outcome.installation.events.size(), outcome.events.size());
        EXPECT_TRUE(stacks[0].starts_with("Stack trace:\n[00] ")) << stacks[0];
        EXPECT_EQ(ThingsIn(outcome.left), ThingsIn(outcome.inFlight));
        EXPECT_EQ(outcome.left.size(), outcome.inFlight.size() - 1);
        const bool unbinds = place.installed && !IsUpgrade(m_scenario);
        EXPECT_EQ(outcome.holdsLock, place.holdsLock && !unbinds);
    }

    /// The worker did the rest of the work when its call was released.
    void ExpectLetGo(const HungOutcome &outcome) {
        EXPECT_EQ(outcome.installation.events.size(), outcome.events.size());
        EXPECT_EQ(StacksIn(outcome.installation.log), Strings{});
        EXPECT_EQ(MakersOf(outcome.left), Strings{});
        ExpectAllIsThere();
    }

    void ExpectLetGoWithoutLock(const InstallPlace &place, const HungOutcome &outcome) {
        EXPECT_EQ(StacksIn(outcome.installation.log), Strings{});
        EXPECT_EQ(MakersOf(outcome.left), Strings{});
        EXPECT_FALSE(network().Read().lock);
        EXPECT_EQ(network().Has(L"qbimvta"), place.installed);
        const std::size_t failures = outcome.installation.EventTexts(kCallFailed).size();
        EXPECT_GE(failures, 1U);
        EXPECT_EQ(outcome.installation.events.size(), outcome.events.size() + failures);
    }

    /// The watchdog did the rest when its call was released.
    void ExpectWatchdogNoticed(const HungOutcome &outcome) {
        EXPECT_TRUE(outcome.waitedToTheEnd);
        EXPECT_FALSE(outcome.installation.result);
        EXPECT_EQ(outcome.answeredAtMs, outcome.watchdogsDeadlineMs);
        ASSERT_FALSE(outcome.events.empty());
        EXPECT_EQ(outcome.events.back().number, kFailed);
        EXPECT_EQ(outcome.events.back().atMs, outcome.watchdogsDeadlineMs);
        const Strings stalls = outcome.installation.EventTexts(kFailed);
        ASSERT_EQ(stalls.size(), 1U);
        EXPECT_TRUE(stalls[0].starts_with("OverallInstall|[00] ")) << stalls[0];
        EXPECT_EQ(outcome.installation.Lines(wxLOG_Warning),
                  Strings{"Installer thread has not made any progress in the last 3600 seconds."});
        EXPECT_EQ(outcome.installation.notifications.size(), m_scenario == Scenario::BrokenNetwork ? 2U : 1U);
        EXPECT_TRUE(outcome.installation.AskedForReboot());
        ExpectTheRestIsDone(outcome, 1);
    }

    void ExpectAnsweredBeforehand(const HungOutcome &outcome) {
        EXPECT_TRUE(outcome.installation.result);
        EXPECT_EQ(outcome.installation.notifications.size(), m_scenario == Scenario::BrokenNetwork ? 1U : 0U);
        ExpectTheRestIsDone(outcome, 0);
    }

    /// @param stalls  events in addition to those of a successful installation.
    void ExpectTheRestIsDone(const HungOutcome &outcome, std::size_t stalls) {
        EXPECT_FALSE(outcome.killed);
        EXPECT_EQ(outcome.installation.events.size(), m_good.installation.events.size() + stalls);
        EXPECT_EQ(outcome.installation.EventTexts(kInstalled), m_good.installation.EventTexts(kInstalled));
        EXPECT_EQ(StacksIn(outcome.installation.log), Strings{});
        EXPECT_EQ(MakersOf(outcome.left), Strings{});
        EXPECT_EQ(Bindings(), BindingsAfter(m_scenario));
        ExpectAllIsThere();
    }

    void ExpectAllIsThere() {
        EXPECT_TRUE(network().Has(L"qbimvta"));
        EXPECT_FALSE(network().Read().lock);
        EXPECT_EQ(simulation().GetServices().Get(L"qbimwfp").status.state, DWORD{SERVICE_RUNNING});
        EXPECT_TRUE(simulation().GetRegistry().Text(HKEY_LOCAL_MACHINE, kFilterServiceKey, L"ConfigBinary"));
    }

    void ExpectTheNextOneWorks() {
        Take(m_scenario);
        const int objects = VtaCore::Control::LiveObjects();
        const Simulator::BalanceSnapshot before = balance().Take();
        const InstallOutcome next = Install();
        EXPECT_TRUE(next.result);
        EXPECT_TRUE(HungCall::AwaitObjects(objects, before));
        EXPECT_EQ(next.events, m_good.installation.events);
        EXPECT_EQ(Bindings(), BindingsAfter(m_scenario));
        EXPECT_EQ(next.AskedForReboot(), m_scenario == Scenario::BrokenNetwork);
        EXPECT_EQ(MakersOf(NewThings(before)), Strings{});
        ExpectAllIsThere();
    }

    Scenario m_scenario = Scenario::Fresh;
    GoodInstall m_good;
    HangReport m_report;
};

TEST_F(InstallHang, IsNoticedInTimeInEachCallOfAFreshInstallation) {
    HangEachCallOn(Scenario::Fresh);
    EXPECT_EQ(WatchdogLacks({"vti_open", "GetFileVersionInfoW", "_beginthreadex", "RegSetValueExW", "GetAdaptersInfo",
                             "DeviceIoControl", "INetCfgBindingPath::Enable", "INetCfg::Apply", "GetIpNetTable",
                             "DeleteIpNetEntry", "SendARP", "Sleep(2000)"}),
              std::set<std::string>{});
}

TEST_F(InstallHang, IsNoticedInTimeInEachCallOfAnUpgrade) {
    HangEachCallOn(Scenario::Upgrade);
    std::set<std::string> steps{"GettingAdapterInfo"};  // the watchdog's
    steps.merge(WorkersSteps());
    std::set<std::string> all;
    for (const auto &[step, limit] : LimitsOfInstallation())
        all.insert(step);
    EXPECT_EQ(steps, all);
    EXPECT_EQ(WatchdogLacks({"vti_get_version", "INetCfgBindingPath::Enable"}), std::set<std::string>{});
}

TEST_F(InstallHang, IsNoticedInTimeInNewCallsOfAForcedDowngrade) {
    HangNewCallsOn(Scenario::ForcedDowngrade);
}

TEST_F(InstallHang, IsNoticedInTimeInNewCallsAfterAPartialInstallation) {
    HangNewCallsOn(Scenario::PartialAfterReboot);
}

TEST_F(InstallHang, IsNoticedInTimeInNewCallsOnAnEmbeddedSystem) {
    HangNewCallsOn(Scenario::Embedded);
}

TEST_F(InstallHang, IsNoticedInTimeInNewCallsOnABrokenNetwork) {
    HangNewCallsOn(Scenario::BrokenNetwork);
    EXPECT_EQ(WatchdogLacks({"SetupDiGetClassDevsW", "SetupDiCallClassInstaller", "Sleep(1000)"}),
              std::set<std::string>{});
}

}  // namespace
