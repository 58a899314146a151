// The complete log of a removal: each step's lines are indented by one more space than those around it.
#include <string>

#include <netcfgx.h>

#include "RemovalFixture.h"

namespace {

void Replace(std::string &text, const std::string &what, const std::string &by) {
    for (std::size_t at = text.find(what); at != text.npos; at = text.find(what, at + by.size()))
        text.replace(at, what.size(), by);
}

class RemovalLog : public RemovalFixture {
protected:
    /// Removes the drivers. @return the thread's log, with <folder> for the system's folders, and <address> or <null>
    /// for addresses.
    std::string LogOfRemoval() {
        std::string text = "\n";
        for (const std::string &line : Uninstall().ThreadLog())
            text += WithoutAddress(line) + "\n";
        Replace(text, simulation().GetFolders().Root().string(), "<folder>");
        return text;
    }

private:
    static std::string WithoutAddress(const std::string &line) {
        static const std::string marker = "is at address 0x";
        const std::size_t at = line.find(marker);
        if (at == line.npos)
            return line;
        const std::string digits = line.substr(at + marker.size());
        EXPECT_EQ(digits.size(), 2 * sizeof(void *)) << line;
        const bool isNull = digits.find_first_not_of('0') == digits.npos;
        return line.substr(0, at) + "is at address " + (isNull ? "<null>" : "<address>");
    }
};

TEST_F(RemovalLog, OfACleanRemovalIsThisTree) {
    EXPECT_EQ(LogOfRemoval(), R"(
>ThreadRunning. 3600s max
 UninstallDriver running.
 SetupUninstallOEMInfW() is at address <address>
 >UninstallingWfpCalloutDriver. 300s max
  InstallHinfSectionW() is at address <address>
 <UninstallingWfpCalloutDriver
 Trying to uninstall 'qbimvta'...
 >FindingComponent. 15s max
 <FindingComponent
 >GettingClassGUID. 10s max
 <GettingClassGUID
 >GettingINetCfgClass. 10s max
 <GettingINetCfgClass
 >GettingINetCfgClassSetup. 10s max
 <GettingINetCfgClassSetup
 >UninstallingDriver. 600s max
 <UninstallingDriver
 >ApplyingInetCfgChanges. 300s max
 <ApplyingInetCfgChanges
 >RemovingInfFiles. 300s max
  Matched 'qbimvta' in file '<folder>\Windows\inf\oem1.inf'. Deleting this inf+pnf+cat.
  SetupUninstallOEMInf('oem1.inf') succeeded
  Matched 'qbimwfp' in file '<folder>\Windows\inf\oem2.inf'. Deleting this inf+pnf+cat.
  SetupUninstallOEMInf('oem2.inf') succeeded
 <RemovingInfFiles
 Checking if qbimvta is still installed
 >CheckingIfStillInstalled. 60s max
 <CheckingIfStillInstalled
 Checking for orphaned QBIMVTA_MP bindings
 >CleaningUpOrphans. 180s max
 <CleaningUpOrphans
<ThreadRunning
)");
}

TEST_F(RemovalLog, WithNothingInstalledIsThisTree) {
    RemoveDrivers();
    EXPECT_EQ(LogOfRemoval(), R"(
>ThreadRunning. 3600s max
 UninstallDriver running.
 SetupUninstallOEMInfW() is at address <address>
 Trying to uninstall 'qbimvta'...
 >FindingComponent. 15s max
 <FindingComponent
 'qbimvta' is not installed
 Trying to uninstall 'rxwim'...
 >FindingComponent. 15s max
 <FindingComponent
 'rxwim' is not installed
 >RemovingInfFiles. 300s max
 <RemovingInfFiles
 Checking if qbimvta is still installed
 >CheckingIfStillInstalled. 60s max
 <CheckingIfStillInstalled
 Checking for orphaned QBIMVTA_MP bindings
 >CleaningUpOrphans. 180s max
 <CleaningUpOrphans
<ThreadRunning
)");
}

TEST_F(RemovalLog, OfTheLegacyComponentAloneIsThisTree) {
    RemoveDrivers();
    simulation().GetNetwork().Put({.id = L"rxwim"});
    EXPECT_EQ(LogOfRemoval(), R"(
>ThreadRunning. 3600s max
 UninstallDriver running.
 SetupUninstallOEMInfW() is at address <address>
 Trying to uninstall 'qbimvta'...
 >FindingComponent. 15s max
 <FindingComponent
 'qbimvta' is not installed
 Trying to uninstall 'rxwim'...
 >FindingComponent. 15s max
 <FindingComponent
 >GettingClassGUID. 10s max
 <GettingClassGUID
 >GettingINetCfgClass. 10s max
 <GettingINetCfgClass
 >GettingINetCfgClassSetup. 10s max
 <GettingINetCfgClassSetup
 >UninstallingDriver. 600s max
 <UninstallingDriver
 >ApplyingInetCfgChanges. 300s max
 <ApplyingInetCfgChanges
 >RemovingInfFiles. 300s max
 <RemovingInfFiles
 Checking if qbimvta is still installed
 >CheckingIfStillInstalled. 60s max
 <CheckingIfStillInstalled
 Checking for orphaned QBIMVTA_MP bindings
 >CleaningUpOrphans. 180s max
 <CleaningUpOrphans
<ThreadRunning
)");
}

TEST_F(RemovalLog, OfAnOrphanThatStaysIsThisTree) {
    RemoveDrivers();
    PutOrphan();
    simulation().GetRegistry().PutKey(HKEY_LOCAL_MACHINE, L"SYSTEM\\CurrentControlSet\\Enum\\Root\\QBIMVTA_MP\\0001");
    const std::string attempt = R"(
  HrCleanupOrphans: Found an orphan
  Trying to uninstall 'QBIMVTA_MP'...
  >FindingComponent. 15s max
  <FindingComponent
  'QBIMVTA_MP' is not installed
  HrCleanupOrphans: Uninstall orphan hr=0x00000000)";
    EXPECT_EQ(LogOfRemoval(), R"(
>ThreadRunning. 3600s max
 UninstallDriver running.
 SetupUninstallOEMInfW() is at address <address>
 Trying to uninstall 'qbimvta'...
 >FindingComponent. 15s max
 <FindingComponent
 'qbimvta' is not installed
 Trying to uninstall 'rxwim'...
 >FindingComponent. 15s max
 <FindingComponent
 'rxwim' is not installed
 >RemovingInfFiles. 300s max
 <RemovingInfFiles
 Checking if qbimvta is still installed
 >CheckingIfStillInstalled. 60s max
 <CheckingIfStillInstalled
 Checking for orphaned QBIMVTA_MP bindings
 >CleaningUpOrphans. 180s max)" + attempt +
                                  attempt + attempt + attempt + R"(
 <CleaningUpOrphans
 HrCleanupOrphans: registry cleanup
 cleanup_registry: Scanning for registry key SYSTEM\CurrentControlSet\Enum\Root\QBIMVTA_MP
 cleanup_registry: Found SYSTEM\CurrentControlSet\Enum\Root\QBIMVTA_MP key
     cleanup_registry: successfuly deleted
 HrCleanupOrphans: orphan scan needs reboot (4:0)
<ThreadRunning
)");
}

TEST_F(RemovalLog, OfADeInstallThatAsksForARebootIsThisTree) {
    simulation().GetServices().Remove(L"qbimwfp");
    simulation().GetNetwork().Use([](auto &state) { state.components.front().deInstallResult = NETCFG_S_REBOOT; });
    EXPECT_EQ(LogOfRemoval(), R"(
>ThreadRunning. 3600s max
 UninstallDriver running.
 SetupUninstallOEMInfW() is at address <address>
 Trying to uninstall 'qbimvta'...
 >FindingComponent. 15s max
 <FindingComponent
 >GettingClassGUID. 10s max
 <GettingClassGUID
 >GettingINetCfgClass. 10s max
 <GettingINetCfgClass
 >GettingINetCfgClassSetup. 10s max
 <GettingINetCfgClassSetup
 >UninstallingDriver. 600s max
 <UninstallingDriver
 >RemovingInfFiles. 300s max
  Matched 'qbimvta' in file '<folder>\Windows\inf\oem1.inf'. Deleting this inf+pnf+cat.
  SetupUninstallOEMInf('oem1.inf') succeeded
  Matched 'qbimwfp' in file '<folder>\Windows\inf\oem2.inf'. Deleting this inf+pnf+cat.
  SetupUninstallOEMInf('oem2.inf') succeeded
 <RemovingInfFiles
 Checking if qbimvta is still installed
 >CheckingIfStillInstalled. 60s max
 <CheckingIfStillInstalled
 Checking for orphaned QBIMVTA_MP bindings
 >CleaningUpOrphans. 180s max
 <CleaningUpOrphans
<ThreadRunning
)");
}

TEST_F(RemovalLog, OfAnInfFileInUseWithoutTheSetupFunctionIsThisTree) {
    RemoveDrivers();
    PutInf(L"oem1.inf", InfNaming("qbimvta", 10));
    simulation().GetSetup().Lack("SetupUninstallOEMInfW");
    simulation().GetFilesInUse().Hold(simulation().GetFolders().Inf() / L"oem1.inf");
    EXPECT_EQ(LogOfRemoval(), R"(
>ThreadRunning. 3600s max
 UninstallDriver running.
 SetupUninstallOEMInfW() is at address <null>
 Trying to uninstall 'qbimvta'...
 >FindingComponent. 15s max
 <FindingComponent
 'qbimvta' is not installed
 Trying to uninstall 'rxwim'...
 >FindingComponent. 15s max
 <FindingComponent
 'rxwim' is not installed
 >RemovingInfFiles. 300s max
  Matched 'qbimvta' in file '<folder>\Windows\inf\oem1.inf'. Deleting this inf+pnf+cat.
 <RemovingInfFiles
 Checking if qbimvta is still installed
 >CheckingIfStillInstalled. 60s max
 <CheckingIfStillInstalled
 Checking for orphaned QBIMVTA_MP bindings
 >CleaningUpOrphans. 180s max
 <CleaningUpOrphans
<ThreadRunning
)");
    EXPECT_EQ(simulation().GetFilesInUse().LeftToBoot(),
              (std::vector<Simulator::MoveAtBoot>{{(simulation().GetFolders().Inf() / L"oem1.inf").wstring(), L""}}));
}

}  // namespace
