// The installation as the test has compiled it, for what no script can bring about.
#include <string>

#include <windows.h>

#include "BindingsInTest.h"
#include "InstallFixture.h"

namespace {

class InstallationInTest : public InstallFixture {
protected:
    InstallOutcome InstallWithExtraLog(const std::string &extraLog) {
        const int objects = VtaCore::Control::LiveObjects();
        simulation().GetClock().SetFollower(GetCurrentThreadId());
        InstallOutcome outcome;
        outcome.result =
            InstallWithExtraLogInTest(dom, NdisFolder().wstring() + L"\\", WfpFolder(), wxString::FromUTF8(extraLog));
        AwaitThreads(objects);
        TakeRecords(outcome);
        return outcome;
    }
};

TEST_F(InstallationInTest, AppendsTheAdditionalTextToTheLogOfASuccess) {
    const InstallOutcome outcome = InstallWithExtraLog("EXTRA");
    EXPECT_TRUE(outcome.result);
    ASSERT_EQ(outcome.EventTexts(1007).size(), 1U);
    EXPECT_TRUE(outcome.EventTexts(1007)[0].ends_with("\nEXTRA")) << outcome.EventTexts(1007)[0];
}

TEST_F(InstallationInTest, AppendsTheAdditionalTextToTheLogOfAFailure) {
    (void)simulation().GetFaults().FailEvery("INetCfgClassSetup::Install", static_cast<DWORD>(E_FAIL));
    const InstallOutcome outcome = InstallWithExtraLog("EXTRA");
    ASSERT_EQ(outcome.EventTexts(1004).size(), 1U);
    EXPECT_TRUE(outcome.EventTexts(1004)[0].ends_with("\nEXTRA")) << outcome.EventTexts(1004)[0];
}

TEST_F(InstallationInTest, FailsForAnEmptyFolderWithAnInvalidArgument) {
    EXPECT_EQ(InstallFromInfInTest(dom, ""), E_INVALIDARG);
}

}  // namespace
