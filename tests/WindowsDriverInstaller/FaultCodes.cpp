#include "FaultCodes.h"

#include <cerrno>
#include <map>
#include <set>

#include <netcfgx.h>
#include <setupapi.h>

namespace {

const std::map<std::string, std::vector<DWORD>> kLikelyCodes{
    {"AdjustTokenPrivileges", {ERROR_NOT_ALL_ASSIGNED}},
    {"AllocateAndInitializeSid", {ERROR_NOT_ENOUGH_MEMORY}},
    {"CloseHandle", {ERROR_INVALID_HANDLE}},
    {"CloseServiceHandle", {ERROR_INVALID_HANDLE}},
    {"CoCreateInstance", {static_cast<DWORD>(REGDB_E_CLASSNOTREG)}},
    {"CoInitializeEx", {static_cast<DWORD>(E_OUTOFMEMORY), static_cast<DWORD>(RPC_E_CHANGED_MODE)}},
    {"ControlService", {ERROR_SERVICE_NOT_ACTIVE}},
    {"CopyFileW", {ERROR_DISK_FULL}},
    {"CreateFileMappingW", {ERROR_FILE_INVALID}},
    {"CreateFileW", {ERROR_SHARING_VIOLATION}},
    {"DeleteFileW", {ERROR_SHARING_VIOLATION}},
    {"DeleteIpNetEntry", {ERROR_NOT_FOUND}},
    {"DeleteService", {ERROR_SERVICE_MARKED_FOR_DELETE}},
    {"DeviceIoControl", {ERROR_GEN_FAILURE}},
    {"FindClose", {ERROR_INVALID_HANDLE}},
    {"FindFirstFileW", {ERROR_FILE_NOT_FOUND}},
    {"FindNextFileW", {ERROR_NO_MORE_FILES}},
    {"FreeLibrary", {ERROR_INVALID_HANDLE}},
    {"GetAdaptersInfo", {ERROR_NO_DATA, ERROR_BUFFER_OVERFLOW}},
    {"GetFileAttributesW", {ERROR_FILE_NOT_FOUND}},
    {"GetFileSizeEx", {ERROR_INVALID_HANDLE}},
    {"GetFileVersionInfoSizeW", {ERROR_RESOURCE_DATA_NOT_FOUND}},
    {"GetFileVersionInfoW", {ERROR_RESOURCE_DATA_NOT_FOUND}},
    {"GetIpNetTable", {ERROR_NO_DATA, ERROR_INSUFFICIENT_BUFFER}},
    {"GetModuleHandleW", {ERROR_MOD_NOT_FOUND}},
    {"GetProcAddress", {ERROR_PROC_NOT_FOUND}},
    {"GetSystemDirectoryW", {ERROR_NOT_ENOUGH_MEMORY}},
    {"GetVersionExW", {ERROR_INSUFFICIENT_BUFFER}},
    {"GetWindowsDirectoryW", {ERROR_NOT_ENOUGH_MEMORY}},
    {"IEnumNetCfgBindingInterface::Next", {S_FALSE}},
    {"IEnumNetCfgBindingPath::Next", {S_FALSE}},
    {"IEnumNetCfgComponent::Next", {S_FALSE}},
    {"INetCfg::Apply", {static_cast<DWORD>(NETCFG_E_NEED_REBOOT), NETCFG_S_REBOOT}},
    {"INetCfg::EnumComponents", {static_cast<DWORD>(E_OUTOFMEMORY)}},
    {"INetCfg::FindComponent", {static_cast<DWORD>(NETCFG_E_NOT_INITIALIZED), S_FALSE}},
    {"INetCfg::Initialize", {static_cast<DWORD>(NETCFG_E_IN_USE)}},
    {"INetCfg::QueryInterface", {static_cast<DWORD>(E_NOINTERFACE)}},
    {"INetCfg::QueryNetCfgClass", {static_cast<DWORD>(E_NOINTERFACE)}},
    {"INetCfg::Uninitialize", {static_cast<DWORD>(NETCFG_E_NOT_INITIALIZED)}},
    {"INetCfgBindingInterface::GetUpperComponent", {static_cast<DWORD>(E_OUTOFMEMORY)}},
    {"INetCfgBindingPath::Enable", {static_cast<DWORD>(NETCFG_E_NO_WRITE_LOCK), NETCFG_S_REBOOT}},
    {"INetCfgBindingPath::EnumBindingInterfaces", {static_cast<DWORD>(E_OUTOFMEMORY)}},
    {"INetCfgBindingPath::IsEnabled", {S_FALSE}},
    {"INetCfgClass::QueryInterface", {static_cast<DWORD>(E_NOINTERFACE)}},
    {"INetCfgClassSetup::DeInstall", {static_cast<DWORD>(NETCFG_E_ACTIVE_RAS_CONNECTIONS), NETCFG_S_REBOOT}},
    {"INetCfgClassSetup::Install",
     {static_cast<DWORD>(HRESULT_FROM_WIN32(ERROR_SERVICE_MARKED_FOR_DELETE)), NETCFG_S_REBOOT}},
    {"INetCfgComponent::GetBindName", {static_cast<DWORD>(E_OUTOFMEMORY)}},
    {"INetCfgComponent::GetCharacteristics", {static_cast<DWORD>(NETCFG_E_COMPONENT_REMOVED_PENDING_REBOOT)}},
    {"INetCfgComponent::GetClassGuid", {static_cast<DWORD>(NETCFG_E_COMPONENT_REMOVED_PENDING_REBOOT)}},
    {"INetCfgComponent::GetDeviceStatus", {static_cast<DWORD>(NETCFG_E_ADAPTER_NOT_FOUND)}},
    {"INetCfgComponent::GetDisplayName", {static_cast<DWORD>(E_OUTOFMEMORY)}},
    {"INetCfgComponent::GetId", {static_cast<DWORD>(E_OUTOFMEMORY)}},
    {"INetCfgComponent::GetPnpDevNodeId", {static_cast<DWORD>(E_OUTOFMEMORY)}},
    {"INetCfgComponent::QueryInterface", {static_cast<DWORD>(E_NOINTERFACE)}},
    {"INetCfgComponentBindings::EnumBindingPaths", {static_cast<DWORD>(E_OUTOFMEMORY)}},
    {"INetCfgComponentBindings::IsBoundTo", {S_FALSE}},
    {"INetCfgLock::AcquireWriteLock", {static_cast<DWORD>(RPC_E_DISCONNECTED), S_FALSE}},
    {"INetCfgLock::ReleaseWriteLock", {static_cast<DWORD>(NETCFG_E_NO_WRITE_LOCK)}},
    {"LoadLibraryW", {ERROR_MOD_NOT_FOUND}},
    {"LookupPrivilegeValueW", {ERROR_NO_SUCH_PRIVILEGE}},
    {"MapViewOfFile", {ERROR_NOT_ENOUGH_MEMORY}},
    {"MoveFileExW", {ERROR_FILE_NOT_FOUND}},
    {"NtDeleteKey", {0xC0000121}},  // STATUS_CANNOT_DELETE
    {"OpenProcessToken", {ERROR_NO_TOKEN}},
    {"OpenSCManagerW", {RPC_S_SERVER_UNAVAILABLE}},
    {"OpenServiceW", {ERROR_SERVICE_DOES_NOT_EXIST}},
    {"QueryServiceStatus", {ERROR_INVALID_HANDLE}},
    {"RegCloseKey", {ERROR_INVALID_HANDLE}},
    {"RegEnumKeyExW", {ERROR_NO_MORE_ITEMS}},
    {"RegOpenKeyExW", {ERROR_FILE_NOT_FOUND}},
    {"RegQueryValueExW", {ERROR_FILE_NOT_FOUND}},
    {"RegSetValueExW", {ERROR_KEY_DELETED}},
    {"SHGetFolderPathW", {static_cast<DWORD>(HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND))}},
    {"SendARP", {ERROR_BAD_NET_NAME}},
    {"SetEntriesInAclW", {ERROR_INVALID_PARAMETER}},
    {"SetFileAttributesW", {ERROR_FILE_NOT_FOUND}},
    {"SetNamedSecurityInfoW", {ERROR_FILE_NOT_FOUND}},
    {"SetupCopyOEMInfW", {0xE0000247, ERROR_SUCCESS}},
    {"SetupDiCallClassInstaller", {ERROR_DI_DO_DEFAULT}},
    {"SetupDiDestroyDeviceInfoList", {ERROR_INVALID_HANDLE}},
    {"SetupDiEnumDeviceInfo", {ERROR_NO_MORE_ITEMS}},
    {"SetupDiGetClassDevsW", {ERROR_INVALID_CLASS}},
    {"SetupDiGetDeviceInstanceIdW", {ERROR_INSUFFICIENT_BUFFER}},
    {"SetupDiGetDeviceRegistryPropertyW", {ERROR_INVALID_DATA}},
    {"SetupDiSetClassInstallParamsW", {ERROR_INVALID_PARAMETER}},
    {"SetupUninstallOEMInfW", {ERROR_FILE_NOT_FOUND}},
    {"StartServiceW", {ERROR_SERVICE_ALREADY_RUNNING}},
    {"UnmapViewOfFile", {ERROR_INVALID_ADDRESS}},
    {"VerQueryValueW", {ERROR_RESOURCE_TYPE_NOT_FOUND}},
    {"VerifyVersionInfoW", {ERROR_OLD_WIN_VERSION}},
    {"_beginthreadex", {EAGAIN}},
};

DWORD AccessDenied(const std::string &function) {
    static const std::set<std::string> answerResult{"CoCreateInstance", "CoInitializeEx", "SHGetFolderPathW"};
    const bool isMethod = function.find("::") != function.npos;
    return isMethod || answerResult.count(function) != 0 ? static_cast<DWORD>(E_ACCESSDENIED) : ERROR_ACCESS_DENIED;
}

}  // namespace

std::vector<DWORD> FaultCodesOf(const std::string &function) {
    std::vector<DWORD> codes = kLikelyCodes.at(function);
    codes.insert(codes.begin(), AccessDenied(function));
    return codes;
}

bool NeverFails(const std::string &function) {
    static const std::set<std::string> functions{"CoTaskMemFree", "CoUninitialize",      "FreeSid",
                                                 "IsTextUnicode", "InstallHinfSectionW", "_Z14wxGetOsVersionPiS_S_"};
    return functions.count(function) != 0;
}

bool HasNoOrder(const std::string &function) {
    static const std::set<std::string> functions{
        "GetSystemTimeAsFileTime", "GetTickCount", "GetTickCount64", "LocalFree", "Sleep", "WaitForSingleObject"};
    return functions.count(function) != 0;
}
