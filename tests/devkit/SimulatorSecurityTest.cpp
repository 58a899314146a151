#include "Security.h"

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

TEST_F(SimulatedSecurity, AllowsOnlyReadingAProtectedKey) {
    security.ProtectKey(kKey);
    for (const std::wstring &path : {std::wstring(kKey), below}) {
        EXPECT_EQ(Open(path, KEY_READ), kDone);
        for (const REGSAM access : {REGSAM{KEY_WRITE}, REGSAM{KEY_ALL_ACCESS}, REGSAM{DELETE}, REGSAM{WRITE_DAC}})
            EXPECT_EQ(Open(path, access), kDenied) << access;
        EXPECT_EQ(Delete(path), kDenied);
    }
    EXPECT_EQ(Open(L"SYSTEM\\Enum", KEY_ALL_ACCESS), kDone) << "above it";
    EXPECT_TRUE(simulation.GetRegistry().HasKey(HKEY_LOCAL_MACHINE, below));
}

TEST_F(SimulatedSecurity, RecognisesProtectedKeysCaseInsensitivelyAndThroughOpenKeys) {
    security.ProtectKey(L"system\\ENUM\\device");
    EXPECT_EQ(Delete(L"SYSTEM\\enum\\Device\\0000"), kDenied);
    HKEY parent = nullptr;
    ASSERT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"SYSTEM\\Enum", 0, KEY_ALL_ACCESS, &parent), ERROR_SUCCESS);
    HKEY key = nullptr;
    EXPECT_EQ(RegOpenKeyExW(parent, L"Device", 0, KEY_SET_VALUE, &key), ERROR_ACCESS_DENIED);
    EXPECT_EQ(RegDeleteKeyW(parent, L"Device\\0000"), ERROR_ACCESS_DENIED);
    EXPECT_EQ(RegCloseKey(parent), ERROR_SUCCESS);
}

TEST_F(SimulatedSecurity, ReportsAMissingKeyAsMissingRatherThanProtected) {
    security.ProtectKey(L"SYSTEM\\Missing");
    EXPECT_EQ(Open(L"SYSTEM\\Missing", KEY_WRITE), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(Delete(L"SYSTEM\\Missing"), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(SetAccess(nullptr, L"MACHINE\\SYSTEM\\Missing"), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
}

TEST_F(SimulatedSecurity, SetsTheAccessOfAKeyThatIsNotProtectedAtOnce) {
    EXPECT_EQ(OpenToEveryone(), kDone);
    const KeySecurity key = security.Key(kKey);
    const AccessEntry entry{ACCESS_ALLOWED_ACE_TYPE, CONTAINER_INHERIT_ACE | OBJECT_INHERIT_ACE, GENERIC_ALL,
                            Sid::kEveryone};
    ASSERT_EQ(key.entries.size(), 1U);
    EXPECT_EQ(key.entries[0].type, entry.type);
    EXPECT_EQ(key.entries[0].flags, entry.flags);
    EXPECT_EQ(key.entries[0].mask, entry.mask);
    EXPECT_EQ(key.entries[0].sid, entry.sid);
    EXPECT_EQ(key.owner, Sid::kSystem);
    EXPECT_EQ(Delete(below), kDone);
    EXPECT_EQ(Delete(kKey), kDone);
}

TEST_F(SimulatedSecurity, AllowsOnlyTheOwnerToSetTheAccess) {
    security.ProtectKey(kKey);
    EXPECT_EQ(OpenToEveryone(), kDenied);
    EXPECT_TRUE(security.IsProtected(kKey));
    EXPECT_TRUE(security.Key(kKey).entries.empty());
    security.ProtectKey(kKey, Sid::kAdministrators);
    EXPECT_EQ(OpenToEveryone(), kDone);
    EXPECT_FALSE(security.IsProtected(kKey));
    EXPECT_EQ(Delete(below), kDone);
}

TEST_F(SimulatedSecurity, LiftsTheProtectionOnlyForAllRightsOfEveryone) {
    security.ProtectKey(kKey, Sid::kAdministrators);
    const TestSid administrators(TestSid::Administrators);
    const TestList ofAdministrators(administrators.Get(), GENERIC_ALL);
    EXPECT_EQ(SetAccess(ofAdministrators.Get()), kDone);
    EXPECT_TRUE(security.IsProtected(kKey));
    const TestSid everyone(TestSid::Everyone);
    const TestList reading(everyone.Get(), GENERIC_READ);
    EXPECT_EQ(SetAccess(reading.Get()), kDone);
    EXPECT_TRUE(security.IsProtected(kKey));
    const TestList all(everyone.Get(), KEY_ALL_ACCESS);
    EXPECT_EQ(SetAccess(all.Get()), kDone);
    EXPECT_FALSE(security.IsProtected(kKey));
}

TEST_F(SimulatedSecurity, KeepsSubkeysProtectedIfAnEntryIsNotInherited) {
    security.ProtectKey(kKey, Sid::kAdministrators);
    EXPECT_EQ(OpenToEveryone(NO_INHERITANCE), kDone);
    EXPECT_FALSE(security.IsProtected(kKey));
    EXPECT_TRUE(security.IsProtected(below));
    EXPECT_EQ(OpenToEveryone(SUB_CONTAINERS_ONLY_INHERIT), kDone);
    EXPECT_FALSE(security.IsProtected(below));
}

TEST_F(SimulatedSecurity, SupportsOnlyKeysOfTheMachine) {
    const TestSid everyone(TestSid::Everyone);
    const TestList list(everyone.Get(), GENERIC_ALL);
    EXPECT_EQ(SetAccess(list.Get(), kName, SE_FILE_OBJECT), static_cast<DWORD>(ERROR_NOT_SUPPORTED));
    EXPECT_EQ(SetAccess(list.Get(), L"CURRENT_USER\\Software"), static_cast<DWORD>(ERROR_NOT_SUPPORTED));
    EXPECT_EQ(SetOwner(nullptr), static_cast<DWORD>(ERROR_INVALID_SID));
}

TEST_F(SimulatedSecurity, KeepsAKeyWhoseDeletionIsForbidden) {
    security.ForbidDeletion(below, ERROR_BUSY);
    EXPECT_EQ(Delete(below), static_cast<DWORD>(ERROR_BUSY));
    EXPECT_EQ(Open(below, KEY_ALL_ACCESS), kDone);
    EXPECT_EQ(Delete(kKey), kDenied) << "the real registry deletes no key with keys below it";
}

TEST_F(SimulatedSecurity, CountsSidsAndAccessLists) {
    const BalanceSnapshot before = simulation.GetBalance().Take();
    {
        const TestSid everyone(TestSid::Everyone);
        const TestSid administrators(TestSid::Administrators);
        const TestList list(everyone.Get(), GENERIC_ALL);
        const BalanceSnapshot during = simulation.GetBalance().Take();
        EXPECT_EQ(during.Count(Kind::kSid), before.Count(Kind::kSid) + 2);
        EXPECT_EQ(during.Count(Kind::kLocalMemory), before.Count(Kind::kLocalMemory) + 1);
    }
    const BalanceSnapshot after = simulation.GetBalance().Take();
    EXPECT_EQ(after.Count(Kind::kSid), before.Count(Kind::kSid));
    EXPECT_EQ(after.Count(Kind::kLocalMemory), before.Count(Kind::kLocalMemory));
}

TEST_F(SimulatedSecurity, FailsAsPlannedAndIsInTheJournal) {
    (void)simulation.GetFaults().FailNth("SetNamedSecurityInfoW", 1, ERROR_INVALID_NAME);
    (void)simulation.GetFaults().FailNth("AdjustTokenPrivileges", 1, ERROR_BUSY);
    EXPECT_EQ(OpenToEveryone(), static_cast<DWORD>(ERROR_INVALID_NAME));
    EXPECT_EQ(Adjust(kTakeOwnership, SE_PRIVILEGE_ENABLED), std::make_pair(false, DWORD{ERROR_BUSY}));
    (void)simulation.GetJournal().Take();
    EXPECT_EQ(OpenToEveryone(), kDone);
    const std::vector<std::string> calls{"AllocateAndInitializeSid", "SetEntriesInAclW", "SetNamedSecurityInfoW",
                                         "LocalFree", "FreeSid"};
    EXPECT_EQ(simulation.GetJournal().Names(), calls);
}
