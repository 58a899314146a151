#include "SetupLibrary.h"

#include <cstdint>
#include <cwchar>
#include <filesystem>
#include <system_error>

#include "FunctionSet.h"
#include "ImportTable.h"
#include "ModuleImage.h"
#include "SystemFolders.h"
#include "WindowsFunctions.h"

namespace Simulator {

namespace {

SIMULATOR_FUNCTION(GetProcAddress, "KERNEL32.dll", ReturnsZero);

void RemoveFile(const std::filesystem::path &file) {
    SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_NORMAL);
    std::error_code ignored;
    std::filesystem::remove(file, ignored);
}

DWORD Uninstall(const SetupLibrary &setup, const SystemFolders *folders, const wchar_t *name, void *reserved) {
    if (setup.uninstallError != ERROR_SUCCESS)
        return setup.uninstallError;
    if (name == nullptr || reserved != nullptr || std::wcspbrk(name, L"\\/:") != nullptr)
        return ERROR_INVALID_PARAMETER;
    if (_wcsnicmp(name, L"oem", 3) != 0)
        return ERROR_NOT_AN_INSTALLED_OEM_INF;
    std::error_code ignored;
    if (folders == nullptr || !std::filesystem::is_regular_file(folders->Inf() / name, ignored))
        return ERROR_FILE_NOT_FOUND;
    RemoveFile(folders->Inf() / name);
    RemoveFile((folders->Inf() / name).replace_extension(L".pnf"));
    RemoveFile((folders->Catalogs() / name).replace_extension(L".cat"));
    return ERROR_SUCCESS;
}

bool IsSetupLibrary(HMODULE module) {
    return module != nullptr && SameLibrary(BaseName(module), System::InstallHinfSectionW::library);
}

}  // namespace

void SetupLibrary::Lack(const std::string &function) {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    m_lacking.insert(function);
}

bool SetupLibrary::Lacks(const std::string &function) const {
    const LockGuard guard(m_lock);
    return m_lacking.count(function) != 0;
}

std::vector<std::wstring> SetupLibrary::Commands() const {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    return m_commands;
}

void SetupLibrary::InstallSection(const std::wstring &command) {
    {
        const LockGuard guard(m_lock);
        m_commands.push_back(command);
    }
    if (onInstallSection)
        onInstallSection(command);
}

void InstallSetupLibrary(FunctionSet &functions, SetupLibrary &setup, const SystemFolders *folders) {
    functions.Put<System::SetupUninstallOEMInfW>(
        [&setup, folders](const auto &, const wchar_t *name, DWORD, void *reserved) -> BOOL {
            const DWORD error = Uninstall(setup, folders, name, reserved);
            if (error != ERROR_SUCCESS)
                SetLastError(error);
            return error == ERROR_SUCCESS;
        });
    functions.Put<System::InstallHinfSectionW>([&setup](const auto &, HWND, HINSTANCE, const wchar_t *command, int) {
        setup.InstallSection(command == nullptr ? L"" : command);
    });
    functions.Put<GetProcAddress>([&setup](const auto &next, HMODULE module, LPCSTR name) -> FARPROC {
        const bool byOrdinal = reinterpret_cast<std::uintptr_t>(name) < 0x10000;
        if (byOrdinal || !setup.Lacks(name) || !IsSetupLibrary(module))
            return next(module, name);
        SetLastError(ERROR_PROC_NOT_FOUND);
        return nullptr;
    });
    functions.PassThrough<System::GetModuleHandleW>();
}

}  // namespace Simulator
