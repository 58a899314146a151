// The change to the registry before an installation, with a registry and a system version of the test's own.
#include "WindowsDriverInstaller/drivers/InterruptWorkaround.h"

#include <optional>
#include <string>
#include <vector>

#include "LogCollector.h"
#include "ModuleFixture.h"
#include "vta_core_control.h"

namespace {

constexpr wchar_t kVersionPath[] = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion";
constexpr wchar_t kNdisPath[] = L"System\\CurrentControlSet\\Services\\NDIS\\Parameters";
constexpr wchar_t kFairSharePath[] = L"System\\CurrentControlSet\\Services\\TSFairShare\\NetFS";
constexpr wchar_t kBindModeValue[] = L"FilterBindLogicMode";
constexpr wchar_t kFairShareValue[] = L"EnableFairShare";

using Messages = std::vector<std::string>;
using Number = std::optional<DWORD>;

const Messages kSetBind{"InstallOrUpdateDriver: set registry FilterBindLogicMode",
                        "InstallOrUpdateDriver: registry FilterBindLogicMode status: 0"};
const std::string kCheckFair = "InstallOrUpdateDriver: check registry EnableFairShare";
const std::string kFairStatus = "InstallOrUpdateDriver: registry EnableFairShare status: 1";
const std::string kBindUnwritable =
    "Unable to write HKLM\\System\\CurrentControlSet\\Services\\NDIS\\Parameters\\FilterBindLogicMode";
const std::string kFairUnwritable =
    "Unable to write HKLM\\System\\CurrentControlSet\\Services\\TSFairShare\\NetFS\\EnableFairShare";

Messages operator+(Messages messages, const Messages &more) {
    messages.insert(messages.end(), more.begin(), more.end());
    return messages;
}

/// A version that needs both changes; the first key has no values, the second has a 1.
class InterruptWorkaround : public ModuleFixture {
protected:
    InterruptWorkaround() : ModuleFixture({.registry = true, .folders = false}) {
        SetVersion(10, 0, 17763);
        PutKeys();
        VtaCore::Control::EnableTrace("*", true);
        (void)TakeTracedLines();
        wxLog::SetVerbose(true);
    }
    ~InterruptWorkaround() override {
        EXPECT_EQ(balance().Take().Count(Simulator::Kind::kKey), 0U);
        wxLog::SetVerbose(false);
        VtaCore::Control::EnableTrace("*", false);
        (void)TakeTracedLines();
    }

    void SetVersion(DWORD major, DWORD minor, DWORD build) {
        simulation().GetMachine().osMajor = major;
        simulation().GetMachine().osMinor = minor;
        simulation().GetMachine().osBuild = build;
    }
    void PutKeys() {
        registry().Remove(HKEY_LOCAL_MACHINE, kNdisPath);
        registry().PutKey(HKEY_LOCAL_MACHINE, kNdisPath);
        registry().PutDword(HKEY_LOCAL_MACHINE, kFairSharePath, kFairShareValue, 1);
    }
    Number BindMode() { return registry().Dword(HKEY_LOCAL_MACHINE, kNdisPath, kBindModeValue); }
    Number FairShare() { return registry().Dword(HKEY_LOCAL_MACHINE, kFairSharePath, kFairShareValue); }
    /// @param bind  whether the first change is made, and @param fair  the second; only that one needs a reboot.
    void ExpectChanges(bool bind, bool fair) {
        PutKeys();
        EXPECT_EQ(SetNetworkInterruptWorkaround(), fair);
        EXPECT_EQ(BindMode(), bind ? Number(1) : Number());
        EXPECT_EQ(FairShare(), Number(fair ? 0 : 1));
    }
    Messages Traced() { return TakeTracedMessages("NDIS"); }
    Messages Verbose() {
        Messages messages;
        for (const LogLine &line : log.Take())
            if (line.level == wxLOG_Info)
                messages.push_back(line.text);
        return messages;
    }
    Simulator::RegistrySandbox &registry() { return simulation().GetRegistry(); }
    Simulator::Faults &faults() { return simulation().GetFaults(); }

    LogCollector log;
};

struct VersionRow {
    DWORD major, minor, build;
    bool bind, fair;
};

TEST_F(InterruptWorkaround, DependsOnTheVersion) {
    for (const VersionRow &row : std::vector<VersionRow>{{11, 0, 0, true, false},
                                                         {11, 0, 17763, true, false},
                                                         {12, 3, 1, true, false},
                                                         {10, 0, 0, false, false},
                                                         {10, 0, 16298, false, false},
                                                         {10, 0, 16299, true, false},
                                                         {10, 0, 17762, true, false},
                                                         {10, 0, 17763, true, true},
                                                         {10, 0, 20347, true, true},
                                                         {10, 0, 20348, true, false},
                                                         {10, 0, 22631, true, false},
                                                         {10, 1, 0, true, false},
                                                         {10, 1, 17763, true, false},
                                                         {6, 1, 17763, false, false},
                                                         {6, 3, 17763, false, false},
                                                         {5, 2, 17763, false, false},
                                                         {9, 9, 20000, false, false}}) {
        SCOPED_TRACE(std::to_string(row.major) + "." + std::to_string(row.minor) + "." + std::to_string(row.build));
        SetVersion(row.major, row.minor, row.build);
        ExpectChanges(row.bind, row.fair);
    }
}

TEST_F(InterruptWorkaround, DependsOnTheRegistryOnVersion62) {
    struct Row {
        const wchar_t *version, *build;
        bool bind, fair;
    };
    SetVersion(6, 2, 17763);
    for (const Row &row : std::vector<Row>{{L"10.0", L"16298", false, false},
                                           {L"10.0", L"16299", true, false},
                                           {L"10.0", L"17762", true, false},
                                           {L"10.0", L"17763", true, true},
                                           {L"10.0", L"20347", true, true},
                                           {L"10.0", L"20348", true, false},
                                           {L"10.0", L"text", false, false},
                                           {L"10.0", L"-5", false, false},
                                           {L"10.-1", L"16298", false, false},
                                           {L"-1.0", L"17763", false, false},
                                           {L"10.1", L"17763", true, false},
                                           {L"11.0", L"17763", true, false},
                                           {L"6.3", L"17763", false, false},
                                           {L"6.2", L"17763", false, false},
                                           {L"10", L"17763", false, false},
                                           {L"11", L"17763", false, false},
                                           {L"", L"17763", false, false}}) {
        SCOPED_TRACE(Simulator::Utf8(row.version) + " " + Simulator::Utf8(row.build));
        registry().PutText(HKEY_LOCAL_MACHINE, kVersionPath, L"CurrentVersion", row.version);
        registry().PutText(HKEY_LOCAL_MACHINE, kVersionPath, L"CurrentBuildNumber", row.build);
        ExpectChanges(row.bind, row.fair);
    }
}

TEST_F(InterruptWorkaround, ChangesNothingOnVersion62WithoutTheValueInTheRegistry) {
    SetVersion(6, 2, 17763);
    ExpectChanges(false, false);
    registry().PutText(HKEY_LOCAL_MACHINE, kVersionPath, L"CurrentVersion", L"10.0");
    ExpectChanges(false, false);
    registry().Remove(HKEY_LOCAL_MACHINE, kVersionPath);
    registry().PutText(HKEY_LOCAL_MACHINE, kVersionPath, L"CurrentBuildNumber", L"17763");
    ExpectChanges(false, false);
    EXPECT_EQ(Traced(), Messages{});
}

TEST_F(InterruptWorkaround, ChangesNothingIfTheVersionIsUnknown) {
    const auto plan = faults().FailEvery("GetVersionExW", ERROR_INVALID_PARAMETER);
    ExpectChanges(false, false);
    EXPECT_TRUE(plan->Hit());
    EXPECT_EQ(Traced(), Messages{});
}

TEST_F(InterruptWorkaround, TracesBothChangesAndReportsTheReboot) {
    EXPECT_TRUE(SetNetworkInterruptWorkaround());
    EXPECT_EQ(Traced(), kSetBind + Messages({kCheckFair, kFairStatus}));
    EXPECT_EQ(Verbose(), Messages{"InstallOrUpdateDriver: update registry EnableFairShare (Reboot Require)"});
}

TEST_F(InterruptWorkaround, LogsTheRebootOnlyIfVerbose) {
    wxLog::SetVerbose(false);
    EXPECT_TRUE(SetNetworkInterruptWorkaround());
    EXPECT_EQ(Verbose(), Messages{});
}

TEST_F(InterruptWorkaround, SetsABindModeOfZeroAndKeepsAnyOther) {
    SetVersion(11, 0, 0);
    for (const DWORD mode : {0U, 1U, 7U}) {
        registry().PutDword(HKEY_LOCAL_MACHINE, kNdisPath, kBindModeValue, mode);
        EXPECT_FALSE(SetNetworkInterruptWorkaround());
        EXPECT_EQ(BindMode(), Number(mode == 0 ? 1 : mode));
        EXPECT_EQ(Traced(), (Messages{kSetBind[0], "InstallOrUpdateDriver: registry FilterBindLogicMode status: " +
                                                       std::to_string(mode)}));
    }
}

TEST_F(InterruptWorkaround, CreatesNoKey) {
    registry().Remove(HKEY_LOCAL_MACHINE, kNdisPath);
    registry().Remove(HKEY_LOCAL_MACHINE, kFairSharePath);
    EXPECT_FALSE(SetNetworkInterruptWorkaround());
    EXPECT_FALSE(registry().HasKey(HKEY_LOCAL_MACHINE, kNdisPath));
    EXPECT_FALSE(registry().HasKey(HKEY_LOCAL_MACHINE, kFairSharePath));
    EXPECT_EQ(Traced(), (Messages{kSetBind[0], kCheckFair}));
}

TEST_F(InterruptWorkaround, KeepsAFairShareThatIsAbsentOrZero) {
    registry().Remove(HKEY_LOCAL_MACHINE, kFairSharePath);
    registry().PutKey(HKEY_LOCAL_MACHINE, kFairSharePath);
    EXPECT_FALSE(SetNetworkInterruptWorkaround());
    EXPECT_EQ(FairShare(), Number());
    EXPECT_EQ(Traced(), kSetBind + Messages{kCheckFair});
    registry().PutDword(HKEY_LOCAL_MACHINE, kFairSharePath, kFairShareValue, 0);
    EXPECT_FALSE(SetNetworkInterruptWorkaround());
    EXPECT_EQ(FairShare(), Number(0));
    EXPECT_EQ(Traced().back(), "InstallOrUpdateDriver: registry EnableFairShare status: 0");
    EXPECT_EQ(Verbose(), Messages{});
}

TEST_F(InterruptWorkaround, KeepsAValueThatCannotBeRead) {
    for (const DWORD code : std::initializer_list<DWORD>{ERROR_ACCESS_DENIED, ERROR_MORE_DATA, ERROR_KEY_DELETED}) {
        SCOPED_TRACE(code);
        registry().PutDword(HKEY_LOCAL_MACHINE, kNdisPath, kBindModeValue, 0);
        const auto plan = faults().FailEvery("RegQueryValueExW", code);
        EXPECT_FALSE(SetNetworkInterruptWorkaround());
        EXPECT_TRUE(plan->Hit());
        faults().Clear();
        EXPECT_EQ(BindMode(), Number(0));
        EXPECT_EQ(FairShare(), Number(1));
        EXPECT_EQ(Traced(), (Messages{kSetBind[0], kCheckFair}));
    }
}

TEST_F(InterruptWorkaround, KeepsTheValueWhoseQueryFails) {
    for (unsigned nth = 1;; ++nth) {
        SCOPED_TRACE(nth);
        PutKeys();
        registry().PutDword(HKEY_LOCAL_MACHINE, kNdisPath, kBindModeValue, 0);
        const unsigned writes = faults().Calls("RegSetValueExW");
        const auto plan = faults().FailNth("RegQueryValueExW", nth, ERROR_ACCESS_DENIED);
        const bool reboot = SetNetworkInterruptWorkaround();
        const bool hit = plan->Hit();
        faults().Clear();
        if (!hit) {
            EXPECT_GT(nth, 2U) << "each value is queried";
            break;
        }
        EXPECT_EQ(faults().Calls("RegSetValueExW") - writes, 1U) << "the other value";
        EXPECT_EQ(BindMode(), Number(reboot ? 0 : 1));
        EXPECT_EQ(FairShare(), Number(reboot ? 0 : 1));
    }
}

TEST_F(InterruptWorkaround, KeepsAValueOfAnotherType) {
    registry().PutText(HKEY_LOCAL_MACHINE, kNdisPath, kBindModeValue, L"0");
    registry().PutText(HKEY_LOCAL_MACHINE, kFairSharePath, kFairShareValue, L"1");
    EXPECT_FALSE(SetNetworkInterruptWorkaround());
    EXPECT_EQ(registry().Text(HKEY_LOCAL_MACHINE, kNdisPath, kBindModeValue), L"0");
    EXPECT_EQ(registry().Text(HKEY_LOCAL_MACHINE, kFairSharePath, kFairShareValue), L"1");
    EXPECT_EQ(Traced(), (Messages{kSetBind[0], kCheckFair}));
    EXPECT_TRUE(log.Take().empty());
}

TEST_F(InterruptWorkaround, KeepsAKeyThatCannotBeOpenedForReading) {
    SetVersion(11, 0, 0);
    (void)faults().FailNth("RegOpenKeyExW", 2, ERROR_ACCESS_DENIED);  // the first call checks whether it exists
    EXPECT_FALSE(SetNetworkInterruptWorkaround());
    EXPECT_EQ(BindMode(), Number());
    EXPECT_EQ(Traced(), Messages{kSetBind[0]});
}

TEST_F(InterruptWorkaround, DoesNotWriteValuesThatAreAlreadyRight) {
    registry().PutDword(HKEY_LOCAL_MACHINE, kNdisPath, kBindModeValue, 1);
    registry().PutDword(HKEY_LOCAL_MACHINE, kFairSharePath, kFairShareValue, 0);
    const unsigned writes = faults().Calls("RegSetValueExW");
    EXPECT_FALSE(SetNetworkInterruptWorkaround());
    EXPECT_EQ(faults().Calls("RegSetValueExW"), writes);
}

TEST_F(InterruptWorkaround, DoesNotLogRegistryFailuresAsErrors) {
    for (const DWORD major : {6U, 10U}) {
        SetVersion(major, major == 6 ? 2 : 0, 17763);
        registry().PutText(HKEY_LOCAL_MACHINE, kVersionPath, L"CurrentVersion", L"10.0");
        registry().PutText(HKEY_LOCAL_MACHINE, kVersionPath, L"CurrentBuildNumber", L"17763");
        for (unsigned nth = 1;; ++nth) {
            SCOPED_TRACE(nth);
            PutKeys();
            (void)log.Take();
            const auto plan =
                faults().FailNthOf({"RegOpenKeyExW", "RegQueryValueExW", "RegSetValueExW"}, nth, ERROR_ACCESS_DENIED);
            const bool reboot = SetNetworkInterruptWorkaround();
            const bool hit = plan->Hit();
            faults().Clear();
            for (const LogLine &line : log.Take())
                EXPECT_TRUE(reboot && line.level == wxLOG_Info) << line.text;
            if (!hit)
                break;
        }
    }
}

TEST_F(InterruptWorkaround, TracesAValueThatCannotBeWrittenAndNeedsNoReboot) {
    (void)faults().FailEvery("RegSetValueExW", ERROR_ACCESS_DENIED);
    EXPECT_FALSE(SetNetworkInterruptWorkaround());
    EXPECT_EQ(BindMode(), Number());
    EXPECT_EQ(FairShare(), Number(1));
    EXPECT_EQ(Traced(), kSetBind + Messages({kBindUnwritable, kCheckFair, kFairStatus, kFairUnwritable}));
    EXPECT_EQ(Verbose(), Messages{});
}

TEST_F(InterruptWorkaround, MakesTheOtherChangeEvenIfThatOfTheBindModeFails) {
    const auto plan = faults().FailNth("RegSetValueExW", 1, ERROR_ACCESS_DENIED);
    EXPECT_TRUE(SetNetworkInterruptWorkaround());
    EXPECT_TRUE(plan->Hit());
    EXPECT_EQ(BindMode(), Number());
    EXPECT_EQ(FairShare(), Number(0));
    EXPECT_EQ(Traced(), kSetBind + Messages({kBindUnwritable, kCheckFair, kFairStatus}));
}

TEST_F(InterruptWorkaround, TracesAKeyThatCannotBeOpenedForWriting) {
    SetVersion(11, 0, 0);
    const unsigned before = faults().Calls("RegOpenKeyExW");
    EXPECT_FALSE(SetNetworkInterruptWorkaround());
    const unsigned opened = faults().Calls("RegOpenKeyExW") - before;
    PutKeys();
    (void)Traced();
    (void)faults().FailNth("RegOpenKeyExW", opened, ERROR_ACCESS_DENIED);
    EXPECT_FALSE(SetNetworkInterruptWorkaround());
    EXPECT_EQ(BindMode(), Number());
    EXPECT_EQ(Traced(), kSetBind + Messages{kBindUnwritable});
}

}  // namespace
