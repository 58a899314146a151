// The removal with each call of the platform failing once, at each place, compared with a model of the removal.
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <windows.h>

#include "FaultCodes.h"
#include "Leftovers.h"
#include "RemovalFixture.h"
#include "RemovalInTest.h"
#include "RemovalModel.h"

namespace {

constexpr wchar_t kMiniportKey[] = L"SYSTEM\\CurrentControlSet\\Enum\\Root\\QBIMVTA_MP";
const std::vector<std::string> kKeyNames{"QBIMVTA_MP", "QBIMVTA_MP\\0000", "QBIMVTA_MP\\0000\\Control",
                                         "QBIMVTA_MP\\0001"};

std::string Name(const Fault &fault) {
    std::ostringstream name;
    name << fault.function << '#' << fault.nth << "=0x" << std::hex << fault.code;
    return name.str();
}

/// The model knows neither the system's error texts nor addresses.
std::string Plain(const std::string &line) {
    static const std::regex report(R"(^(.*?): .+ \((0|0x[0-9a-f]+)\)$)");
    static const std::regex systemError(R"( \(error \d+: .*\)$)");
    static const std::regex null(R"(is at address 0x0+$)");
    static const std::regex address(R"(is at address 0x[0-9A-Fa-f]+$)");
    std::string plain = std::regex_replace(line, report, "$1: ... ($2)");
    plain = std::regex_replace(plain, systemError, " ...");
    plain = std::regex_replace(plain, null, "is at address null");
    return std::regex_replace(plain, address, "is at address there");
}

std::string PlainEvent(const std::string &event) {
    static const std::regex report(R"(^(\d+)\|(.*)\|.+ (\((?:0|0x[0-9a-f]+)\))$)");
    return std::regex_replace(event, report, "$1 $2 $3");
}

/// The errors, warnings and messages.
std::vector<std::string> PlainLog(const std::vector<LogLine> &log) {
    static const std::map<wxLogLevel, std::string> marks{
        {wxLOG_Error, "E "}, {wxLOG_Warning, "W "}, {wxLOG_Message, "  "}};
    std::vector<std::string> lines;
    for (const LogLine &line : log) {
        const auto mark = marks.find(line.level);
        if (mark != marks.end())
            lines.push_back(mark->second + Plain(line.text));
    }
    return lines;
}

std::vector<std::string> Texts(const std::vector<VtaCore::Control::Notification> &notices) {
    std::vector<std::string> texts;
    for (const VtaCore::Control::Notification &notice : notices)
        texts.push_back(std::to_string(notice.code) + " " + notice.text.utf8_string());
    return texts;
}

void Append(std::ostream &text, const char *what, const std::vector<std::string> &lines) {
    text << what << '\n';
    for (const std::string &line : lines)
        text << "    " << line << '\n';
}

std::vector<std::string> KeysOf(const std::vector<ModelKey> &keys, const std::string &above = {}) {
    std::vector<std::string> names;
    for (const ModelKey &key : keys) {
        names.push_back(above + key.name);
        for (const std::string &below : KeysOf(key.subkeys, above + key.name + "\\"))
            names.push_back(below);
    }
    return names;
}

/// What happens to a file that is still mapped is up to the system.
bool LeavesFileOpen(const Fault &fault) {
    return fault.function == "CloseHandle" || fault.function == "UnmapViewOfFile";
}

std::string Describe(Expectation of, const Fault &fault) {
    std::vector<std::string> infs;
    for (const ModelInf &inf : of.machine.infs)
        infs.push_back(inf.name);
    if (LeavesFileOpen(fault)) {
        infs.clear();
        std::erase(of.calls, "MoveFileExW");
    }
    std::ostringstream text;
    text << std::boolalpha << "met " << of.isHit << "\nresult " << of.result << "\nfailed step " << std::hex
         << of.failedStep << std::dec << "\nreboot required " << of.rebootRequired << '\n';
    Append(text, "log", of.log);
    Append(text, "events", of.events);
    Append(text, "notifications", of.notices);
    text << "left\n";
    for (const auto &[kind, count] : of.left)
        text << "    " << count << ' ' << kind << '\n';
    text << "service " << of.machine.hasService << "\nfilter " << of.machine.hasFilter << "\nminiport "
         << of.machine.hasMiniport << "\nhealth files " << of.machine.hasHealthFiles << "\nlocked "
         << of.machine.isLocked << "\nprotected key " << of.machine.keyIsProtected << "\nadministrators' key "
         << of.machine.administratorsOwnKey << '\n';
    Append(text, "INF files", infs);
    Append(text, "keys", KeysOf(of.machine.miniportKey));
    Append(text, "calls", of.calls);
    return text.str();
}

class RemovalFaults : public RemovalFixture {
protected:
    RemovalFaults();

    /// Both drivers are installed and can be removed without a problem.
    void PrepareCleanRemoval();
    /// INF files are removed by hand, one of them is in use, and the service has to be deleted.
    void PrepareRemovalByHand();
    /// Only a miniport that stays is installed, with a protected key.
    void PrepareOrphanRemoval();

    void FailEachPlace();
    /// The one place that the environment names, if any.
    static bool IsWanted(const Fault &fault);
    void FailPlace(const Fault &fault);

    Expectation RunByScript(const Fault &fault);
    Expectation RunInTest(const Fault &fault);

private:
    Expectation Observe(const Fault &fault, const std::function<void(Expectation &)> &run);
    void ObserveMachine(ModelMachine &after);
    void RestoreRegistry();

    ModelMachine m_machine;
    std::function<void()> m_restore;
    unsigned m_places = 0;
    unsigned m_runs = 0;
};

RemovalFaults::RemovalFaults() {
    const std::filesystem::path empty = simulation().GetFolders().Temp() / L"winnt";
    std::filesystem::create_directories(empty);
    simulation().GetFolders().MapPath(L"c:\\winnt", empty);
    m_machine.infFolder = simulation().GetFolders().Inf().string() + "\\";
    m_machine.catalogFolder = simulation().GetFolders().Catalogs().string() + "\\";
    m_machine.wfpFolder = std::filesystem::path(WfpFolder()).string();
}

void RemovalFaults::PrepareCleanRemoval() {
    m_machine.hasService = true;
    m_machine.hasFilter = true;
    m_machine.infs = {{"oem1.inf", "qbimvta"}, {"oem2.inf", "qbimwfp"}, {"oem3.inf", ""}};
    m_restore = [this] { InstallDrivers(); };
    FailEachPlace();
}

void RemovalFaults::PrepareRemovalByHand() {
    m_machine.hasService = true;
    m_machine.infRemovesService = false;
    m_machine.hasFilter = true;
    m_machine.hasUninstallOemInf = false;
    m_machine.infs = {{"oem1.inf", "qbimvta", true}, {"oem2.inf", "qbimwfp"}, {"oem3.inf", ""}};
    simulation().GetSetup().Lack("SetupUninstallOEMInfW");
    simulation().GetFilesInUse().Hold(simulation().GetFolders().Inf() / L"oem1.inf");
    m_restore = [this] {
        InstallDrivers();
        simulation().GetSetup().onInstallSection = nullptr;
    };
    FailEachPlace();
}

void RemovalFaults::PrepareOrphanRemoval() {
    m_machine.hasHealthFiles = false;
    m_machine.hasMiniport = true;
    m_machine.miniportKey = {{"QBIMVTA_MP", {{"0000", {{"Control", {}}}}, {"0001", {}}}}};
    m_machine.keyIsProtected = true;
    (void)Uninstall();  // of what was installed at first; its leftovers don't matter either
    std::filesystem::remove(simulation().GetFolders().Inf() / L"oem3.inf");
    PutOrphan();
    simulation().GetNetwork().Put({.id = L"QBIMVTA_MP", .deInstallsUntilGone = 0});
    m_restore = [this] { RestoreRegistry(); };
    FailEachPlace();
}

void RemovalFaults::RestoreRegistry() {
    simulation().GetRegistry().PutKey(HKEY_LOCAL_MACHINE, std::wstring(kMiniportKey) + L"\\0000\\Control");
    simulation().GetRegistry().PutKey(HKEY_LOCAL_MACHINE, std::wstring(kMiniportKey) + L"\\0001");
    simulation().GetSecurity().ProtectKey(kMiniportKey);
    simulation().GetSecurity().WithholdPrivilege(Simulator::kTakeOwnership);
    simulation().GetSecurity().GrantPrivilege(Simulator::kTakeOwnership);
}

void RemovalFaults::FailEachPlace() {
    m_restore();
    (void)Uninstall();  // libraries that stay are loaded once per process
    const Expectation scenario = ExpectRemoval(m_machine, {}, true);
    FailPlace({});
    ASSERT_FALSE(HasFailure()) << "the removal without a fault is not as expected";
    std::map<std::string, unsigned> counts;
    for (const std::string &function : scenario.calls) {
        const unsigned nth = ++counts[function];
        // Without its event nothing can watch the worker: a test of its own covers that.
        if (NeverFails(function) || function == "CreateEventW")
            continue;
        for (const DWORD code : FaultCodesOf(function))
            FailPlace({function, nth, code});
        ASSERT_LT(testing::UnitTest::GetInstance()->current_test_info()->result()->total_part_count(), 10)
            << "too many failures";
    }
    EXPECT_NE(m_places, 0U) << "FC_FAULT_AT names no place of this scenario";
    std::cout << "             " << m_places << " places (function, occurrence, code), " << m_runs << " removals\n";
}

bool RemovalFaults::IsWanted(const Fault &fault) {
    const char *only = std::getenv("FC_FAULT_AT");
    return only == nullptr || fault.nth == 0 || Name(fault) == only;
}

void RemovalFaults::FailPlace(const Fault &fault) {
    if (!IsWanted(fault))
        return;
    const std::string test = testing::UnitTest::GetInstance()->current_test_info()->name();
    SCOPED_TRACE("again with FC_FAULT_AT=" + Name(fault) + " --gtest_filter=RemovalFaults." + test);
    m_places += fault.nth != 0 ? 1 : 0;

    Expectation expected = ExpectRemoval(m_machine, fault, true);
    expected.failedStep = Expectation::kNoStep;  // a script does not see these two
    expected.rebootRequired = false;
    EXPECT_EQ(Describe(RunByScript(fault), fault), Describe(expected, fault)) << "by a script";

    expected = ExpectRemoval(m_machine, fault, false);
    EXPECT_EQ(Describe(RunInTest(fault), fault), Describe(expected, fault)) << "in the test";
}

Expectation RemovalFaults::Observe(const Fault &fault, const std::function<void(Expectation &)> &run) {
    ++m_runs;
    m_restore();
    (void)log.Take();
    (void)simulation().GetJournal().Take();
    const Simulator::BalanceSnapshot before = balance().Take();
    Simulator::FaultPlanHandle plan;
    if (fault.nth != 0)
        plan = simulation().GetFaults().FailNth(fault.function, fault.nth, fault.code);
    Expectation observed;
    run(observed);
    observed.isHit = plan && plan->Hit();
    simulation().GetFaults().Clear();
    for (const Simulator::JournalEntry &entry : simulation().GetJournal().Take()) {
        if (!HasNoOrder(entry.function))
            observed.calls.push_back(entry.function);
    }
    std::vector<Simulator::BalanceItem> left = Simulator::Balance::Left(before, balance().Take());
    std::erase_if(left, [](const auto &item) { return item.kind == std::string_view(Simulator::Kind::kBlock); });
    ObserveMachine(observed.machine);
    observed.left = TakeBack(left);
    simulation().GetNetwork().Use([](auto &state) { state.lock.reset(); });
    return observed;
}

Expectation RemovalFaults::RunByScript(const Fault &fault) {
    return Observe(fault, [this](Expectation &observed) {
        const Removal removal = Uninstall();
        observed.result = removal.result;
        observed.log = PlainLog(removal.log);
        for (const std::string &event : removal.events)
            observed.events.push_back(PlainEvent(event));
        observed.notices = Texts(removal.notifications);
    });
}

Expectation RemovalFaults::RunInTest(const Fault &fault) {
    return Observe(fault, [this](Expectation &observed) {
        const ProbeResult probe = RunRemovalInTest(dom, WfpFolder());
        observed.result = probe.result;
        observed.failedStep = probe.failedStep;
        observed.rebootRequired = probe.rebootRequired;
        observed.log = PlainLog(log.Take());
        for (const VtaCore::Control::Event &event : VtaCore::Control::TakeEvents())
            observed.events.push_back(PlainEvent(std::to_string(event.number) + "|" + event.text.utf8_string()));
        observed.notices = Texts(VtaCore::Control::TakeNotifications());
    });
}

void RemovalFaults::ObserveMachine(ModelMachine &after) {
    after.hasService = HasService();
    after.hasFilter = simulation().GetNetwork().Has(L"qbimvta");
    after.hasMiniport = simulation().GetDevices().Has(L"ROOT\\QBIMVTA_MP\\0001");
    const std::filesystem::path system = simulation().GetFolders().System32();
    after.hasHealthFiles = exists(system / L"qbimvtaHC.dat") || exists(system / L"qbimwfpHC.dat");
    after.isLocked = simulation().GetNetwork().Read().lock.has_value();
    for (const char *name : {"oem1.inf", "oem2.inf", "oem3.inf"}) {
        if (HasInf(std::filesystem::path(name).wstring()))
            after.infs.push_back({name, ""});
    }
    const std::wstring root = std::filesystem::path(kMiniportKey).parent_path().wstring() + L"\\";
    for (const std::string &name : kKeyNames) {
        if (simulation().GetRegistry().HasKey(HKEY_LOCAL_MACHINE, root + std::filesystem::path(name).wstring()))
            after.miniportKey.push_back({name, {}});
    }
    after.keyIsProtected = simulation().GetSecurity().IsProtected(kMiniportKey);
    after.administratorsOwnKey = simulation().GetSecurity().Key(kMiniportKey).owner == Simulator::Sid::kAdministrators;
}

TEST_F(RemovalFaults, OfACleanRemovalEndAsTheModelSays) {
    PrepareCleanRemoval();
}

TEST_F(RemovalFaults, OfARemovalByHandEndAsTheModelSays) {
    PrepareRemovalByHand();
}

TEST_F(RemovalFaults, OfAnOrphanThatStaysEndAsTheModelSays) {
    PrepareOrphanRemoval();
}

TEST_F(RemovalFaults, ToCreateTheEventEndTheWatchLikeAnOverrunStep) {
    const auto create = simulation().GetFaults().FailNth("CreateEventW", 1, ERROR_NOT_ENOUGH_MEMORY);
    const auto hung = simulation().GetFaults().HangNth("INetCfg::FindComponent", 1);
    simulation().GetClock().Step();
    const Removal removal = UninstallWhile([&] {
        EXPECT_TRUE(hung->WaitUntilHit(kPatienceMs));
        EXPECT_TRUE(simulation().GetClock().AwaitWaiting(1, kPatienceMs));  // the caller, before its first wait
        AdvanceSeconds(1);
    });
    EXPECT_FALSE(removal.result);
    EXPECT_TRUE(create->Hit());
    const std::vector<std::string> errors = removal.Lines(wxLOG_Error);
    ASSERT_EQ(errors.size(), 1U);
    EXPECT_EQ(Plain(errors.front()),
              "CDriverUninstallerThread::WaitForStepToFinish() - WaitForSingleObject() failed: ...");
}

}  // namespace
