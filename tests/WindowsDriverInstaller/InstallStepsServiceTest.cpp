// The file that an embedded system needs during an installation, and the values of the filter's service.

#include <string>

#include "InstallStepsFixture.h"

namespace {

using Simulator::NetworkMoment;

// --- embedded systems ---

TEST_F(InstallSteps, CopyTheDriverToTheSystemFolderDuringAnInstallationOnAnEmbeddedSystem) {
    MakeSystemEmbedded();
    bool there = false;
    onMoment = [&](const NetworkMoment &moment) {
        if (moment.what == What::Installed)
            there = exists(WindowsCopy());
    };
    EXPECT_TRUE(Succeeded(Install()));
    EXPECT_TRUE(there);
    EXPECT_FALSE(exists(WindowsCopy()));
    EXPECT_EQ(Calls({"CopyFileW"}), Lines{"CopyFileW(\"" + Source() + "\", \"" + WindowsCopy().string() + "\", 0)"});
}

TEST_F(InstallSteps, DeleteTheCopyOnAnEmbeddedSystemAfterAFailureToo) {
    MakeSystemEmbedded();
    SetResults({E_FAIL, E_FAIL, E_FAIL});
    EXPECT_EQ(FailedStep(Install()), "InstallingDriver");
    EXPECT_FALSE(exists(WindowsCopy()));
    EXPECT_EQ(CallsOf("CopyFileW"), 1U);
}

TEST_F(InstallSteps, InstallOnAnEmbeddedSystemWithoutACopyIfTheFolderIsUnknown) {
    MakeSystemEmbedded();
    faults().FailEvery("GetWindowsDirectoryW", ERROR_GEN_FAILURE);
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_EQ(outcome.EventTexts(3005), Lines{Report("GetWindowsDirectory()", ERROR_GEN_FAILURE)});
    EXPECT_EQ(CallsOf("CopyFileW"), 0U);
    EXPECT_FALSE(Contains(WorkerLog(outcome), "Deleting '"));
}

TEST_F(InstallSteps, InstallOnAnEmbeddedSystemIfTheCopyFails) {
    MakeSystemEmbedded();
    faults().FailEvery("CopyFileW", ERROR_DISK_FULL);
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome));
    const std::string copy = WindowsCopy().string();
    EXPECT_EQ(outcome.EventTexts(3005), (Lines{Report("CopyFile('" + Source() + "', '" + copy + "')", ERROR_DISK_FULL),
                                               Report("DeleteFile('" + copy + "')", ERROR_FILE_NOT_FOUND)}));
    EXPECT_EQ(CallsOf(kInstall), 1U);
}

TEST_F(InstallSteps, SucceedOnAnEmbeddedSystemIfTheCopyCannotBeDeleted) {
    MakeSystemEmbedded();
    simulation().GetFilesInUse().Hold(WindowsCopy());
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_EQ(outcome.EventTexts(3005),
              Lines{Report("DeleteFile('" + WindowsCopy().string() + "')", ERROR_SHARING_VIOLATION)});
    EXPECT_TRUE(exists(WindowsCopy()));
}

TEST_F(InstallSteps, CopyNothingOnOtherSystemsOrIfTheEditionIsUnknown) {
    (void)Install();
    EXPECT_EQ(CallsOf("CopyFileW"), 0U);
    SetRunningVersion(std::nullopt);
    MakeSystemEmbedded();
    faults().FailEvery("GetVersionExW", ERROR_INVALID_FUNCTION);
    EXPECT_TRUE(Succeeded(Install()));
    EXPECT_EQ(CallsOf("CopyFileW"), 0U);
}

// --- the service's values ---

TEST_F(InstallSteps, WriteTheServicesValues) {
    PutServiceKey();
    dom.SettingStore("app.path.bin", "C:\\Program Files\\Agent\\bin");
    EXPECT_TRUE(Succeeded(Install()));
    EXPECT_EQ(ServiceValue(L"ConfigBinary"), dom.GetPluginFileWx("filter", "config.bin").ToStdWstring());
    EXPECT_EQ(ServiceValue(L"EndpointRoot"), L"C:\\Program Files\\Agent\\bin");
}

TEST_F(InstallSteps, WriteTheServicesValuesAfterAFailureOfTheInstallationToo) {
    PutServiceKey();
    dom.SettingStore("app.path.bin", "C:\\bin");
    SetResults({E_FAIL, E_FAIL, E_FAIL});
    EXPECT_EQ(FailedStep(Install()), "InstallingDriver");
    EXPECT_EQ(ServiceValue(L"EndpointRoot"), L"C:\\bin");
    EXPECT_NE(ServiceValue(L"ConfigBinary"), std::nullopt);
}

TEST_F(InstallSteps, CreateNoKeyForTheServicesValues) {
    EXPECT_TRUE(Succeeded(Install()));
    EXPECT_FALSE(simulation().GetRegistry().HasKey(HKEY_LOCAL_MACHINE, kServiceKey));
}

TEST_F(InstallSteps, LogEachValueThatCannotBeWrittenAndSucceedAnyway) {
    PutServiceKey();
    dom.SettingStore("app.path.bin", "C:\\bin");
    const FaultPlan plan = faults().FailNth("RegSetValueExW", 1, ERROR_ACCESS_DENIED);
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(plan->Hit());
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_EQ(Count(WorkerLog(outcome), "Unable to write HKLM\\"), 1U);
    EXPECT_TRUE(Contains(WorkerLog(outcome),
                         "\n Unable to write HKLM\\System\\CurrentControlSet\\Services\\qbimvta\\ConfigBinary\n"));
    EXPECT_EQ(ServiceValue(L"ConfigBinary"), std::nullopt);
    EXPECT_EQ(ServiceValue(L"EndpointRoot"), L"C:\\bin");
}

TEST_F(InstallSteps, LogBothValuesWhenTheKeyCannotBeWritten) {
    PutServiceKey();
    faults().FailEvery("RegSetValueExW", ERROR_ACCESS_DENIED);
    const InstallOutcome outcome = Install();
    EXPECT_TRUE(Succeeded(outcome));
    EXPECT_TRUE(Contains(WorkerLog(outcome), "qbimvta\\ConfigBinary\n"));
    EXPECT_TRUE(Contains(WorkerLog(outcome),
                         "\n Unable to write HKLM\\System\\CurrentControlSet\\Services\\qbimvta\\EndpointRoot\n"));
}

}  // namespace
