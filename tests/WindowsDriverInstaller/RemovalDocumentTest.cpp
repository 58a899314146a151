// The table "What survives a failure" of docs/removal.md: each row on a machine on which that fails.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "HungRemoval.h"
#include "TestData.h"
#include "ThreadFaults.h"

namespace {

using Cells = std::vector<std::string>;

/// A row as the page has it.
struct SurvivalRow {
    std::string whatFails;
    std::string symptom;
    std::string whatFollows;
    std::string whatIsLeft;
    std::string failures;
};

Cells CellsOf(const std::string &line) {
    Cells cells;
    for (std::size_t begin = 1, end = 0; (end = line.find('|', begin)) != line.npos; begin = end + 1)
        cells.push_back(line.substr(begin + 1, end - begin - 2));
    return cells;
}

/// The texts in code spans.
std::vector<std::string> CodeIn(const std::string &cell) {
    std::vector<std::string> spans;
    for (std::size_t begin = 0, end = 0; (begin = cell.find('`', end)) != cell.npos; end = end + 1) {
        end = cell.find('`', begin + 1);
        spans.push_back(cell.substr(begin + 1, end - begin - 1));
    }
    return spans;
}

/// What the cell has outside of code spans, without blanks around it.
std::string WordsIn(std::string cell) {
    for (std::size_t begin = 0; (begin = cell.find('`')) != cell.npos;)
        cell.erase(begin, cell.find('`', begin + 1) - begin + 1);
    cell.erase(0, cell.find_first_not_of(' '));
    cell.erase(cell.find_last_not_of(' ') + 1);
    return cell;
}

std::vector<SurvivalRow> RowsOfThePage() {
    std::ifstream page(TestData("docs/removal.md"));
    std::vector<SurvivalRow> rows;
    bool isThere = false;
    for (std::string line; std::getline(page, line);) {
        if (line.starts_with("## "))
            isThere = line == "## What survives a failure";
        if (!isThere || !line.starts_with("| ") || line.starts_with("| What fails |"))
            continue;
        const Cells cells = CellsOf(line);
        if (cells.size() == 5)
            rows.push_back({cells[0], cells[1], cells[2], cells[3], cells[4]});
        else
            ADD_FAILURE() << line;
    }
    return rows;
}

/// The results that the table of docs/failures.md has for the removals that the cell names, such as "R2, R3".
std::set<std::string> ResultsOf(const std::string &failures) {
    std::ifstream page(TestData("docs/failures.md"));
    std::map<std::string, std::string> results;
    for (std::string line; std::getline(page, line);) {
        const Cells cells = line.starts_with("| R") ? CellsOf(line) : Cells();
        if (cells.size() > 2)
            (void)results.emplace(cells[0], cells[2]);
    }
    std::set<std::string> named;
    const std::regex row("R[0-9]+");
    for (std::sregex_iterator at(failures.begin(), failures.end(), row); at != std::sregex_iterator(); ++at)
        (void)named.insert(results[at->str()]);
    return named;
}

/// The steps that the thread log begins and does not end, the outermost first.
std::vector<std::string> OpenSteps(const Removal &removal) {
    std::vector<std::string> steps;
    for (const std::string &line : removal.ThreadLog()) {
        const std::size_t begin = std::min(line.find_first_not_of(' '), line.size());
        if (line[begin] == '>')
            steps.push_back(line.substr(begin + 1, line.find('.') - begin - 1));
        else if (line[begin] == '<' && !steps.empty())
            steps.pop_back();
    }
    return steps;
}

class SurvivalOfAFailure : public HungRemoval {
public:
    /// What came of a removal, and whether that is left which the page tells.
    struct Survival {
        Removal removal;
        bool isLeft;
        std::string hungStep{};
    };

    // What fails:

    Survival HoldingAHealthFile() {
        const std::filesystem::path file = simulation().GetFolders().System32() / L"qbimvtaHC.dat";
        // In truth: the C runtime, which removes it, is not simulated.
        const HANDLE inUse =
            CreateFileW(file.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
        EXPECT_NE(inUse, INVALID_HANDLE_VALUE);
        Removal removal = Uninstall();
        CloseHandle(inUse);
        return {std::move(removal), exists(file)};
    }
    Survival FailingToStopTheCallout() {
        return Failing("ControlService", 1,
                       [this] { return HasService() && exists(CalloutsInf()) && !HasInf(L"oem2.inf"); });
    }
    Survival WithoutTheCalloutsInf() {
        std::filesystem::remove(CalloutsInf());
        return {Uninstall(), HasService()};
    }
    Survival FailingToOpenTheConfiguration() {
        return Failing("CoCreateInstance", 1, [this] { return HasFilter() && HasInf(L"oem1.inf"); });
    }
    Survival FailingToReleaseTheLock() {
        Survival survival = Failing("INetCfgLock::ReleaseWriteLock", 1, [this] { return HasLock() && !HasFilter(); });
        FreeLock();
        return survival;
    }
    Survival AskingForAReboot() {
        simulation().GetNetwork().Use([](Simulator::NetworkState &state) {
            Simulator::NetworkComponent &filter = *Simulator::ComponentWithId(state, L"qbimvta");
            filter.deInstallResult = NETCFG_S_REBOOT;
            filter.deInstallsUntilGone = 0;
        });
        Removal removal = Uninstall();
        return {std::move(removal), HasFilter()};
    }
    Survival WithAnOrphanThatAsksForAReboot() { return WithOrphan(NETCFG_S_REBOOT); }
    Survival FailingToRemoveTheFilter() {
        return Failing("INetCfgClassSetup::DeInstall", 1, [this] { return HasFilter() && HasInf(L"oem1.inf"); });
    }
    Survival FailingToRemoveAnInf() {
        const auto isLeft = [this] { return HasInf(L"oem1.inf") && !HasInf(L"oem2.inf"); };
        Survival survival = Failing("SetupUninstallOEMInfW", 1, isLeft);
        simulation().GetFaults().Clear();
        PutRight();
        (void)simulation().GetFaults().FailNth("GetProcAddress", 1, ERROR_PROC_NOT_FOUND, kRemovingThread);
        (void)simulation().GetFaults().FailNth("MoveFileExW", 1, ERROR_ACCESS_DENIED);
        const Survival byHand = Failing("DeleteFileW", 2, isLeft);  // after the .pnf
        survival.removal.log.insert(survival.removal.log.end(), byHand.removal.log.begin(), byHand.removal.log.end());
        survival.removal.result = survival.removal.result && byHand.removal.result;
        survival.isLeft = survival.isLeft && byHand.isLeft;
        return survival;
    }
    Survival FailingTheCheck() {
        PutOrphan();
        return Failing("INetCfg::FindComponent", 2, [this] { return HasOrphan() && !HasFilter(); });
    }
    Survival WithAnOrphanThatFails() { return WithOrphan(E_FAIL); }
    Survival WithAnOrphanThatStays() { return WithOrphan(S_OK); }
    Survival FailingToStartTheWorker() {
        return Failing("ResumeThread", 1, [this] { return HasEverything(); });
    }
    Survival HangingInAStep() {
        FreeLock();
        const Hang hang = HangIn("INetCfg::Apply", 1, 300'000);
        EXPECT_TRUE(hang.met);
        EXPECT_TRUE(hang.killed);
        const bool isLeft = HasLock();
        hung.ClearAway(hang.left);
        return {hang.removal, isLeft, "ApplyingInetCfgChanges"};
    }
    Survival FailingTheWait() {
        (void)simulation().GetFaults().FailNth("WaitForSingleObject", 1, ERROR_INVALID_HANDLE, kCallerThread);
        return HangingInAStep();
    }
    Survival HangingOutsideOfTheSteps() {
        FreeLock();
        const Hang hang = HangIn("ControlService", 1, 3'600'000, Fate::LivesOn);
        EXPECT_TRUE(hang.met);
        EXPECT_FALSE(hang.killed);
        hung.ClearAway(hang.left);
        const std::string log = TextOf(hang.removal);
        return {hang.removal, log.find(">FindingComponent") == log.npos && !HasFilter()};  // it has been done since
    }

protected:
    SurvivalOfAFailure() { ThreadFaults::Redirect(simulation()); }

    static std::string TextOf(const Removal &removal) {
        std::string text;
        for (const LogLine &line : removal.log)
            text += line.text + "\n";
        for (const std::string &event : removal.events)
            text += "event " + event + "\n";
        return text;
    }
    /// The parts of a code span around "...", in their order.
    static bool Has(const std::string &text, const std::string &code) {
        std::size_t at = 0;
        for (std::size_t begin = 0; begin != code.npos && at != text.npos;) {
            const std::size_t gap = code.find("...", begin);
            at = text.find(code.substr(begin, gap - begin), at);
            begin = gap == code.npos ? gap : gap + 3;
        }
        return at != text.npos;
    }

    /// Whether all of the cell is true of the removal; not if it has words that nothing here can check.
    static bool ShowsSymptom(const Survival &survival, const std::string &cell) {
        const std::string text = TextOf(survival.removal);
        const std::string words = WordsIn(cell);
        const std::vector<std::string> spans = CodeIn(cell);
        if (words == "event 3005")
            return Has(text, "event 3005|");
        if (words == "the log ends in that step, with a stack")
            return OpenSteps(survival.removal) == std::vector<std::string>{"ThreadRunning", survival.hungStep} &&
                   StacksIn(survival.removal.log).size() == 1;
        if (words == "the log ends outside of all other steps")
            return OpenSteps(survival.removal) == std::vector<std::string>{"ThreadRunning"};
        if (spans.empty())
            return false;
        if (words == ", or")
            return std::all_of(spans.begin(), spans.end(), [&](const std::string &span) { return Has(text, span); });
        if (words == "then")
            return Has(text, spans.front() + "..." + spans.back());
        if (words == "with a failure")
            return Has(text, spans.front() + "0x8");
        if (words == "the log has only its")
            return survival.removal.ThreadLog().size() == 1 &&
                   survival.removal.ThreadLog().front().starts_with(spans.front());
        return words.empty() && spans.size() == 1 && Has(text, spans.front());
    }

private:
    bool HasFilter() { return simulation().GetNetwork().Has(L"qbimvta"); }
    bool HasOrphan() { return simulation().GetDevices().Has(L"ROOT\\QBIMVTA_MP\\0001"); }
    bool HasLock() { return simulation().GetNetwork().Read().lock.has_value(); }
    std::filesystem::path CalloutsInf() { return WfpFolder() + L"netqbimwfp.inf"; }
    void FreeLock() {
        simulation().GetNetwork().Use([](Simulator::NetworkState &state) { state.lock.reset(); });
    }
    bool HasEverything() { return HasFilter() && HasService() && HasInf(L"oem1.inf") && HasInf(L"oem2.inf"); }

    Survival Failing(const std::string &function, unsigned nth, const std::function<bool()> &isLeft) {
        const auto code = function.find("::") != function.npos || function == "CoCreateInstance"
                              ? static_cast<DWORD>(E_ACCESSDENIED)
                              : DWORD{ERROR_ACCESS_DENIED};
        const auto plan = simulation().GetFaults().FailNth(function, nth, code);
        Removal removal = Uninstall();
        EXPECT_TRUE(plan->Hit());
        return {std::move(removal), isLeft()};
    }
    /// An orphan whose component stays.
    Survival WithOrphan(HRESULT deInstallResult) {
        RemoveDrivers();
        PutOrphan();
        simulation().GetRegistry().PutKey(HKEY_LOCAL_MACHINE, kMiniportKey);
        simulation().GetNetwork().Put(
            {.id = L"QBIMVTA_MP", .deInstallResult = deInstallResult, .deInstallsUntilGone = 0});
        Removal removal = Uninstall();
        const bool hasKey = simulation().GetRegistry().HasKey(HKEY_LOCAL_MACHINE, kMiniportKey);
        return {std::move(removal), HasOrphan() && hasKey == FAILED(deInstallResult)};
    }
};

/// What a row of the page tells, and how it comes about.
struct SurvivalCase {
    const char *whatFails;
    bool result;
    const char *whatIsLeft;  ///< The play checks it.
    const char *failures;    ///< The rows of docs/failures.md.
    SurvivalOfAFailure::Survival (SurvivalOfAFailure::*play)();
};

using Survives = SurvivalOfAFailure;
constexpr SurvivalCase kCases[] = {
    {"health-check files", true, "the file", "R19", &Survives::HoldingAHealthFile},
    {"stopping the callout", true,
     "its service, as something keeps the driver in use, and the agent's INF file for it, but no copy of that; the "
     "result is unaffected",
     "R7", &Survives::FailingToStopTheCallout},
    {"uninstalling the callout", true,
     "its service: an earlier line says whether the INF file is missing, as when the script passed the wrong folder, "
     "or the service can't be deleted",
     "R8", &Survives::WithoutTheCalloutsInf},
    {"opening the network configuration", false, "the component", "R2, R3", &Survives::FailingToOpenTheConfiguration},
    {"closing it, or releasing the lock", true, "the write lock, in the agent's process", "R17",
     &Survives::FailingToReleaseTheLock},
    {"nothing, but `DeInstall` asks for a reboot", true, "the component, until the boot", "R10",
     &Survives::AskingForAReboot},
    {"`FindComponent`, `DeInstall`, `Apply` and similar calls", false, "the component as Windows left it", "R3, R13",
     &Survives::FailingToRemoveTheFilter},
    {"an INF file", true,
     "the file. If another removal leaves it, too, delete it by hand; one that the next boot deletes needs nothing",
     "R13", &Survives::FailingToRemoveAnInf},
    {"the check in part 5", true, "perhaps devices", "R12", &Survives::FailingTheCheck},
    {"an orphan", false, "the device", "R16", &Survives::WithAnOrphanThatFails},
    {"four attempts at an orphan", true, "the device, without its key", "R15", &Survives::WithAnOrphanThatStays},
    {"nothing, but the removal of an orphan asks for a reboot", true, "what Windows leaves to the boot", "R15",
     &Survives::WithAnOrphanThatAsksForAReboot},
    {"the worker can't start", false, "everything", "R1", &Survives::FailingToStartTheWorker},
    {"a step takes too long", false, "everything that was in progress",
     "R4, R5, R9, R11, R14, R20; R6 if it can't be killed", &Survives::HangingInAStep},
    {"the wait for a step fails", false, "the same", "the same", &Survives::FailingTheWait},
    {"`ThreadRunning` takes too long", false, "what it has not done yet", "R18, if the line does not come",
     &Survives::HangingOutsideOfTheSteps},
};

TEST_F(SurvivalOfAFailure, IsAsTheTableTells) {
    std::vector<SurvivalRow> rows = RowsOfThePage();
    ASSERT_EQ(rows.size(), std::size(kCases));
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const SurvivalRow &row = rows[i];
        const SurvivalCase &expected = kCases[i];
        SCOPED_TRACE(row.whatFails);
        EXPECT_EQ(row.whatFails, expected.whatFails);
        EXPECT_EQ(row.whatIsLeft, expected.whatIsLeft);
        EXPECT_EQ(row.failures, expected.failures);
        PutRight();
        const Survival survival = (this->*expected.play)();
        simulation().GetFaults().Clear();
        const std::string text = TextOf(survival.removal);
        EXPECT_TRUE(ShowsSymptom(survival, row.symptom)) << row.symptom << " does not describe\n" << text;
        EXPECT_EQ(survival.removal.result, expected.result);
        EXPECT_TRUE(survival.isLeft) << text;
    }
}

TEST_F(SurvivalOfAFailure, HasTheResultThatBothPagesTell) {
    std::string failures;
    for (const SurvivalRow &row : RowsOfThePage()) {
        SCOPED_TRACE(row.whatFails);
        const auto known = std::find_if(std::begin(kCases), std::end(kCases),
                                        [&row](const SurvivalCase &one) { return row.whatFails == one.whatFails; });
        ASSERT_NE(known, std::end(kCases));
        const std::string result = known->result ? "true" : "false";
        if (row.whatFollows.find("returns ") != row.whatFollows.npos)
            EXPECT_NE(row.whatFollows.find("returns " + result), row.whatFollows.npos) << row.whatFollows;
        if (row.failures != "the same")
            failures = row.failures;
        EXPECT_TRUE(ResultsOf(failures).contains("`" + result + "`")) << failures;
        EXPECT_FALSE(ResultsOf(failures).contains("")) << failures << " names a row that docs/failures.md lacks";
    }
}

}  // namespace
