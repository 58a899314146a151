// The table "What survives a failure" of docs/removal.md: each row on a machine on which that fails.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
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
            rows.push_back({cells[0], cells[1], cells[2]});
        else
            ADD_FAILURE() << line;
    }
    return rows;
}

class SurvivalOfAFailure : public HungRemoval {
protected:
    /// What came of a removal, and whether that is left which the page tells.
    struct Survival {
        Removal removal;
        bool isLeft;
    };
    using Failure = std::function<Survival()>;

    SurvivalOfAFailure() { ThreadFaults::Redirect(simulation()); }

    /// By the first column.
    std::map<std::string, Failure> Failures() {
        return {
            {"health-check files", [this] { return HoldingAHealthFile(); }},
            {"stopping the callout", [this] { return Failing("ControlService", 1, [this] { return HasService(); }); }},
            {"uninstalling the callout", [this] { return WithoutTheCalloutsInf(); }},
            {"opening the network configuration",
             [this] { return Failing("CoCreateInstance", 1, [this] { return HasFilter() && HasInf(L"oem1.inf"); }); }},
            {"closing it, or releasing the lock", [this] { return FailingToReleaseTheLock(); }},
            {"nothing, but `DeInstall` asks for a reboot", [this] { return AskingForAReboot(); }},
            {"nothing, but the removal of an orphan asks for a reboot", [this] { return WithOrphan(NETCFG_S_REBOOT); }},
            {"`FindComponent`, `DeInstall`, `Apply` and similar calls",
             [this] {
                 return Failing("INetCfgClassSetup::DeInstall", 1,
                                [this] { return HasFilter() && HasInf(L"oem1.inf"); });
             }},
            {"an INF file",
             [this] {
                 return Failing("SetupUninstallOEMInfW", 1,
                                [this] { return HasInf(L"oem1.inf") && !HasInf(L"oem2.inf"); });
             }},
            {"the check in part 5", [this] { return FailingTheCheck(); }},
            {"an orphan", [this] { return WithOrphan(E_FAIL); }},
            {"four attempts at an orphan", [this] { return WithOrphan(S_OK); }},
            {"the worker can't start",
             [this] { return Failing("ResumeThread", 1, [this] { return HasEverything(); }); }},
            {"a step takes too long", [this] { return Hanging("INetCfg::Apply", 300'000, Fate::Killed); }},
            {"the wait for a step fails", [this] { return FailingTheWait(); }},
            {"`ThreadRunning` takes too long", [this] { return Hanging("ControlService", 3'600'000, Fate::LivesOn); }},
        };
    }

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

    /// Each code span of the cell, or one of those that it names with "or".
    static bool ShowsSymptom(const std::string &text, const std::string &cell) {
        const std::vector<std::string> spans = CodeIn(cell);
        const auto isThere = [&text](const std::string &span) { return Has(text, span); };
        if (cell.find(", or ") != cell.npos)
            return std::any_of(spans.begin(), spans.end(), isThere);
        return std::all_of(spans.begin(), spans.end(), isThere) &&
               (cell.find("event 3005") == cell.npos || Has(text, "event 3005|"));
    }

private:
    bool HasFilter() { return simulation().GetNetwork().Has(L"qbimvta"); }
    bool HasOrphan() { return simulation().GetDevices().Has(L"ROOT\\QBIMVTA_MP\\0001"); }
    bool HasLock() { return simulation().GetNetwork().Read().lock.has_value(); }
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
    Survival WithoutTheCalloutsInf() {
        std::filesystem::remove(WfpFolder() + L"netqbimwfp.inf");
        return {Uninstall(), HasService()};
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
    Survival FailingTheCheck() {
        PutOrphan();
        return Failing("INetCfg::FindComponent", 2, [this] { return HasOrphan() && !HasFilter(); });
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
    Survival Hanging(const std::string &function, std::uint64_t deadlineMs, Fate fate) {
        FreeLock();
        const Hang hang = HangIn(function, 1, deadlineMs, fate);
        EXPECT_TRUE(hang.met);
        EXPECT_EQ(hang.killed, fate == Fate::Killed);
        const bool isLeft = fate == Fate::Killed ? HasLock() && hang.Stacks().size() == 1 : hang.Stacks().empty();
        hung.ClearAway(hang.left);
        return {hang.removal, isLeft};
    }
    Survival FailingTheWait() {
        (void)simulation().GetFaults().FailNth("WaitForSingleObject", 1, ERROR_INVALID_HANDLE, kCallerThread);
        return Hanging("INetCfg::Apply", 300'000, Fate::Killed);
    }
};

TEST_F(SurvivalOfAFailure, IsAsTheTableTells) {
    std::map<std::string, Failure> failures = Failures();
    for (const SurvivalRow &row : RowsOfThePage()) {
        SCOPED_TRACE(row.whatFails);
        const auto failure = failures.find(row.whatFails);
        if (failure == failures.end()) {
            ADD_FAILURE() << "this row is not tried";
            continue;
        }
        PutRight();
        const Survival survival = failure->second();
        simulation().GetFaults().Clear();
        failures.erase(failure);
        const std::string text = TextOf(survival.removal);
        EXPECT_TRUE(ShowsSymptom(text, row.symptom)) << row.symptom << " does not describe\n" << text;
        const bool isFalse = row.whatFollows.find("returns false") != row.whatFollows.npos;
        const bool isTrue = row.whatFollows.find("returns true") != row.whatFollows.npos;
        if (isFalse || isTrue)
            EXPECT_EQ(survival.removal.result, isTrue) << row.whatFollows;
        EXPECT_TRUE(survival.isLeft) << text;
    }
    for (const auto &[whatFails, failure] : failures)
        ADD_FAILURE() << "the table has no row for " << whatFails;
}

}  // namespace
