#include "TakeOwnership.h"

#include <array>

#include <windows.h>
#include <aclapi.h>

#include "Unique.h"

namespace {

using Acl = Unique<ACL *, LocalFree>;
using Sid = Unique<PSID, FreeSid>;

/// S-1-1-0. @return null with the last error.
Sid MakeOwnershipSidOfEveryone() {
    SID_IDENTIFIER_AUTHORITY world = {SECURITY_WORLD_SID_AUTHORITY};
    PSID sid = nullptr;
    return Sid(AllocateAndInitializeSid(&world, 1, SECURITY_WORLD_RID, 0, 0, 0, 0, 0, 0, 0, &sid) != 0 ? sid : nullptr);
}

/// S-1-5-32-544. @return null with the last error.
Sid MakeOwnershipSidOfAdministrators() {
    SID_IDENTIFIER_AUTHORITY nt = {SECURITY_NT_AUTHORITY};
    PSID sid = nullptr;
    return Sid(AllocateAndInitializeSid(&nt, 2, SECURITY_BUILTIN_DOMAIN_RID, DOMAIN_ALIAS_RID_ADMINS, 0, 0, 0, 0, 0, 0,
                                        &sid) != 0
                   ? sid
                   : nullptr);
}

EXPLICIT_ACCESS_W OwnershipFullAccessFor(const Sid &sid, TRUSTEE_TYPE type) {
    EXPLICIT_ACCESS_W access = {};
    access.grfAccessPermissions = GENERIC_ALL;
    access.grfAccessMode = SET_ACCESS;
    access.grfInheritance = SUB_CONTAINERS_AND_OBJECTS_INHERIT;
    access.Trustee.TrusteeForm = TRUSTEE_IS_SID;
    access.Trustee.TrusteeType = type;
    access.Trustee.ptstrName = static_cast<wchar_t *>(sid.get());
    return access;
}

/// @return null on failure.
Acl MakeOwnershipAcl(const Sid &everyone, const Sid &administrators) {
    std::array<EXPLICIT_ACCESS_W, 2> entries{OwnershipFullAccessFor(everyone, TRUSTEE_IS_WELL_KNOWN_GROUP),
                                             OwnershipFullAccessFor(administrators, TRUSTEE_IS_GROUP)};
    ACL *acl = nullptr;
    const DWORD error = SetEntriesInAclW(static_cast<ULONG>(entries.size()), entries.data(), nullptr, &acl);
    return Acl(error == ERROR_SUCCESS ? acl : nullptr);
}

unsigned SetOwnershipAcl(wchar_t *objectName, const Acl &acl) {
    return SetNamedSecurityInfoW(objectName, SE_REGISTRY_KEY, DACL_SECURITY_INFORMATION, nullptr, nullptr, acl.get(),
                                 nullptr);
}

/// @param attributes  SE_PRIVILEGE_ENABLED, or 0 to disable it.
bool SetTakeOwnershipPrivilege(const UniqueHandle &token, DWORD attributes) {
    TOKEN_PRIVILEGES privileges = {};
    static_assert(sizeof(privileges) == 16);
    privileges.PrivilegeCount = 1;
    privileges.Privileges[0].Attributes = attributes;
    if (LookupPrivilegeValueW(nullptr, L"SeTakeOwnershipPrivilege", &privileges.Privileges[0].Luid) == 0 ||
        AdjustTokenPrivileges(token.get(), FALSE, &privileges, sizeof(privileges), nullptr, nullptr) == 0)
        return false;
    // The call succeeds also when the privilege isn't held.
    return GetLastError() != ERROR_NOT_ALL_ASSIGNED;
}

/// @param format  takes the last error.
void LogOwnershipError(const OwnershipLog &log, const char *format) {
    const unsigned error = GetLastError();
    log(wxString::Format(format, error));
}

/// Makes the Administrators the owner, with a privilege that is enabled for that alone.
/// @return false after a line in the log. Nothing is undone then: an owner once set stays, and so does the privilege if
/// it was not disabled yet.
bool TakeKeyOwnership(const OwnershipLog &log, wchar_t *objectName, const Sid &owner, UniqueHandle &token) {
    HANDLE opened = nullptr;
    if (OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES, &opened) == 0) {
        LogOwnershipError(log, "TakeOwnership: OpenProcessToken failed: %u");
        return false;
    }
    token.reset(opened);
    if (!SetTakeOwnershipPrivilege(token, SE_PRIVILEGE_ENABLED)) {
        log("TakeOwnership: Must be logged on as Administrator");
        return false;
    }
    const unsigned error = SetNamedSecurityInfoW(objectName, SE_REGISTRY_KEY, OWNER_SECURITY_INFORMATION, owner.get(),
                                                 nullptr, nullptr, nullptr);
    if (error != ERROR_SUCCESS) {
        log(wxString::Format("TakeOwnership: Could not set owner. Error: %u", error));
        return false;
    }
    if (!SetTakeOwnershipPrivilege(token, 0)) {
        log("TakeOwnership: Failed SetPrivilege call unexpectedly");
        return false;
    }
    return true;
}

}  // namespace

// compat 125: undoes nothing after a failure; the new owner stays, and the privilege if not disabled yet
void TakeOwnership(const OwnershipLog &log, wchar_t *objectName) {
    UniqueHandle token;  // closed last
    Acl acl;
    const Sid everyone = MakeOwnershipSidOfEveryone();
    if (!everyone) {
        LogOwnershipError(log, "TakeOwnership: AllocateAndInitializeSid (Everyone) error %u");
        return;
    }
    const Sid administrators = MakeOwnershipSidOfAdministrators();
    if (!administrators) {
        LogOwnershipError(log, "TakeOwnership: AllocateAndInitializeSid (Admin) error %u");
        return;
    }
    acl = MakeOwnershipAcl(everyone, administrators);
    if (!acl) {
        log("TakeOwnership: Failed SetEntriesInAcl");
        return;
    }
    unsigned error = SetOwnershipAcl(objectName, acl);
    if (error == ERROR_SUCCESS)
        return;
    if (error != ERROR_ACCESS_DENIED) {
        log(wxString::Format("TakeOwnership: First SetNamedSecurityInfo call failed: %u", error));
        return;
    }
    if (!TakeKeyOwnership(log, objectName, administrators, token))
        return;
    error = SetOwnershipAcl(objectName, acl);
    if (error != ERROR_SUCCESS)
        log(wxString::Format("TakeOwnership: Second SetNamedSecurityInfo call failed: %u", error));
}
