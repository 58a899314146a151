// How the removal opens a registry key that the system has locked against it.
#include <algorithm>
#include <string>
#include <vector>

#include <windows.h>
#include <aclapi.h>

#include "RemovalFixture.h"
#include "SecurityFunctions.h"

namespace {

using Lines = std::vector<std::string>;
using Simulator::AccessEntry;

constexpr wchar_t kMiniportKey[] = L"SYSTEM\\CurrentControlSet\\Enum\\Root\\QBIMVTA_MP";
constexpr BYTE kInherited = OBJECT_INHERIT_ACE | CONTAINER_INHERIT_ACE;

const std::vector<AccessEntry> kOpenToAll{
    {ACCESS_ALLOWED_ACE_TYPE, kInherited, GENERIC_ALL, Simulator::Sid::kEveryone},
    {ACCESS_ALLOWED_ACE_TYPE, kInherited, GENERIC_ALL, Simulator::Sid::kAdministrators}};

// The calls as in the journal; a name in a writable buffer is a pointer there.
const std::string kSetAccess = "SetNamedSecurityInfoW(*, 4, 4, null, null, *, null)";
const std::string kSetOwner = "SetNamedSecurityInfoW(*, 4, 1, *, null, null, null)";
const std::string kLookUp = R"(LookupPrivilegeValueW(null, "SeTakeOwnershipPrivilege", *))";
const std::string kAdjust = "AdjustTokenPrivileges(*, 0, *, 16, null, null)";

/// A removal that an orphan leads to the key, which has a subkey.
class KeyTaking : public RemovalFixture {
protected:
    KeyTaking() {
        RemoveDrivers();
        PutOrphan();
        simulation().GetRegistry().PutKey(HKEY_LOCAL_MACHINE, std::wstring(kMiniportKey) + L"\\0001");
    }

    Simulator::Security &security() { return simulation().GetSecurity(); }
    bool HasKey() { return simulation().GetRegistry().HasKey(HKEY_LOCAL_MACHINE, kMiniportKey); }
    std::wstring Owner() { return security().Key(kMiniportKey).owner; }
    bool IsPrivilegeEnabled() { return security().IsEnabled(Simulator::kTakeOwnership); }

    /// The lines about the key's owner. Whatever its result, the removal succeeds and leaves nothing.
    Lines Take() {
        const auto before = balance().Take();
        const Removal removal = Uninstall();
        EXPECT_TRUE(removal.result);
        EXPECT_EQ(removal.events, Lines{});
        ExpectNothingLeft(before);
        Lines lines = removal.ThreadLog();
        std::erase_if(lines, [](const std::string &line) { return line.find("TakeOwnership:") == line.npos; });
        return lines;
    }
    /// From the first call on.
    Lines SecurityCalls() {
        Lines calls = Calls({"AllocateAndInitializeSid", "FreeSid", "SetEntriesInAclW", "SetNamedSecurityInfoW",
                             "LocalFree", "OpenProcessToken", "LookupPrivilegeValueW", "AdjustTokenPrivileges"});
        const auto isFirst = [](const std::string &call) { return call.starts_with("AllocateAndInitializeSid("); };
        calls.erase(calls.begin(), std::find_if(calls.begin(), calls.end(), isFirst));
        return calls;
    }

private:
    void ExpectNothingLeft(const Simulator::BalanceSnapshot &before) {
        for (const Simulator::BalanceItem &item : Simulator::Balance::Left(before, balance().Take())) {
            const std::string kind = item.kind;
            EXPECT_TRUE(kind != Simulator::Kind::kSid && kind != Simulator::Kind::kLocalMemory &&
                        kind != Simulator::Kind::kKey && item.function != std::string("OpenProcessToken"))
                << kind << " by " << item.function;
        }
    }
};

/// The key is locked.
class LockedKeyTaking : public KeyTaking {
protected:
    LockedKeyTaking() { security().ProtectKey(kMiniportKey); }
};

TEST_F(KeyTaking, OpensAKeyThatIsNotLockedWithOneCall) {
    EXPECT_EQ(Take(), Lines{});
    EXPECT_EQ(SecurityCalls(),
              (Lines{"AllocateAndInitializeSid(*, 1, 0, 0, 0, 0, 0, 0, 0, 0, *)",
                     "AllocateAndInitializeSid(*, 2, 32, 544, 0, 0, 0, 0, 0, 0, *)", "SetEntriesInAclW(2, *, null, *)",
                     kSetAccess, "FreeSid(*)", "FreeSid(*)", "LocalFree(*)"}));
    EXPECT_EQ(security().Key(kMiniportKey).entries, kOpenToAll);
    EXPECT_EQ(Owner(), Simulator::Sid::kSystem) << "unchanged";
    EXPECT_FALSE(HasKey());
}

TEST_F(KeyTaking, BuildsAnAccessListOfTwoGroups) {
    std::vector<EXPLICIT_ACCESS_W> asked;
    simulation().Functions().Put<Simulator::System::SetEntriesInAclW>(
        [&asked](const auto &next, ULONG count, EXPLICIT_ACCESS_W *entries, ACL *old, ACL **list) {
            asked.assign(entries, entries + count);
            return next(count, entries, old, list);
        });
    (void)Take();
    ASSERT_EQ(asked.size(), 2U);
    for (const EXPLICIT_ACCESS_W &entry : asked) {
        EXPECT_EQ(entry.grfAccessPermissions, static_cast<DWORD>(GENERIC_ALL));
        EXPECT_EQ(entry.grfAccessMode, SET_ACCESS);
        EXPECT_EQ(entry.grfInheritance, static_cast<DWORD>(SUB_CONTAINERS_AND_OBJECTS_INHERIT));
        EXPECT_EQ(entry.Trustee.TrusteeForm, TRUSTEE_IS_SID);
        EXPECT_EQ(entry.Trustee.pMultipleTrustee, nullptr);
    }
    EXPECT_EQ(asked[0].Trustee.TrusteeType, TRUSTEE_IS_WELL_KNOWN_GROUP);
    EXPECT_EQ(asked[1].Trustee.TrusteeType, TRUSTEE_IS_GROUP);
}

TEST_F(LockedKeyTaking, OpensALockedKeyAsItsNewOwner) {
    EXPECT_EQ(Take(), Lines{});
    const Lines calls = SecurityCalls();
    ASSERT_EQ(calls.size(), 14U);
    EXPECT_EQ(Lines(calls.begin() + 3, calls.begin() + 11), (Lines{kSetAccess, "OpenProcessToken(*, 32, *)", kLookUp,
                                                                   kAdjust, kSetOwner, kLookUp, kAdjust, kSetAccess}));
    EXPECT_EQ(security().Key(kMiniportKey).entries, kOpenToAll);
    EXPECT_EQ(Owner(), Simulator::Sid::kAdministrators);
    EXPECT_FALSE(IsPrivilegeEnabled()) << "no longer";
    EXPECT_FALSE(HasKey());
}

TEST_F(LockedKeyTaking, EnablesThePrivilegeOnlyWhileItSetsTheOwner) {
    std::vector<DWORD> attributes;
    std::vector<bool> enabled;
    simulation().Functions().Put<Simulator::System::AdjustTokenPrivileges>(
        [&attributes](const auto &next, HANDLE token, BOOL disableAll, TOKEN_PRIVILEGES *wanted, auto... rest) {
            attributes.push_back(wanted->Privileges[0].Attributes);
            return next(token, disableAll, wanted, rest...);
        });
    simulation().Functions().Put<Simulator::System::SetNamedSecurityInfoW>(
        [this, &enabled](const auto &next, auto... arguments) {
            enabled.push_back(IsPrivilegeEnabled());
            return next(arguments...);
        });
    EXPECT_EQ(Take(), Lines{});
    EXPECT_EQ(attributes, (std::vector<DWORD>{SE_PRIVILEGE_ENABLED, 0}));
    EXPECT_EQ(enabled, (std::vector<bool>{false, true, false}));
}

TEST_F(LockedKeyTaking, NamesTheKeyAsTheSecurityFunctionsDo) {
    std::vector<std::wstring> names;
    simulation().Functions().Put<Simulator::System::SetNamedSecurityInfoW>(
        [&names](const auto &next, wchar_t *name, auto... rest) {
            names.emplace_back(name);
            return next(name, rest...);
        });
    EXPECT_EQ(Take(), Lines{});
    EXPECT_EQ(names, std::vector<std::wstring>(3, std::wstring(L"MACHINE\\") + kMiniportKey));
}

TEST_F(LockedKeyTaking, NeedsThePrivilege) {
    security().WithholdPrivilege(Simulator::kTakeOwnership);
    EXPECT_EQ(Take(), Lines{" TakeOwnership: Must be logged on as Administrator"});
    EXPECT_EQ(Owner(), Simulator::Sid::kSystem);
    EXPECT_EQ(Calls({"AdjustTokenPrivileges"}), Lines{kAdjust}) << "which reports success";
    EXPECT_TRUE(HasKey());
}

TEST_F(LockedKeyTaking, ReportsThatThePrivilegeWasLostMeanwhile) {
    simulation().Functions().Put<Simulator::System::SetNamedSecurityInfoW>(
        [this](const auto &next, wchar_t *name, SE_OBJECT_TYPE type, SECURITY_INFORMATION information, auto... rest) {
            const DWORD result = next(name, type, information, rest...);
            if (information == OWNER_SECURITY_INFORMATION)
                security().WithholdPrivilege(Simulator::kTakeOwnership);
            return result;
        });
    EXPECT_EQ(Take(), Lines{" TakeOwnership: Failed SetPrivilege call unexpectedly"});
    EXPECT_EQ(Owner(), Simulator::Sid::kAdministrators) << "it stays";
}

TEST_F(LockedKeyTaking, ReportsThatTheKeyVanished) {
    simulation().Functions().Put<Simulator::System::SetEntriesInAclW>([this](const auto &next, auto... arguments) {
        simulation().GetRegistry().Remove(HKEY_LOCAL_MACHINE, kMiniportKey);
        return next(arguments...);
    });
    EXPECT_EQ(Take(), Lines{" TakeOwnership: First SetNamedSecurityInfo call failed: 2"});
    EXPECT_EQ(Calls({"OpenProcessToken"}), Lines{});
}

struct FailingTaking {
    const char *name;
    const char *function;
    unsigned nth;
    DWORD code;
    const char *line;
    bool ownerIsSet = false;
    bool privilegeStaysEnabled = false;
};

class KeyTakingFailure : public LockedKeyTaking, public testing::WithParamInterface<FailingTaking> {};

TEST_P(KeyTakingFailure, IsReportedAndUndoesNothing) {
    const auto plan = simulation().GetFaults().FailNth(GetParam().function, GetParam().nth, GetParam().code);
    EXPECT_EQ(Take(), Lines{std::string(" TakeOwnership: ") + GetParam().line});
    EXPECT_TRUE(plan->Hit());
    EXPECT_EQ(Owner(), GetParam().ownerIsSet ? Simulator::Sid::kAdministrators : Simulator::Sid::kSystem);
    EXPECT_EQ(IsPrivilegeEnabled(), GetParam().privilegeStaysEnabled);
    EXPECT_TRUE(HasKey());
    const std::string deletion = ", 8, " + std::to_string(DELETE) + ", *)";
    const Lines opened = Calls({"RegOpenKeyExW"});
    EXPECT_TRUE(std::any_of(opened.begin(), opened.end(), [&](const auto &call) { return call.ends_with(deletion); }))
        << "the deletion is tried anyway";
}

INSTANTIATE_TEST_SUITE_P(
    Removal, KeyTakingFailure,
    testing::Values(
        FailingTaking{"OfTheFirstSid", "AllocateAndInitializeSid", 1, ERROR_NOT_ENOUGH_MEMORY,
                      "AllocateAndInitializeSid (Everyone) error 8"},
        FailingTaking{"OfTheSecondSid", "AllocateAndInitializeSid", 2, ERROR_NOT_ENOUGH_MEMORY,
                      "AllocateAndInitializeSid (Admin) error 8"},
        FailingTaking{"OfTheAccessList", "SetEntriesInAclW", 1, ERROR_INVALID_PARAMETER, "Failed SetEntriesInAcl"},
        FailingTaking{"OfTheFirstTry", "SetNamedSecurityInfoW", 1, ERROR_INVALID_ACL,
                      "First SetNamedSecurityInfo call failed: 1336"},
        FailingTaking{"OfTheToken", "OpenProcessToken", 1, ERROR_ACCESS_DENIED, "OpenProcessToken failed: 5"},
        FailingTaking{"OfTheFirstLookUp", "LookupPrivilegeValueW", 1, ERROR_NO_SUCH_PRIVILEGE,
                      "Must be logged on as Administrator"},
        FailingTaking{"OfTheFirstAdjustment", "AdjustTokenPrivileges", 1, ERROR_ACCESS_DENIED,
                      "Must be logged on as Administrator"},
        FailingTaking{"OfTheOwner", "SetNamedSecurityInfoW", 2, ERROR_INVALID_OWNER, "Could not set owner. Error: 1307",
                      false, true},
        FailingTaking{"OfTheSecondLookUp", "LookupPrivilegeValueW", 2, ERROR_NO_SUCH_PRIVILEGE,
                      "Failed SetPrivilege call unexpectedly", true, true},
        FailingTaking{"OfTheSecondAdjustment", "AdjustTokenPrivileges", 2, ERROR_ACCESS_DENIED,
                      "Failed SetPrivilege call unexpectedly", true, true},
        FailingTaking{"OfTheSecondTry", "SetNamedSecurityInfoW", 3, ERROR_ACCESS_DENIED,
                      "Second SetNamedSecurityInfo call failed: 5", true, false}),
    [](const auto &tested) { return std::string(tested.param.name); });

}  // namespace
