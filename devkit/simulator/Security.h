// Owners and access rights of the machine's registry keys, and the privileges of the process.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include <windows.h>

#include "AnyCase.h"
#include "Lock.h"

namespace Simulator {

class FunctionSet;
class RegistrySandbox;

/// SIDs as text.
namespace Sid {
inline constexpr wchar_t kEveryone[] = L"S-1-1-0";
inline constexpr wchar_t kSystem[] = L"S-1-5-18";
inline constexpr wchar_t kAdministrators[] = L"S-1-5-32-544";
}  // namespace Sid

/// SeTakeOwnershipPrivilege.
inline constexpr wchar_t kTakeOwnership[] = L"SeTakeOwnershipPrivilege";

/// One entry of an access list.
struct AccessEntry {
    BYTE type = ACCESS_ALLOWED_ACE_TYPE;
    BYTE flags = 0;  ///< OBJECT_INHERIT_ACE and similar.
    ACCESS_MASK mask = 0;
    std::wstring sid;

    bool operator==(const AccessEntry &) const = default;
};

/// A key without settings is open to all and belongs to the system.
struct KeySecurity {
    std::wstring owner = Sid::kSystem;
    /// It can only be read, and only its owner can set its access list; empty: inherited from the parent keys.
    std::optional<bool> isProtected;
    /// The same for its subkeys; empty: inherited from the parent keys.
    std::optional<bool> protectsBelow;
    DWORD deleteError = ERROR_SUCCESS;  ///< The error of each deletion.
    std::vector<AccessEntry> entries;   ///< The access list that was set last.
};

/// Keys are named by their path below HKEY_LOCAL_MACHINE, case-insensitive, without a backslash at either end. The
/// process is an administrator's: it owns what the Administrators own. Any thread.
class Security {
public:
    /// Holds SeTakeOwnershipPrivilege, which is disabled.
    Security();

    /// Protects the key with all subkeys.
    void ProtectKey(const std::wstring &path, const std::wstring &owner = Sid::kSystem);
    /// From now on RegDeleteKeyW and NtDeleteKey fail on this key.
    void ForbidDeletion(const std::wstring &path, DWORD error = ERROR_ACCESS_DENIED);
    [[nodiscard]] KeySecurity Key(const std::wstring &path) const;
    [[nodiscard]] bool IsProtected(const std::wstring &path) const;
    /// The error of a deletion of the key; ERROR_SUCCESS if it is allowed.
    [[nodiscard]] DWORD DeleteErrorOf(const std::wstring &path) const;

    /// @param privilege  such as kTakeOwnership.
    void GrantPrivilege(const std::wstring &privilege);
    void WithholdPrivilege(const std::wstring &privilege);
    [[nodiscard]] bool IsEnabled(const std::wstring &privilege) const;

    /// The input for setting the owner and the access list of a key.
    struct Change {
        bool setsOwner = false;
        std::wstring owner;
        bool setsAccess = false;
        bool withoutList = false;  ///< A null list: everyone may do everything.
        std::vector<AccessEntry> entries;
    };
    /// A list that gives everyone all rights lifts the protection of the key, and if it is inherited that of its
    /// subkeys.
    /// @return ERROR_SUCCESS; ERROR_ACCESS_DENIED if the process lacks the right to a part of it, ERROR_INVALID_OWNER
    ///   if the owner is not the Administrators, and nothing is changed.
    DWORD Apply(const std::wstring &path, const Change &change);
    struct Adjustment {
        std::wstring privilege;
        DWORD attributes = 0;
    };
    /// @return ERROR_SUCCESS, or ERROR_NOT_ALL_ASSIGNED if one of them is not held; the others are adjusted then.
    DWORD Adjust(const std::vector<Adjustment> &adjustments);
    void DisableAll();

private:
    [[nodiscard]] bool IsProtectedLocked(const std::wstring &path) const;
    [[nodiscard]] KeySecurity KeyLocked(const std::wstring &path) const;
    [[nodiscard]] bool MayLocked(const std::wstring &path, const Change &change) const;

    mutable Lock m_lock;
    std::map<std::wstring, KeySecurity, LessInAnyCase> m_keys;
    std::map<std::wstring, bool> m_privileges;  ///< The held ones, and whether they are enabled.
};

/// Simulates these functions with the security:
/// - SetNamedSecurityInfoW: owner and access list of registry keys by the name MACHINE\path; any other request fails
///   with ERROR_NOT_SUPPORTED. Fails on a missing key as RegOpenKeyExW does.
/// - AdjustTokenPrivileges: the privileges of the only token; the handle must be open for TOKEN_ADJUST_PRIVILEGES.
///   Fails with ERROR_NOT_SUPPORTED if the previous state is requested.
/// AllocateAndInitializeSid, FreeSid, SetEntriesInAclW, LocalFree, OpenProcessToken and LookupPrivilegeValueW are
/// passed through.
/// @param security  outlives the set.
void InstallSecurity(FunctionSet &functions, Security &security);

/// Applies the protected keys to RegOpenKeyExW, which grants only reading, and to RegDeleteKeyW and NtDeleteKey, which
/// also refuse keys whose deletion is forbidden. Other registry functions ignore them. Both outlive the set.
void InstallProtectedKeys(FunctionSet &functions, const Security &security, const RegistrySandbox &registry);

}  // namespace Simulator
