// An installation with each call of the platform failing once, at each place, checked against rules for the outcome.
#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include <windows.h>

#include "CallPlaces.h"
#include "FaultCodes.h"
#include "InstallFaultPlaces.h"
#include "InstallScenarios.h"
#include "InstallRules.h"
#include "Leftovers.h"

namespace {

using Part = FaultPlace::Part;
using std::chrono::steady_clock;

/// The sum of the limits of all steps, in milliseconds.
std::uint64_t AllLimitsMs() {
    std::uint64_t sum = 0;
    for (const auto &[step, limit] : LimitsOfInstallation())
        sum += limit;
    return sum;
}

std::string NameOfPlace(Scenario scenario, const InstallFault &fault) {
    std::ostringstream name;
    name << NameOf(scenario) << ':' << NameOf(*fault.place) << "=0x" << std::hex << fault.code;
    return name.str();
}

/// Without the system's error text, and without the worker's log.
std::string PlainInstallEvent(const std::string &event) {
    static const std::regex report(R"(^(3005)\|(.*)\|.+ (\((?:0|0x[0-9a-f]+)\))$)");
    static const std::regex failure(R"(^(1004)\|([^|]*)\|[^]*$)");
    static const std::regex success(R"(^(1007)\|([^|]*\|[^|]*)\|[^]*$)");
    static const std::regex other(R"(^(\d+)\|([^]*)$)");
    for (const std::regex &known : {failure, success}) {
        if (std::regex_match(event, known))
            return std::regex_replace(event, known, "$1 $2");
    }
    return std::regex_match(event, report) ? std::regex_replace(event, report, "$1 $2 $3")
                                           : std::regex_replace(event, other, "$1 $2");
}

/// The worker's log, in the event that ends an installation.
std::string WorkersLog(const InstallOutcome &installation) {
    for (const int number : {1004, 1007}) {
        for (const std::string &text : installation.EventTexts(number))
            return text.substr(text.find(' '));
    }
    return "";
}

std::vector<std::string> UnwrittenValues(const std::string &log) {
    static const std::regex line(R"(Unable to write HKLM\\[^\n]*\\(\w+)\n)");
    std::vector<std::string> names;
    for (std::sregex_iterator at(log.begin(), log.end(), line), end; at != end; ++at)
        names.push_back((*at)[1]);
    return names;
}

/// The steps that a log begins and does not end.
std::vector<std::string> OpenSteps(const std::string &log) {
    std::vector<std::string> steps;
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        const std::size_t begin = line.find_first_not_of(' ');
        if (begin == line.npos)
            continue;
        const std::string name = line.substr(begin + 1, line.find('.', begin) - begin - 1);
        if (line[begin] == '>')
            steps.push_back(name);
        else if (line[begin] == '<' && !steps.empty() && steps.back() == name)
            steps.pop_back();
        else if (line[begin] == '<')
            steps.push_back("the end of " + name);
    }
    return steps;
}

/// What the two threads sleep when they do not poll: pollers sleep 100 or 250 milliseconds.
std::uint64_t Slept(const std::vector<Simulator::JournalEntry> &journal) {
    std::uint64_t sum = 0;
    for (const Simulator::JournalEntry &entry : journal) {
        if (entry.function == "Sleep" && entry.arguments != "100" && entry.arguments != "250")
            sum += std::stoul(entry.arguments);
    }
    return sum;
}

/// A service makes progress when its state is queried.
bool ComesToRun(const Simulator::Service &service) {
    return (service.coming.empty() ? service.status : service.coming.back()).state == SERVICE_RUNNING;
}

/// Whether the module itself, not a library called by it, contains this code.
bool IsOfModule(const void *code) {
    const Simulator::InsideSimulator inside;
    HMODULE module = nullptr;
    return GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                              static_cast<const wchar_t *>(code), &module) != 0 &&
           module == GetModuleHandleW(L"fc.dll");
}

template <class Lines>
void AppendLines(std::ostream &text, const char *what, const Lines &lines) {
    text << what << '\n';
    for (const auto &line : lines)
        text << "    " << line << '\n';
}

std::string DescribeInstall(const InstallResult &of) {
    std::ostringstream text;
    text << std::boolalpha << "result " << of.result << "\nreboot notifications " << of.reboots << "\nnotices "
         << of.notices << "\ninstalled " << of.isInstalled << "\ncallout runs " << of.calloutRuns << "\nlocked "
         << of.isLocked << "\ndisconnected " << of.isDisconnected << "\nslept " << of.sleptMs << '\n';
    AppendLines(text, "events", of.events);
    AppendLines(text, "unwritten", of.unwritten);
    AppendLines(text, "bindings", of.bindings);
    text << "left\n";
    for (const auto &[kind, count] : of.left)
        text << "    " << count << ' ' << kind << '\n';
    return text.str();
}

class InstallFaults : public InstallScenarios {
protected:
    void SetUp() override;

    /// Fails each call of the scenario.
    void FailEachPlace(Scenario scenario);
    /// Fails each call whose purpose or outcome differs from any that was tried before; and all calls of the
    /// installation proper.
    void FailNewPlaces(Scenario scenario);
    /// Calls of that scenario count as tried.
    void Meet(Scenario scenario);
    void Tell(const std::string &which) const;
    InstallResult Run(Scenario scenario, const InstallFault &fault);
    void ExpectToInstallAgain(Scenario scenario);
    std::vector<Simulator::BalanceItem> Left(const Simulator::BalanceSnapshot &before);

private:
    /// The function, the part of the installation, the component searched for, and the outcome.
    using PlaceKind = std::tuple<std::string, Part, std::string, std::string>;
    PlaceKind KindOf(Scenario scenario, const FaultPlace &place);

    /// The calls of a run without a fault, whose outcome must match the rules.
    std::vector<FaultPlace> PlacesOn(Scenario scenario);
    void FailPlaceByCodes(Scenario scenario, const FaultPlace &place);
    static bool IsWanted(Scenario scenario, const InstallFault &fault);
    void FailPlace(Scenario scenario, const InstallFault &fault);
    void Observe(const InstallOutcome &installation, InstallResult &observed);
    void ObserveMachine(InstallResult &observed);
    [[nodiscard]] InstallFolders Folders();

    std::set<PlaceKind> m_met;
    std::vector<Simulator::JournalEntry> m_journal;
    unsigned m_places = 0;
    unsigned m_installations = 0;
    steady_clock::time_point m_begin = steady_clock::now();
};

void InstallFaults::SetUp() {
    Take(Scenario::Upgrade);  // loads what is loaded once per process
    (void)Install();
}

InstallFolders InstallFaults::Folders() {
    return {NdisFolder().string() + "\\", simulation().GetFolders().Windows().string() + "\\"};
}

bool InstallFaults::IsWanted(Scenario scenario, const InstallFault &fault) {
    const char *const only = std::getenv("FC_FAULT_AT");
    return only == nullptr || NameOfPlace(scenario, fault) == only;
}

InstallFaults::PlaceKind InstallFaults::KindOf(Scenario scenario, const FaultPlace &place) {
    const DWORD code = FaultCodesOf(place.function).front();
    const InstallResult expected = ExpectInstallation(scenario, {&place, code}, Folders());
    const std::string end = expected.events.empty() ? "" : expected.events.back();
    return {place.function, place.part, place.component,
            (end.starts_with("1007") ? "1007" : end) + " " + std::to_string(expected.reboots)};
}

std::vector<FaultPlace> InstallFaults::PlacesOn(Scenario scenario) {
    EXPECT_EQ(DescribeInstall(Run(scenario, {})), DescribeInstall(ExpectInstallation(scenario, {}, Folders())))
        << "the scenario without a fault is not as expected";
    std::vector<FaultPlace> places = FaultPlacesOf(m_journal, GetCurrentThreadId());
    // Without its event nothing can watch the worker: a test of its own covers that.
    std::erase_if(places, [](const FaultPlace &place) { return place.function == "CreateEventW"; });
    return places;
}

void InstallFaults::Meet(Scenario scenario) {
    for (const FaultPlace &place : PlacesOn(scenario))
        m_met.insert(KindOf(scenario, place));
}

void InstallFaults::FailEachPlace(Scenario scenario) {
    const std::vector<FaultPlace> places = PlacesOn(scenario);
    ASSERT_FALSE(HasFailure());
    for (const FaultPlace &place : places) {
        FailPlaceByCodes(scenario, place);
        ASSERT_LT(testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count(), 10)
            << "too many failures";
    }
}

void InstallFaults::FailNewPlaces(Scenario scenario) {
    const std::vector<FaultPlace> places = PlacesOn(scenario);
    ASSERT_FALSE(HasFailure());
    for (const FaultPlace &place : places) {
        const bool isProper = place.part == Part::Installation || place.part == Part::Copying;
        if (m_met.insert(KindOf(scenario, place)).second || isProper)
            FailPlaceByCodes(scenario, place);
        ASSERT_LT(testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count(), 10)
            << "too many failures";
    }
}

void InstallFaults::FailPlaceByCodes(Scenario scenario, const FaultPlace &place) {
    std::vector<DWORD> codes = FaultCodesOf(place.function);
    if (place.function == "INetCfg::Apply")
        codes.push_back(S_FALSE);
    for (const DWORD code : codes)
        FailPlace(scenario, {&place, code});
}

void InstallFaults::FailPlace(Scenario scenario, const InstallFault &fault) {
    if (!IsWanted(scenario, fault))
        return;
    const std::string test = testing::UnitTest::GetInstance()->current_test_info()->name();
    SCOPED_TRACE(std::string(NameOf(fault.place->part)) + " " + std::to_string(fault.place->turn) +
                 "; again with FC_FAULT_AT='" + NameOfPlace(scenario, fault) + "' --gtest_filter=InstallFaults." +
                 test);
    ++m_places;
    const InstallResult observed = Run(scenario, fault);
    EXPECT_EQ(DescribeInstall(observed), DescribeInstall(ExpectInstallation(scenario, fault, Folders())));
    const bool wentWell = !observed.events.empty() && observed.events.back().starts_with("1007") &&
                          observed.left.empty() && !observed.isLocked;
    if (!wentWell)  // otherwise the next place reports it
        ExpectToInstallAgain(scenario);
}

void InstallFaults::ExpectToInstallAgain(Scenario scenario) {
    EXPECT_EQ(DescribeInstall(Run(scenario, {})), DescribeInstall(ExpectInstallation(scenario, {}, Folders())))
        << "the next installation";
}

InstallResult InstallFaults::Run(Scenario scenario, const InstallFault &fault) {
    ++m_installations;
    Take(scenario);
    (void)log.Take();
    (void)simulation().GetJournal().Take();
    const Simulator::BalanceSnapshot before = balance().Take();
    Simulator::FaultPlanHandle plan;
    if (fault.place != nullptr)
        plan =
            simulation().GetFaults().FailNth(fault.place->function, fault.place->nth, fault.code, fault.place->thread);
    InstallResult observed;
    Observe(Install(), observed);
    EXPECT_TRUE(!plan || plan->Hits() == 1) << "the fault was not hit";
    simulation().GetFaults().Clear();
    m_journal = simulation().GetJournal().Take();
    observed.sleptMs = Slept(m_journal);
    ObserveMachine(observed);
    observed.left = TakeBack(Left(before));
    return observed;
}

void InstallFaults::Observe(const InstallOutcome &installation, InstallResult &observed) {
    observed.result = installation.result;
    for (const std::string &event : installation.events)
        observed.events.push_back(PlainInstallEvent(event));
    for (const VtaCore::Control::Notification &notification : installation.notifications) {
        const bool reboot = notification.kind == VtaCore::Control::Notification::Kind::Reboot;
        ++(reboot ? observed.reboots : observed.notices);
    }
    const std::string workersLog = WorkersLog(installation);
    observed.unwritten = UnwrittenValues(workersLog);
    EXPECT_EQ(OpenSteps(workersLog), std::vector<std::string>{});
    EXPECT_LE(installation.tookMs, AllLimitsMs());
}

void InstallFaults::ObserveMachine(InstallResult &observed) {
    observed.isInstalled = network().Has(L"qbimvta");
    observed.bindings = Bindings();
    observed.calloutRuns = HasService() && ComesToRun(simulation().GetServices().Get(L"qbimwfp"));
    observed.isLocked = network().Read().lock.has_value();
    observed.isDisconnected = FirstAddress() != kFirstAddress;
}

/// What the installation did not release. Of memory only the module's own requests count.
std::vector<Simulator::BalanceItem> InstallFaults::Left(const Simulator::BalanceSnapshot &before) {
    std::vector<Simulator::BalanceItem> left = Simulator::Balance::Left(before, balance().Take());
    std::erase_if(left, [](const auto &item) {
        return item.kind == std::string_view(Simulator::Kind::kBlock) && !IsOfModule(item.caller);
    });
    return left;
}

void InstallFaults::Tell(const std::string &which) const {
    EXPECT_NE(m_places, 0U) << "FC_FAULT_AT names no place of this scenario";
    const auto took = std::chrono::duration_cast<std::chrono::seconds>(steady_clock::now() - m_begin);
    std::cout << "[  FAULTS  ] " << m_places << " places (function, occurrence, code) " << which << "; "
              << m_installations << " installations in " << took.count() << " s\n";
}

TEST_F(InstallFaults, OfAFreshInstallationEndAsTheRulesSay) {
    FailEachPlace(Scenario::Fresh);
    Tell("of a fresh installation, all of them");
}

TEST_F(InstallFaults, OfAnUpgradeEndAsTheRulesSay) {
    FailEachPlace(Scenario::Upgrade);
    Tell("of an upgrade, all of them");
}

TEST_F(InstallFaults, OfTheOtherScenariosEndAsTheRulesSay) {
    Meet(Scenario::Fresh);
    Meet(Scenario::Upgrade);
    for (const Scenario scenario :
         {Scenario::ForcedDowngrade, Scenario::PartialAfterReboot, Scenario::Embedded, Scenario::BrokenNetwork})
        FailNewPlaces(scenario);
    Tell("of the four other scenarios, those with a new purpose or outcome");
}

TEST_F(InstallFaults, WhileReadingTheFirstRecordsMakeALaterStepReportTheFailure) {
    Take(Scenario::Fresh);
    const auto first = simulation().GetFaults().FailNth("CoInitializeEx", 1, static_cast<DWORD>(E_ACCESSDENIED));
    const auto second = simulation().GetFaults().FailNth("SetupCopyOEMInfW", 1, ERROR_ACCESS_DENIED);
    const InstallOutcome installation = Install();
    EXPECT_TRUE(first->Hit());
    EXPECT_TRUE(second->Hit());
    ASSERT_EQ(installation.EventTexts(1004).size(), 1U);
    EXPECT_TRUE(installation.EventTexts(1004)[0].starts_with("GettingAdapterInfo|"));
}

TEST_F(InstallFaults, ToCreateTheWorkersEventKillTheStepThatRunsAtTheFirstPoll) {
    Take(Scenario::Upgrade);
    const Simulator::BalanceSnapshot before = balance().Take();
    const auto create = simulation().GetFaults().FailNth("CreateEventW", 1, ERROR_NOT_ENOUGH_MEMORY);
    const auto hung = simulation().GetFaults().HangNth("INetCfgClassSetup::DeInstall", 1);
    simulation().GetClock().Step();
    const InstallOutcome installation = InstallWhile([&] {
        EXPECT_TRUE(hung->WaitUntilHit(kPatienceMs));
        simulation().GetClock().Step(Simulator::Clock::AutoAdvance::Sleeps);
        AdvanceSeconds(1);  // to the end of the watchdog's sleep before its first poll
    });
    EXPECT_TRUE(create->Hit());
    EXPECT_TRUE(installation.result);
    EXPECT_EQ(installation.EventTexts(1007), std::vector<std::string>{});
    ASSERT_EQ(installation.EventTexts(1004).size(), 1U);
    EXPECT_TRUE(installation.EventTexts(1004)[0].starts_with("UninstallingDriver|"));
    EXPECT_EQ(Bindings(), (std::array{true, false, false}));
    simulation().GetFaults().Clear();
    (void)TakeBack(Left(before));
    ExpectToInstallAgain(Scenario::Upgrade);
}

}  // namespace
