// What users of installers meet: calls that never return, locks that others hold, pending reboots, services that can't
// be deleted, and machines that report success without it. And what an installation leaves open.
#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include <netcfgx.h>

#include "InstallMachine.h"
#include "WindowsFunctions.h"

namespace {

using Simulator::NetworkMoment;
using Simulator::NetworkState;

constexpr char kInstall[] = "INetCfgClassSetup::Install";
constexpr wchar_t kOther[] = L"otherfilter";
constexpr wchar_t kThird[] = L"PCI\\VEN_8086&DEV_100E\\3";

std::string LockedBy(const std::string &holder) {
    return "Unable to proceed - the network configuration is currently locked by " + holder + ".";
}

class InstallFailures : public InstallMachine {
protected:
    void SetResults(const std::vector<HRESULT> &results) {
        network().Use([&](NetworkState &state) { state.installable.front().results = results; });
    }
    /// @param waitMs  how long each call waits for it in vain.
    void LockWith(const std::wstring &description, DWORD waitMs = 9'000) {
        network().LockFromElsewhere(description);
        network().Use([&](NetworkState &state) { state.lockWaitMs = waitMs; });
    }
    static Lines UserTexts(const InstallOutcome &outcome) {
        Lines texts;
        for (const VtaCore::Control::Notification &notification : outcome.notifications) {
            if (notification.kind == VtaCore::Control::Notification::Kind::User)
                texts.push_back(notification.text.utf8_string());
        }
        return texts;
    }
    /// Another product's filter on the second adapter, and on a third one of the first one's model, which has nothing
    /// else bound to it.
    void PutOtherProduct() {
        network().Put({.id = kOther});
        network().PutAdapter({.id = L"PCI\\VEN_8086&DEV_100E",
                              .bindName = L"{33333333-0000-0000-0000-000000000003}",
                              .pnpDevNodeId = kThird,
                              .displayName = L"Third adapter",
                              .mac = {0, 1, 2, 3, 4, 7}});
        simulation().GetDevices().Put({.instanceId = kThird, .description = L"Network adapter"});
        simulation().GetServices().Put(L"otherfilter", {.status = {SERVICE_RUNNING}});
        network().Bind(kSecond, kOther);
        network().Bind(kThird, kOther);
        network().Bind(kFirst, kOther, false);
    }
    void ExpectOtherProductUntouched() {
        EXPECT_TRUE(network().Has(kOther));
        EXPECT_EQ(network().Binding(kFirst, kOther), false);
        EXPECT_EQ(network().Binding(kSecond, kOther), true);
        EXPECT_EQ(network().Binding(kThird, kOther), true);
        EXPECT_EQ(simulation().GetServices().Get(L"otherfilter").status.state, DWORD{SERVICE_RUNNING});
        EXPECT_TRUE(HasInf(L"oem3.inf"));
        EXPECT_TRUE(simulation().GetDevices().Changes().empty()) << "no adapter was disabled";
    }
};

// --- memory that runs out ---

TEST_F(InstallFailures, AnInstallationWithoutMemoryForTheAdaptersGoesOnWithoutThem) {
    // The watchdog's first allocation by hand after this call is IP Helper's buffer.
    const FaultPlan before = faults().HangNth("INetCfg::Initialize", 1);
    Simulator::AllocationFaultHandle memory;
    const InstallOutcome outcome = InstallWhile([&] {
        ASSERT_TRUE(before->WaitUntilHit(kPatienceMs));
        memory = balance().FailAllocation(1, GetModuleHandleW(L"fc.dll"), 0, false);
        before->Release();
    });
    ASSERT_TRUE(memory && memory->Hit());
    EXPECT_TRUE(outcome.result);
    EXPECT_TRUE(Has(outcome.Lines(wxLOG_Error), "GetInterfaces() - error allocating memory."));
    EXPECT_EQ(outcome.EventTexts(3005), Lines{});
    EXPECT_TRUE(IsBound(kFirst));
}

TEST_F(InstallFailures, AnInstallationWithoutMemoryForALongerListOfAdaptersGoesOnWithoutTheirAddresses) {
    const FaultPlan tooShort = faults().FailNth("GetAdaptersInfo", 1, ERROR_BUFFER_OVERFLOW);
    const FaultPlan hang = faults().HangNth("GetAdaptersInfo", 1);
    Simulator::AllocationFaultHandle memory;
    const InstallOutcome outcome = InstallWhile([&] {
        ASSERT_TRUE(hang->WaitUntilHit(kPatienceMs));
        memory = balance().FailAllocation(1, GetModuleHandleW(L"fc.dll"), 0, false);
        hang->Release();
    });
    EXPECT_TRUE(tooShort->Hit());
    ASSERT_TRUE(memory && memory->Hit());
    EXPECT_TRUE(outcome.result);
    EXPECT_TRUE(Has(outcome.Lines(wxLOG_Error), "GetInterfaces() - error allocating memory."));
    EXPECT_EQ(outcome.EventTexts(3005), Lines{Report("GetAdaptersInfo()", ERROR_BUFFER_OVERFLOW)});
    EXPECT_TRUE(IsBound(kFirst));
}

// --- calls that never return ---

TEST_F(InstallFailures, AnInstallCallThatNeverReturnsIsAbandonedAfterTenMinutesAndTheNextInstallationWorks) {
    const InstallOutcome hung = InstallHungIn(kInstall, 1, 600'000);
    EXPECT_TRUE(hung.result);
    EXPECT_EQ(FailedStep(hung), "InstallingDriver");
    EXPECT_EQ(CallsOf(kInstall), 1U);
    EXPECT_EQ(hung.EventTexts(3005), Lines{});
    EXPECT_FALSE(hung.AskedForReboot());
    EXPECT_FALSE(network().Has(L"qbimvta"));
    EXPECT_TRUE(network().Read().lock.has_value()) << "a killed worker leaves the lock of this program";
    EXPECT_TRUE(Succeeded(Install()));
}

TEST_F(InstallFailures, AnInstallationMayFailWaitingForTheLockOfAKilledWorker) {
    (void)InstallHungIn(kInstall, 1, 600'000);
    ASSERT_TRUE(network().Read().lock.has_value());
    network().Use([](NetworkState &state) { state.lockWaitMs = 15'000; });
    // The worker's first wait, which has used up the limit of the enclosing step.
    const FaultPlan hang = faults().HangNth("INetCfg::Initialize", 2);
    // The watcher begins to kill with this call. A worker killed before it hangs may hold a lock of the simulator.
    simulation().Functions().Put<Simulator::System::DuplicateHandle>([hang](const auto &next, auto... arguments) {
        EXPECT_TRUE(hang->WaitUntilHit(kPatienceMs));
        return next(arguments...);
    });
    const InstallOutcome outcome = InstallHungBy(hang, 1);
    EXPECT_EQ(FailedStep(outcome), "GettingInetCfg");
    EXPECT_EQ(UserTexts(outcome), Lines{});
    network().Use([](NetworkState &state) { state.lockWaitMs = 0; });
    EXPECT_TRUE(Succeeded(Install()));
}

TEST_F(InstallFailures, AnInstallCallOfAnUpgradeThatNeverReturnsLeavesTheMachineWithoutADriver) {
    InstallOldDriver({1, 2, 3, 4});
    const InstallOutcome hung = InstallHungIn(kInstall, 1, 600'000);
    EXPECT_TRUE(hung.result);
    EXPECT_EQ(hung.EventTexts(1005), Lines{"1.2.3.4|2.0.0.0"});
    EXPECT_EQ(FailedStep(hung), "InstallingDriver");
    EXPECT_FALSE(network().Has(L"qbimvta"));
    EXPECT_EQ(CallsOf("INetCfgBindingPath::Enable"), 0U);
}

TEST_F(InstallFailures, AnInfSectionOfTheCalloutThatNeverReturnsIsAbandonedAfterFiveMinutes) {
    const InstallOutcome hung = InstallHungIn("InstallHinfSectionW", 1, 300'000);
    EXPECT_TRUE(hung.result);
    EXPECT_EQ(FailedStep(hung), "InstallingWfpCalloutDriver");
    EXPECT_EQ(CallsOf(kInstall), 0U);
}

TEST_F(InstallFailures, ASuccessWithoutTheObjectOrTextThatItPromisesChangesNoBinding) {
    (void)Install();
    dom.Set("vtp.filter.ForceDriverInstall", true);
    network().Bind(kSecond, L"qbimvta", false);
    EXPECT_TRUE(Install().result);
    EXPECT_EQ(CallsOf("INetCfgBindingPath::Enable"), 1U) << "without a fault";
    for (const char *function :
         {"INetCfg::FindComponent", "INetCfg::EnumComponents", "IEnumNetCfgComponent::Next",
          "INetCfgComponent::QueryInterface", "INetCfgComponent::GetPnpDevNodeId",
          "INetCfgComponentBindings::EnumBindingPaths", "IEnumNetCfgBindingPath::Next",
          "INetCfgBindingPath::EnumBindingInterfaces", "INetCfgBindingInterface::GetUpperComponent"}) {
        SCOPED_TRACE(function);
        const FaultPlan plan = faults().FailEvery(function, S_OK);
        EXPECT_TRUE(Install().result);
        EXPECT_TRUE(plan->Hit());
        EXPECT_EQ(CallsOf("INetCfgBindingPath::Enable"), 0U);
        faults().Clear();
    }
}

// --- locks ---

TEST_F(InstallFailures, ALockHeldByAnOpenPropertyPageIsNamedToTheUserAndEndsTheInstallation) {
    LockWith(L"Local Area Connection Properties");
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(outcome.result);
    EXPECT_EQ(FailedStep(outcome), "GettingNetworkConfigLock");
    // Once for the removal, once for the installation.
    EXPECT_EQ(UserTexts(outcome), Lines(2, LockedBy("Local Area Connection Properties")));
    EXPECT_EQ(outcome.EventTexts(3005), Lines(2, Report("INetCfgLock::AcquireWriteLock", 0x8004A024)));
    EXPECT_EQ(CallsOf(kInstall), 0U);
    EXPECT_GE(outcome.tookMs, 18'000U);
    const auto lock = network().Read().lock;
    ASSERT_TRUE(lock.has_value());
    EXPECT_EQ(lock->description, L"Local Area Connection Properties") << "the other owner keeps it";
}

TEST_F(InstallFailures, AWaitForALockThatExceedsTheTenSecondsOfItsStepKillsTheWorker) {
    LockWith(L"Local Area Connection Properties", 60'000);
    // Holds the worker where the wait is over, and the opening is the top step again.
    const FaultPlan plan = faults().HangNth("CoUninitialize", 1, kWorkerThread);
    // And the watchdog until then; else it would see the overrun before the worker gets there.
    simulation().Functions().Put<Simulator::System::WaitForSingleObject>(
        [plan](const auto &next, HANDLE handle, DWORD milliseconds) {
            (void)plan->WaitUntilHit(kPatienceMs);
            return next(handle, milliseconds);
        },
        Simulator::Depth::Watch);
    const InstallOutcome outcome = InstallWhile([&] {
        EXPECT_TRUE(plan->WaitUntilHit(kPatienceMs));
        EXPECT_TRUE(AwaitReturn());
        plan->Release();
    });
    EXPECT_TRUE(outcome.result);
    EXPECT_EQ(FailedStep(outcome), "GettingInetCfg");
    EXPECT_EQ(UserTexts(outcome), Lines{LockedBy("Local Area Connection Properties")});
    EXPECT_EQ(outcome.EventTexts(3005), Lines{Report("INetCfgLock::AcquireWriteLock", 0x8004A024)});
    EXPECT_EQ(Calls({"INetCfgLock::AcquireWriteLock"}),
              Lines{"INetCfgLock::AcquireWriteLock(15000, \"Quillon Vantry Agent Installer\", *)"});
}

TEST_F(InstallFailures, ALockHeldByAnUnnamedOwnerIsReportedToo) {
    faults().FailEvery("INetCfgLock::AcquireWriteLock", S_FALSE);
    const InstallOutcome outcome = Install();
    EXPECT_EQ(FailedStep(outcome), "GettingNetworkConfigLock");
    EXPECT_EQ(UserTexts(outcome), Lines(2, LockedBy("")));
    EXPECT_EQ(outcome.EventTexts(3005), Lines(2, Report("INetCfgLock::AcquireWriteLock", 0x8004A024)));
}

TEST_F(InstallFailures, AnUpgradeDuringAForeignLockLeavesTheOldDriverInPlace) {
    InstallOldDriver({1, 2, 3, 4});
    LockWith(L"Local Area Connection Properties");
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(outcome.result);
    EXPECT_EQ(FailedStep(outcome), "GettingNetworkConfigLock");
    EXPECT_TRUE(network().Has(L"qbimvta"));
    EXPECT_TRUE(IsBound(kFirst));
    EXPECT_TRUE(IsBound(kSecond));
    EXPECT_EQ(CallsOf("SetupCopyOEMInfW"), 0U);
}

TEST_F(InstallFailures, ALockHeldUnderOurOwnDescriptionIsNoObstacle) {
    network().Use([](NetworkState &state) { state.lock = {L"Quillon Vantry Agent Installer", true}; });
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_EQ(UserTexts(outcome), Lines{});
}

TEST_F(InstallFailures, APropertyPageClosedBeforeTheInstallationIsNoObstacle) {
    LockWith(L"Local Area Connection Properties");
    simulation().GetSetup().onInstallSection = [this](const std::wstring &) {
        simulation().GetServices().Put(L"qbimwfp", {});
        network().Use([](NetworkState &state) { state.lock.reset(); });
    };
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome)) << "the removal's failure does not matter if the filter is absent";
    EXPECT_EQ(UserTexts(outcome).size(), 1U);
    EXPECT_TRUE(IsBound(kFirst));
}

// --- reboots ---

TEST_F(InstallFailures, ARebootRequestOfEveryInstallCallIsASuccessWithAReboot) {
    SetResults({NETCFG_S_REBOOT, NETCFG_S_REBOOT, NETCFG_S_REBOOT});
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_EQ(CallsOf(kInstall), 3U);
    EXPECT_EQ(CallsOf("INetCfg::Apply"), 1U);
    EXPECT_EQ(outcome.EventTexts(3005), Lines{Report("INetCfgClassSetup::Install()", 0x0004A020)});
    EXPECT_EQ(outcome.EventTexts(1006), Lines{"1"});
    EXPECT_EQ(Reboots(outcome), 1U);
}

TEST_F(InstallFailures, ARebootRequestOfApplyIsASuccessWithAReboot) {
    faults().FailEvery("INetCfg::Apply", NETCFG_S_REBOOT);
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_EQ(CallsOf(kInstall), 1U);
    EXPECT_EQ(outcome.EventTexts(3005), Lines{});
    EXPECT_EQ(outcome.EventTexts(1006), Lines{"1"});
    EXPECT_EQ(Reboots(outcome), 1U);
}

TEST_F(InstallFailures, ARebootRequestOfTheRemovalIsForgottenWhenTheComponentIsGone) {
    InstallOldDriver({1, 2, 3, 4});
    network().Use(
        [](NetworkState &state) { Simulator::ComponentWithId(state, L"qbimvta")->deInstallResult = NETCFG_S_REBOOT; });
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_EQ(CallsOf("INetCfgClassSetup::DeInstall"), 1U);
    EXPECT_EQ(CallsOf("INetCfg::Apply"), 1U) << "only the installation's: a change that awaits a reboot is not applied";
    EXPECT_EQ(outcome.EventTexts(1006), Lines{});
    EXPECT_TRUE(IsBound(kFirst));
}

TEST_F(InstallFailures, ARebootRequestOfTheRemovalIsForgottenWhenTheComponentAwaitsTheReboot) {
    InstallOldDriver({1, 2, 3, 4});
    KeepComponentOnRemoval(NETCFG_S_REBOOT);
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_EQ(CallsOf("INetCfgClassSetup::DeInstall"), 2U);
    EXPECT_EQ(CallsOf(kInstall), 1U);
    EXPECT_EQ(outcome.EventTexts(1006), Lines{});
}

TEST_F(InstallFailures, AnInfFileThatCanOnlyBeDeletedAtTheNextBootPostponesTheInstallation) {
    InstallOldDriver({1, 2, 3, 4});
    KeepComponentOnRemoval();
    simulation().GetSetup().Lack("SetupUninstallOEMInfW");
    simulation().GetFilesInUse().Hold(simulation().GetFolders().Inf() / L"oem1.inf");
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_EQ(CallsOf("SetupCopyOEMInfW"), 0U);
    EXPECT_EQ(CallsOf(kInstall), 0U);
    EXPECT_EQ(outcome.EventTexts(1006), Lines{"1"});
    EXPECT_EQ(Reboots(outcome), 1U);
}

TEST_F(InstallFailures, AMissingCataloguePostponesTheInstallationToo) {
    InstallOldDriver({1, 2, 3, 4});
    KeepComponentOnRemoval();
    simulation().GetSetup().Lack("SetupUninstallOEMInfW");
    remove(simulation().GetFolders().Catalogs() / L"oem1.cat");
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_EQ(CallsOf(kInstall), 0U);
    EXPECT_EQ(outcome.EventTexts(1006), Lines{"1"});
}

// --- services ---

TEST_F(InstallFailures, AServiceMarkedForDeletionThreeTimesFailsAndAsksForAReboot) {
    SetResults(std::vector<HRESULT>(3, HRESULT_FROM_WIN32(ERROR_SERVICE_MARKED_FOR_DELETE)));
    const InstallOutcome outcome = Install();
    EXPECT_EQ(FailedStep(outcome), "InstallingDriver");
    const Lines calls = Calls({kInstall, "Sleep"});
    Lines waits;
    for (const std::string &call : calls) {
        if (call == "Sleep(5000)" || !call.starts_with("Sleep"))
            waits.push_back(call.substr(0, call.find('(')));
    }
    EXPECT_EQ(waits, (Lines{kInstall, "Sleep", kInstall, "Sleep", kInstall, "Sleep"}));
    EXPECT_EQ(outcome.EventTexts(3005), Lines{Report("INetCfgClassSetup::Install()", 0x80070430)});
    EXPECT_EQ(outcome.EventTexts(1006), Lines{"1"});
    EXPECT_EQ(Reboots(outcome), 1U);
    ASSERT_GE(outcome.events.size(), 3U);
    EXPECT_EQ(outcome.events[1], "1006|1");
    EXPECT_TRUE(outcome.events[2].starts_with("1004|InstallingDriver|"));
}

// --- clean-ups that take long ---

TEST_F(InstallFailures, ACleanUpOfInfFilesThatTakesHalfAnHourIsEndedByItsStepsLimit) {
    InstallOldDriver({1, 2, 3, 4});
    const InstallOutcome outcome = InstallHungIn("SetupUninstallOEMInfW", 1, 1'800'000);
    EXPECT_TRUE(outcome.result);
    EXPECT_EQ(FailedStep(outcome), "RemovingInfFiles");
    EXPECT_EQ(CallsOf(kInstall), 0U);
    EXPECT_FALSE(network().Has(L"qbimvta"));
}

TEST_F(InstallFailures, ACleanUpOfInfFilesThatTakesAlmostItsLimitIsWaitedFor) {
    InstallOldDriver({1, 2, 3, 4});
    const FaultPlan plan = faults().HangNth("SetupUninstallOEMInfW", 1);
    const InstallOutcome outcome = InstallWhile([&] {
        ASSERT_TRUE(plan->WaitUntilHit(kPatienceMs));
        EXPECT_TRUE(AwaitWait());  // the sleep before it moves the clock, too
        AdvanceMs(299'999);
        EXPECT_TRUE(AwaitPolls(10));
        plan->Release();
    });
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_GE(outcome.tookMs, 299'999U);
}

TEST_F(InstallFailures, AStopOfTheCalloutThatTakesHalfAnHourIsWaitedForBecauseItIsInNoStep) {
    InstallOldDriver({1, 2, 3, 4});
    const FaultPlan plan = faults().DelayNth("ControlService", 1, 1'800'000);
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(plan->Hit());
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_GE(outcome.tookMs, 1'800'000U);
}

// --- machines that lie, and machines with other products ---

TEST_F(InstallFailures, ASuccessfulCallThatInstallsNothingIsReportedAsASuccess) {
    network().Use([](NetworkState &state) { state.installable.front().leavesNothing = true; });
    SetVersionAfterInstall(std::nullopt);
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_FALSE(network().Has(L"qbimvta"));
    EXPECT_EQ(outcome.EventTexts(3005), Lines{});
    EXPECT_FALSE(outcome.AskedForReboot());
    EXPECT_TRUE(Has(outcome.traces, "Adapter 'First adapter' isn't bound to our driver; assuming it's healthy."));
}

TEST_F(InstallFailures, ACopyThatIsNotADriverForThisMachineFailsWithItsStep) {
    network().Use([](NetworkState &state) { state.installable.clear(); });
    const InstallOutcome outcome = Install();
    EXPECT_EQ(FailedStep(outcome), "InstallingDriver");
    EXPECT_EQ(outcome.EventTexts(3005), Lines{Report("INetCfgClassSetup::Install()", 0x80070002)});
}

TEST_F(InstallFailures, AnOldDriverThatIsRemovedStaysRemovedWhenTheNewOneFails) {
    InstallOldDriver({1, 2, 3, 4});
    SetResults({E_FAIL, E_FAIL, E_FAIL});
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(outcome.result);
    EXPECT_EQ(FailedStep(outcome), "InstallingDriver");
    EXPECT_FALSE(network().Has(L"qbimvta"));
    EXPECT_FALSE(outcome.AskedForReboot());
    EXPECT_EQ(simulation().GetServices().Get(L"qbimwfp").status.state, DWORD{SERVICE_RUNNING})
        << "the new callout stays";
    EXPECT_TRUE(HasInf(L"oem0.inf")) << "the new INF files stay";
}

TEST_F(InstallFailures, AdaptersThatCannotBeReadBeforehandCountAsOffline) {
    faults().FailNth("CoCreateInstance", 1, static_cast<DWORD>(E_FAIL));
    const InstallOutcome outcome = Install();
    EXPECT_EQ(outcome.traces.back(),
              "All of the adapters were offline before we started the install/upgrade. There's no point in checking "
              "the network status.");
    EXPECT_EQ(outcome.EventTexts(3005), Lines{Report("CoCreateInstance(CLSID_CNetCfg)", 0x80004005)});
    EXPECT_TRUE(Succeeded(outcome));
}

TEST_F(InstallFailures, AFreshInstallationKeepsOtherProductsEvenOnAdaptersOfTheSameModel) {
    PutOtherProduct();
    EXPECT_TRUE(Succeeded(Install()));
    ExpectOtherProductUntouched();
    EXPECT_TRUE(IsBound(kFirst));
    EXPECT_TRUE(IsBound(kSecond));
    EXPECT_FALSE(IsBound(kThird)) << "without TCP/IP";
}

TEST_F(InstallFailures, AnUpgradeKeepsOtherProductsEvenOnAdaptersOfTheSameModel) {
    InstallOldDriver({1, 2, 3, 4});
    PutOtherProduct();
    network().Bind(kThird, L"qbimvta", false);
    EXPECT_TRUE(Succeeded(Install()));
    ExpectOtherProductUntouched();
    EXPECT_TRUE(IsBound(kFirst));
    EXPECT_TRUE(IsBound(kSecond));
    EXPECT_FALSE(IsBound(kThird)) << "as before, unlike its twin";
}

TEST_F(InstallFailures, AFailureKeepsOtherProductsEvenOnAdaptersOfTheSameModel) {
    PutOtherProduct();
    SetResults({E_FAIL, E_FAIL, E_FAIL});
    EXPECT_EQ(FailedStep(Install()), "InstallingDriver");
    ExpectOtherProductUntouched();
}

// --- what is left open ---

class InstallBalance : public InstallFailures {
protected:
    /// What the second of two installations leaves, except blocks that are not the module's.
    Lines LeftBy(const std::function<void()> &prepare) {
        prepare();
        (void)Install();
        prepare();
        const Simulator::BalanceSnapshot before = balance().Take();
        (void)Install();
        EXPECT_FALSE(network().Read().lock.has_value());
        EXPECT_EQ(Vti::TheDriver().openHandles, 0);
        return LeftSince(before);
    }
    Lines LeftSince(const Simulator::BalanceSnapshot &before) {
        Lines left;
        for (const Simulator::BalanceItem &item : Simulator::Balance::Left(before, balance().Take())) {
            if (item.kind != std::string(Simulator::Kind::kBlock) || IsOfTheModule(item))
                left.push_back(std::string(item.kind) + " of " + item.function);
        }
        return left;
    }
    void RemoveFilter() {
        network().Use([](NetworkState &state) {
            std::erase_if(state.components, [](const auto &component) { return component.id == L"qbimvta"; });
        });
        SetRunningVersion(std::nullopt);
    }
    void PutOldDriver() {
        RemoveFilter();
        InstallOldDriver({1, 2, 3, 4});
    }

private:
    /// wxWidgets and the compiler's runtime allocate what they keep for themselves with malloc and calloc; the objects
    /// and strings that they make for the module come from operator new.
    bool IsOfTheModule(const Simulator::BalanceItem &block) const {
        const Simulator::InsideSimulator inside;
        HMODULE module = nullptr;
        const DWORD flags = GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT;
        if (GetModuleHandleExW(flags, static_cast<const wchar_t *>(block.caller), &module) == 0)
            return false;
        return module == GetModuleHandleW(L"fc.dll") ||
               (block.function == std::string(Simulator::Balance::kOperatorNew) && block.thread != m_tests);
    }

    const DWORD m_tests = GetCurrentThreadId();
};

TEST_F(InstallBalance, NothingStaysOpenAfterAFreshInstallation) {
    EXPECT_EQ(LeftBy([this] { RemoveFilter(); }), Lines{});
    EXPECT_TRUE(network().Has(L"qbimvta"));
}

TEST_F(InstallBalance, NothingStaysOpenAfterAnUpgrade) {
    EXPECT_EQ(LeftBy([this] { PutOldDriver(); }), Lines{});
}

TEST_F(InstallBalance, NothingStaysOpenWhenThereIsNothingToDo) {
    PutOldDriver();
    EXPECT_EQ(LeftBy([this] { SetRunningVersion(kOurVersion); }), Lines{});
    EXPECT_EQ(CallsOf(kInstall), 0U);
}

TEST_F(InstallBalance, NothingStaysOpenAfterAFailedInstallation) {
    EXPECT_EQ(LeftBy([this] {
                  RemoveFilter();
                  SetResults({E_FAIL, E_FAIL, E_FAIL});
              }),
              Lines{});
    EXPECT_FALSE(network().Has(L"qbimvta"));
}

TEST_F(InstallBalance, NothingStaysOpenAfterAFailedUpgrade) {
    EXPECT_EQ(LeftBy([this] {
                  PutOldDriver();
                  SetResults({E_FAIL, E_FAIL, E_FAIL});
              }),
              Lines{});
}

TEST_F(InstallBalance, NothingStaysOpenAfterAnInstallationOnAnEmbeddedSystem) {
    simulation().GetMachine().suiteMask |= VER_SUITE_EMBEDDEDNT;
    EXPECT_EQ(LeftBy([this] { RemoveFilter(); }), Lines{});
}

TEST_F(InstallBalance, NothingStaysOpenAfterRebindingAStaleDriver) {
    SetVersionAfterInstall(Version{1, 0, 0, 0});
    EXPECT_EQ(LeftBy([this] { RemoveFilter(); }), Lines{});
}

TEST_F(InstallBalance, NothingStaysOpenAfterRecoveriesOfTheNetwork) {
    BreakNetworkWhenInstalled();
    EXPECT_EQ(LeftBy([this] {
                  RemoveFilter();
                  for (const wchar_t *node : {kFirst, kSecond})
                      network().ChangeAdapter(node, [](auto &adapter) { adapter.mediaStatus = 0; });
              }),
              Lines{});
}

TEST_F(InstallBalance, NothingStaysOpenWhenTheWorkerCannotBeCreated) {
    EXPECT_EQ(LeftBy([this] {
                  faults().Clear();
                  faults().FailNth("_beginthreadex", 2, EAGAIN);
              }),
              Lines{});
}

}  // namespace
