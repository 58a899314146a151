#include "SetupLibrary.h"

#include <algorithm>
#include <cstdint>
#include <cwchar>
#include <filesystem>
#include <system_error>

#include "AnyCase.h"
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

/// The path for the next INF file.
std::filesystem::path NextInf(const SystemFolders &folders) {
    std::error_code ignored;
    for (unsigned number = 0;; ++number) {
        auto path = folders.Inf() / (L"oem" + std::to_wstring(number) + L".inf");
        if (!std::filesystem::exists(path, ignored))
            return path;
    }
}

/// What SetupCopyOEMInfW reports about the file's new path.
struct NewPath {
    wchar_t *text;
    DWORD size;
    DWORD *needed;
    wchar_t **name;
};

DWORD Tell(const std::filesystem::path &path, const NewPath &to) {
    const std::wstring text = path.wstring();
    if (to.needed != nullptr)
        *to.needed = static_cast<DWORD>(text.size() + 1);
    if (to.text == nullptr)
        return to.size == 0 ? ERROR_SUCCESS : ERROR_INVALID_PARAMETER;
    if (to.size <= text.size())
        return ERROR_INSUFFICIENT_BUFFER;
    std::wmemcpy(to.text, text.c_str(), text.size() + 1);
    if (to.name != nullptr)
        *to.name = to.text + (text.size() - path.filename().wstring().size());
    return ERROR_SUCCESS;
}

DWORD Copy(const SetupLibrary &setup, const SystemFolders *folders, const wchar_t *source, const NewPath &to) {
    if (folders == nullptr)
        return ERROR_CALL_NOT_IMPLEMENTED;
    if (source == nullptr)
        return ERROR_INVALID_PARAMETER;
    const std::filesystem::path file = folders->Mapped(source).value_or(source);
    const DWORD planned = setup.CopyError(file.filename().wstring());
    if (planned != ERROR_SUCCESS)
        return planned;
    std::error_code error;
    if (!std::filesystem::is_regular_file(file, error))
        return ERROR_FILE_NOT_FOUND;
    for (;;) {
        const std::filesystem::path path = NextInf(*folders);
        const DWORD told = Tell(path, to);
        if (told != ERROR_SUCCESS)
            return told;
        if (std::filesystem::copy_file(file, path, error))
            return ERROR_SUCCESS;
        if (error != std::errc::file_exists)  // another thread may have been faster
            return ERROR_WRITE_FAULT;
    }
}

bool IsSetupLibrary(HMODULE module) {
    return module != nullptr && SameLibrary(BaseName(module), System::InstallHinfSectionW::library);
}

}  // namespace

void SetupLibrary::FailCopy(const std::wstring &fileName, DWORD error) {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    m_copyErrors.emplace_back(fileName, error);
}

DWORD SetupLibrary::CopyError(const std::wstring &fileName) const {
    const LockGuard guard(m_lock);
    const auto last = std::find_if(m_copyErrors.rbegin(), m_copyErrors.rend(),
                                   [&](const auto &each) { return SameInAnyCase(each.first, fileName); });
    return last == m_copyErrors.rend() ? ERROR_SUCCESS : last->second;
}

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
    functions.Put<System::SetupCopyOEMInfW>([&setup, folders](const auto &, PCWSTR source, PCWSTR, DWORD, DWORD,
                                                              PWSTR path, DWORD size, DWORD *needed,
                                                              PWSTR *name) -> BOOL {
        const DWORD error = Copy(setup, folders, source, {path, size, needed, name});
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
