// The privileges of the process, and what needs them.
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>
#include <aclapi.h>

#include "Simulation.h"
#include "SimulatorSecuritySupport.h"
#include "SimulatorTestSupport.h"

using namespace Simulator;
using namespace SimulatorTest;

TEST_F(SimulatedSecurity, AllowsChangingTheOwnerOnlyWithThePrivilege) {
    const TestSid administrators(TestSid::Administrators);
    security.ProtectKey(kKey);
    EXPECT_EQ(SetOwner(administrators.Get()), kDenied) << "held but not enabled";
    EXPECT_EQ(Adjust(kTakeOwnership, SE_PRIVILEGE_ENABLED), kAdjusted);
    EXPECT_TRUE(security.IsEnabled(kTakeOwnership));
    const TestSid everyone(TestSid::Everyone);
    EXPECT_EQ(SetOwner(everyone.Get()), static_cast<DWORD>(ERROR_INVALID_OWNER));
    EXPECT_EQ(security.Key(kKey).owner, Sid::kSystem);
    EXPECT_EQ(SetOwner(administrators.Get()), kDone);
    EXPECT_EQ(security.Key(kKey).owner, Sid::kAdministrators);
    EXPECT_EQ(Delete(below), kDenied) << "an owner may not yet delete";
    EXPECT_EQ(Adjust(kTakeOwnership, 0), kAdjusted);
    EXPECT_FALSE(security.IsEnabled(kTakeOwnership));
    EXPECT_EQ(OpenToEveryone(), kDone);
    EXPECT_EQ(Delete(below), kDone);
    EXPECT_EQ(Delete(kKey), kDone);
}

TEST_F(SimulatedSecurity, ReportsAMissingPrivilegeInTheLastErrorOfASuccess) {
    security.WithholdPrivilege(kTakeOwnership);
    EXPECT_EQ(Adjust(kTakeOwnership, SE_PRIVILEGE_ENABLED), std::make_pair(true, DWORD{ERROR_NOT_ALL_ASSIGNED}));
    EXPECT_FALSE(security.IsEnabled(kTakeOwnership));
    security.GrantPrivilege(L"SeBackupPrivilege");
    EXPECT_EQ(Adjust(L"SeBackupPrivilege", SE_PRIVILEGE_ENABLED), kAdjusted);
    EXPECT_TRUE(security.IsEnabled(L"SeBackupPrivilege"));
}

TEST_F(SimulatedSecurity, RequiresATokenThatIsOpenForAdjusting) {
    EXPECT_EQ(Adjust(kTakeOwnership, SE_PRIVILEGE_ENABLED, TOKEN_QUERY), std::make_pair(false, kDenied));
    EXPECT_FALSE(security.IsEnabled(kTakeOwnership));
    EXPECT_FALSE(AdjustTokenPrivileges(nullptr, TRUE, nullptr, 0, nullptr, nullptr));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
}

TEST_F(SimulatedSecurity, DoesNotAffectTheRealPrivileges) {
    security.GrantPrivilege(L"SeShutdownPrivilege");
    HANDLE token = nullptr;
    ASSERT_TRUE(OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY | TOKEN_ADJUST_PRIVILEGES, &token));
    const auto attributes = [token] {
        std::vector<DWORD> found;
        alignas(TOKEN_PRIVILEGES) BYTE buffer[2048];
        DWORD size = 0;
        EXPECT_TRUE(GetTokenInformation(token, TokenPrivileges, buffer, sizeof buffer, &size));
        const auto *privileges = reinterpret_cast<const TOKEN_PRIVILEGES *>(buffer);
        for (DWORD i = 0; i < privileges->PrivilegeCount; ++i)
            found.push_back(privileges->Privileges[i].Attributes);
        return found;
    };
    const std::vector<DWORD> before = attributes();
    ASSERT_FALSE(before.empty());
    EXPECT_EQ(Adjust(L"SeShutdownPrivilege", SE_PRIVILEGE_ENABLED), kAdjusted);
    EXPECT_TRUE(AdjustTokenPrivileges(token, TRUE, nullptr, 0, nullptr, nullptr));
    EXPECT_FALSE(security.IsEnabled(L"SeShutdownPrivilege"));
    EXPECT_EQ(attributes(), before);
    EXPECT_TRUE(CloseHandle(token));
}

TEST(RealSecurity, BehavesLikeTheSimulatedOne) {
    // Calls only what changes nothing: a privilege that no program holds, and a missing key.
    const auto ask = [] {
        std::vector<DWORD> answers;
        const auto adjust = [&answers](DWORD tokenAccess) {
            HANDLE token = nullptr;
            EXPECT_TRUE(OpenProcessToken(GetCurrentProcess(), tokenAccess, &token));
            TOKEN_PRIVILEGES wanted{1, {}};
            EXPECT_TRUE(LookupPrivilegeValueW(nullptr, L"SeCreateTokenPrivilege", &wanted.Privileges[0].Luid));
            wanted.Privileges[0].Attributes = SE_PRIVILEGE_ENABLED;
            SetLastError(ERROR_GEN_FAILURE);
            answers.push_back(AdjustTokenPrivileges(token, FALSE, &wanted, sizeof wanted, nullptr, nullptr) != FALSE);
            answers.push_back(GetLastError());
            EXPECT_TRUE(CloseHandle(token));
        };
        adjust(TOKEN_ADJUST_PRIVILEGES);
        adjust(TOKEN_QUERY);
        const TestSid everyone(TestSid::Everyone);
        const TestList list(everyone.Get(), GENERIC_ALL);
        std::wstring missing = L"MACHINE\\SOFTWARE\\no such key of fc-devkit";
        answers.push_back(SetNamedSecurityInfoW(missing.data(), SE_REGISTRY_KEY, DACL_SECURITY_INFORMATION, nullptr,
                                                nullptr, list.Get(), nullptr));
        return answers;
    };
    const std::vector<DWORD> real = ask();
    Simulation simulation({.folders = false, .balance = false});
    (void)simulation.Attach(ThisProgram());
    EXPECT_EQ(ask(), real);
    EXPECT_EQ(simulation.GetJournal().Count("AdjustTokenPrivileges"), 2U);
}
