// For the tests of the simulated security: SIDs, access lists, and a machine with a key.
#pragma once

#include <string>
#include <utility>

#include <gtest/gtest.h>
#include <windows.h>
#include <aclapi.h>

#include "Simulation.h"
#include "SimulatorTestSupport.h"

namespace SimulatorTest {

inline constexpr wchar_t kKey[] = L"SYSTEM\\Enum\\Device";
inline constexpr wchar_t kName[] = L"MACHINE\\SYSTEM\\Enum\\Device";
inline constexpr DWORD kDenied = ERROR_ACCESS_DENIED;
inline constexpr DWORD kDone = ERROR_SUCCESS;
inline const std::pair<bool, DWORD> kAdjusted{true, ERROR_SUCCESS};

/// S-1-1-0 or S-1-5-32-544.
class TestSid {
public:
    enum Who { Everyone, Administrators };
    explicit TestSid(Who who) {
        SID_IDENTIFIER_AUTHORITY authority = {{0, 0, 0, 0, 0, static_cast<BYTE>(who == Everyone ? 1 : 5)}};
        const BOOL made = who == Everyone ? AllocateAndInitializeSid(&authority, 1, 0, 0, 0, 0, 0, 0, 0, 0, &m_sid)
                                          : AllocateAndInitializeSid(&authority, 2, SECURITY_BUILTIN_DOMAIN_RID,
                                                                     DOMAIN_ALIAS_RID_ADMINS, 0, 0, 0, 0, 0, 0, &m_sid);
        EXPECT_TRUE(made);
    }
    ~TestSid() { EXPECT_EQ(FreeSid(m_sid), nullptr); }
    TestSid(const TestSid &) = delete;
    TestSid &operator=(const TestSid &) = delete;
    [[nodiscard]] PSID Get() const { return m_sid; }

private:
    PSID m_sid = nullptr;
};

/// An access list with one entry.
class TestList {
public:
    TestList(PSID sid, DWORD rights, DWORD inheritance = SUB_CONTAINERS_AND_OBJECTS_INHERIT) {
        EXPLICIT_ACCESS_W entry{};
        entry.grfAccessPermissions = rights;
        entry.grfAccessMode = SET_ACCESS;
        entry.grfInheritance = inheritance;
        entry.Trustee.TrusteeForm = TRUSTEE_IS_SID;
        entry.Trustee.TrusteeType = TRUSTEE_IS_WELL_KNOWN_GROUP;
        entry.Trustee.ptstrName = static_cast<LPWSTR>(sid);
        EXPECT_EQ(SetEntriesInAclW(1, &entry, nullptr, &m_list), kDone);
    }
    ~TestList() { EXPECT_EQ(LocalFree(m_list), nullptr); }
    TestList(const TestList &) = delete;
    TestList &operator=(const TestList &) = delete;
    [[nodiscard]] ACL *Get() const { return m_list; }

private:
    ACL *m_list = nullptr;
};

/// This program on a machine with one key, which has a subkey.
class SimulatedSecurity : public ::testing::Test {
protected:
    SimulatedSecurity() {
        simulation.GetRegistry().PutKey(HKEY_LOCAL_MACHINE, std::wstring(kKey) + L"\\0000");
        (void)simulation.Attach(ThisProgram());
    }

    static DWORD SetAccess(ACL *list, std::wstring name = kName, SE_OBJECT_TYPE type = SE_REGISTRY_KEY) {
        return SetNamedSecurityInfoW(name.data(), type, DACL_SECURITY_INFORMATION, nullptr, nullptr, list, nullptr);
    }
    static DWORD SetOwner(PSID owner, std::wstring name = kName) {
        return SetNamedSecurityInfoW(name.data(), SE_REGISTRY_KEY, OWNER_SECURITY_INFORMATION, owner, nullptr, nullptr,
                                     nullptr);
    }
    static DWORD OpenToEveryone(DWORD inheritance = SUB_CONTAINERS_AND_OBJECTS_INHERIT) {
        const TestSid everyone(TestSid::Everyone);
        const TestList list(everyone.Get(), GENERIC_ALL, inheritance);
        return SetAccess(list.Get());
    }
    /// @return whether the call reports success, and the last error.
    static std::pair<bool, DWORD> Adjust(const wchar_t *privilege, DWORD attributes,
                                         DWORD tokenAccess = TOKEN_ADJUST_PRIVILEGES) {
        HANDLE token = nullptr;
        EXPECT_TRUE(OpenProcessToken(GetCurrentProcess(), tokenAccess, &token));
        TOKEN_PRIVILEGES wanted{1, {}};
        EXPECT_TRUE(LookupPrivilegeValueW(nullptr, privilege, &wanted.Privileges[0].Luid));
        wanted.Privileges[0].Attributes = attributes;
        SetLastError(ERROR_GEN_FAILURE);
        const BOOL adjusted = AdjustTokenPrivileges(token, FALSE, &wanted, sizeof wanted, nullptr, nullptr);
        const DWORD error = GetLastError();
        EXPECT_TRUE(CloseHandle(token));
        return {adjusted != FALSE, error};
    }
    static DWORD Open(const std::wstring &path, REGSAM access) {
        HKEY key = nullptr;
        const LSTATUS status = RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, access, &key);
        if (status == ERROR_SUCCESS)
            RegCloseKey(key);
        return static_cast<DWORD>(status);
    }
    static DWORD Delete(const std::wstring &path) {
        return static_cast<DWORD>(RegDeleteKeyW(HKEY_LOCAL_MACHINE, path.c_str()));
    }

    Simulator::Simulation simulation{{.folders = false, .machine = false}};
    Simulator::Security &security = simulation.GetSecurity();
    const std::wstring below = std::wstring(kKey) + L"\\0000";
};

}  // namespace SimulatorTest
