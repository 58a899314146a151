#include "SecurityFunctions.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <sddl.h>
#include <winternl.h>

#include "FunctionSet.h"
#include "Security.h"
#include "WindowsFunctions.h"

namespace Simulator {

namespace {

constexpr wchar_t kMachine[] = L"MACHINE\\";
constexpr SECURITY_INFORMATION kKnownInformation = OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION;

struct LocalMemory {
    void operator()(wchar_t *memory) const { LocalFree(memory); }
};

/// Empty if it is invalid.
std::wstring SidText(PSID sid) {
    wchar_t *text = nullptr;
    if (sid == nullptr || !IsValidSid(sid) || !ConvertSidToStringSidW(sid, &text))
        return {};
    return std::unique_ptr<wchar_t, LocalMemory>(text).get();
}

std::vector<AccessEntry> Entries(ACL *list) {
    std::vector<AccessEntry> entries;
    void *found = nullptr;
    for (DWORD i = 0; i < list->AceCount && GetAce(list, i, &found); ++i) {
        auto *entry = static_cast<ACCESS_ALLOWED_ACE *>(found);  // one that denies has the same layout
        entries.push_back({entry->Header.AceType, entry->Header.AceFlags, entry->Mask, SidText(&entry->SidStart)});
    }
    return entries;
}

/// @param path  receives the path below HKEY_LOCAL_MACHINE.
DWORD FindKey(const wchar_t *name, std::wstring &path) {
    constexpr std::size_t prefix = std::size(kMachine) - 1;
    if (_wcsnicmp(name, kMachine, prefix) != 0)
        return ERROR_NOT_SUPPORTED;
    path = name + prefix;
    HKEY key = nullptr;
    const LSTATUS status = RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_QUERY_VALUE, &key);
    if (status == ERROR_SUCCESS)
        RegCloseKey(key);
    return static_cast<DWORD>(status);
}

struct NamedSecurity {
    const wchar_t *name;
    SE_OBJECT_TYPE type;
    SECURITY_INFORMATION information;
    PSID owner;
    ACL *list;
};

DWORD SetKeySecurity(Security &security, const NamedSecurity &asked) {
    if (asked.name == nullptr)
        return ERROR_INVALID_PARAMETER;
    if (asked.type != SE_REGISTRY_KEY || (asked.information & ~kKnownInformation) != 0)
        return ERROR_NOT_SUPPORTED;
    Security::Change change;
    change.setsOwner = (asked.information & OWNER_SECURITY_INFORMATION) != 0;
    change.setsAccess = (asked.information & DACL_SECURITY_INFORMATION) != 0;
    change.withoutList = asked.list == nullptr;
    if (change.setsOwner) {
        change.owner = SidText(asked.owner);
        if (change.owner.empty())
            return ERROR_INVALID_SID;
    }
    if (change.setsAccess && asked.list != nullptr) {
        if (!IsValidAcl(asked.list))
            return ERROR_INVALID_ACL;
        change.entries = Entries(asked.list);
    }
    std::wstring path;
    const DWORD error = FindKey(asked.name, path);
    return error == ERROR_SUCCESS ? security.Apply(path, change) : error;
}

/// The rights that the handle was opened with; empty for an invalid handle.
std::optional<ACCESS_MASK> GrantedRights(HANDLE handle) {
    using QueryFunction = decltype(&::NtQueryObject);
    static const auto query =
        reinterpret_cast<QueryFunction>(reinterpret_cast<void *>(FindRealFunction("ntdll.dll", "NtQueryObject")));
    PUBLIC_OBJECT_BASIC_INFORMATION information{};
    if (query(handle, ObjectBasicInformation, &information, sizeof information, nullptr) != 0)
        return std::nullopt;
    return information.GrantedAccess;
}

std::wstring PrivilegeName(LUID luid) {
    wchar_t name[64] = L"";
    DWORD length = std::size(name);
    return LookupPrivilegeNameW(nullptr, &luid, name, &length) ? name : std::wstring();
}

/// The last error of AdjustTokenPrivileges; the call succeeds with ERROR_SUCCESS and ERROR_NOT_ALL_ASSIGNED.
DWORD Adjust(Security &security, HANDLE token, bool disableAll, const TOKEN_PRIVILEGES *wanted, bool asksPrevious) {
    if (asksPrevious)
        return ERROR_NOT_SUPPORTED;
    const std::optional<ACCESS_MASK> rights = GrantedRights(token);
    if (!rights)
        return ERROR_INVALID_HANDLE;
    if ((*rights & TOKEN_ADJUST_PRIVILEGES) == 0)
        return ERROR_ACCESS_DENIED;
    if (disableAll) {
        security.DisableAll();
        return ERROR_SUCCESS;
    }
    if (wanted == nullptr)
        return ERROR_INVALID_PARAMETER;
    std::vector<Security::Adjustment> adjustments;
    adjustments.reserve(wanted->PrivilegeCount);
    for (DWORD i = 0; i < wanted->PrivilegeCount; ++i)
        adjustments.push_back({PrivilegeName(wanted->Privileges[i].Luid), wanted->Privileges[i].Attributes});
    return security.Adjust(adjustments);
}

}  // namespace

void InstallSecurity(FunctionSet &functions, Security &security) {
    functions.Put<System::SetNamedSecurityInfoW>(
        [&security](const auto &, const wchar_t *name, SE_OBJECT_TYPE type, SECURITY_INFORMATION information,
                    PSID owner, PSID, ACL *list,
                    ACL *) { return SetKeySecurity(security, {name, type, information, owner, list}); });
    functions.Put<System::AdjustTokenPrivileges>([&security](const auto &, HANDLE token, BOOL disableAll,
                                                             TOKEN_PRIVILEGES *wanted, DWORD,
                                                             TOKEN_PRIVILEGES *previous, DWORD *) -> BOOL {
        const DWORD error = Adjust(security, token, disableAll != FALSE, wanted, previous != nullptr);
        SetLastError(error);
        return error == ERROR_SUCCESS || error == ERROR_NOT_ALL_ASSIGNED;
    });
    functions.PassThrough<System::AllocateAndInitializeSid>();
    functions.PassThrough<System::FreeSid>();
    functions.PassThrough<System::SetEntriesInAclW>();
    functions.PassThrough<System::LocalFree>();
    functions.PassThrough<System::OpenProcessToken>();
    functions.PassThrough<System::LookupPrivilegeValueW>();
}

}  // namespace Simulator
