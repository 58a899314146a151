// What the removal of the drivers sweeps up behind it: INF files, the callout's service, the key of an orphan. Only
// WindowsDriverInstaller.cpp includes this.
#pragma once

#include <memory>
#include <string>
#include <type_traits>

#include <windows.h>
#include <setupapi.h>
#include <shlobj.h>
#include <wx/file.h>
#include <wx/filename.h>

#include "DriverThreadSteps.h"
#include "InfFile.h"
#include "RegistryTree.h"
#include "ServiceControl.h"
#include "SetupLibrary.h"
#include "WindowsFirewall/WindowsFirewall.h"

// NOLINTBEGIN(misc-definitions-in-headers): the definitions are that one file's
namespace {

constexpr wchar_t kMiniportKey[] = L"SYSTEM\\CurrentControlSet\\Enum\\Root\\QBIMVTA_MP";

/// setupapi's InstallHinfSectionW, which reports nothing back.
using InstallHinfSection = void(WINAPI *)(HWND window, HINSTANCE instance, PCWSTR command, INT show);

struct CloseFind {
    void operator()(HANDLE find) const { (void)FindClose(find); }
};
using Find = std::unique_ptr<std::remove_pointer_t<HANDLE>, CloseFind>;

/// @param subfolder  appended to the shell's folder.
/// @param fallback   taken whole where the shell doesn't tell.
/// @return the shell's result.
HRESULT FindFolder(int id, const wchar_t *subfolder, const wchar_t *fallback, std::wstring &folder) {
    wchar_t path[MAX_PATH] = L"";
    const HRESULT hr = SHGetFolderPathW(nullptr, id, nullptr, SHGFP_TYPE_CURRENT, path);
    folder = SUCCEEDED(hr) ? std::wstring(path) + subfolder : fallback;
    return hr;
}

/// The folders of INF files and catalogues. compat 118: only the second look-up decides the result
HRESULT FindInfFolders(InfFolders &folders) {
    (void)FindFolder(CSIDL_WINDOWS, L"\\inf\\", L"c:\\winnt\\inf\\", folders.inf);
    return FindFolder(CSIDL_SYSTEM, L"\\CatRoot\\{F750E6C3-38EE-11D1-85E5-00C04FC295EE}\\",
                      L"c:\\winnt\\system32\\CatRoot\\{F750E6C3-38EE-11D1-85E5-00C04FC295EE}\\", folders.catalogs);
}

HRESULT CDriverUninstallerThread::RemoveOemInfFiles(UninstallOemInf uninstallOemInf) {
    StartStep(RemovingInfFiles, 300);
    InfFolders folders;
    HRESULT status = FindInfFolders(folders);
    WIN32_FIND_DATAW found = {};
    const HANDLE first = FindFirstFileW((folders.inf + L"oem*.inf").c_str(), &found);
    if (first != INVALID_HANDLE_VALUE) {
        const Find find(first);
        do {
            // None of the drivers' INF files is empty, let alone of 4 GiB and more.
            const bool canBeOurs = found.nFileSizeHigh == 0 && found.nFileSizeLow != 0;
            const std::wstring path = folders.inf + found.cFileName;
            const wchar_t *driver = canBeOurs ? DriverOfInfFile(path) : nullptr;
            if (driver == nullptr)
                continue;
            DbgPrint(L"Matched '%ls' in file '%s'. Deleting this inf+pnf+cat.", driver, path.c_str());
            (void)SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
            if (uninstallOemInf != nullptr)
                UninstallInf(uninstallOemInf, found.cFileName);
            else
                RemoveInfByHand(folders, found.cFileName, status);
        } while (FindNextFileW(find.get(), &found) != 0);
    }
    EndStep(RemovingInfFiles);
    return status;  // compat 120: a file that can't be removed is no failure
}

void CDriverUninstallerThread::UninstallInf(UninstallOemInf uninstallOemInf, const wchar_t *name) {
    if (uninstallOemInf(name, SUOI_FORCEDELETE, nullptr) != 0) {
        DbgPrint(L"SetupUninstallOEMInf('%s') succeeded", name);
    } else {
        const DWORD error = GetLastError();
        DbgPrint(L"SetupUninstallOEMInf('%s') returned %#lx", name, error);
    }
}

void CDriverUninstallerThread::RemoveInfByHand(const InfFolders &folders, const wchar_t *name, HRESULT &status) {
    RemoveWithExtension(folders.inf + name, L".pnf", status);
    RemoveWithExtension(folders.inf + name, L".inf", status);
    RemoveWithExtension(folders.catalogs + name, L".cat", status);
}

void CDriverUninstallerThread::RemoveWithExtension(std::wstring path, const wchar_t *extension, HRESULT &status) {
    const std::size_t dot = path.rfind(L'.');
    if (dot == path.npos)
        return;
    path.replace(dot, path.npos, extension);
    (void)SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
    if (DeleteFileW(path.c_str()) != 0)
        return;
    if (MoveFileExW(path.c_str(), nullptr, MOVEFILE_DELAY_UNTIL_REBOOT) != 0) {  // compat 119: also for a missing file
        status = NETCFG_S_REBOOT;
    } else {
        const DWORD error = GetLastError();
        DbgPrint(L"Unable to delete file '%s': %#lx", path.c_str(), error);
    }
}

bool CDriverUninstallerThread::UninstallWFPCallout() {
    StartStep(UninstallingWfpCalloutDriver, 300);
    bool result = UninstallWFPCalloutWithInstallHinfSection();
    // compat 121: without its INF file the service is left alone, too
    if (result && IsWfpServiceInstalled())
        result = UninstallWFPCalloutWithSC();
    EndStep(UninstallingWfpCalloutDriver);
    return result;
}

bool CDriverUninstallerThread::UninstallWFPCalloutWithInstallHinfSection() {
    return RunWfpInfSection("DefaultUninstall 128 ");
}

bool CDriverUninstallerThread::RunWfpInfSection(const wxString &commandStart) {
    const wxString folder = wxFileName(wfpDriverDir, wxPATH_NATIVE).GetPath(wxPATH_GET_VOLUME);
    const wxString path = folder + "\\" + "netqbimwfp.inf";
    if (!wxFile::Exists(path)) {
        wxLogError("WFP callout INF file doesn't exist: %s", path);
        return false;
    }
    const wxString command = commandStart + path;
    wxLogVerbose("InstallHinfSectionW: executing, cmd = %s.", command);
    const SetupLibrary setup;
    InstallHinfSection installHinfSection = nullptr;
    setup.Find("InstallHinfSectionW", installHinfSection);
    DbgPrint(L"InstallHinfSectionW() is at address 0x%p", reinterpret_cast<void *>(installHinfSection));
    if (installHinfSection == nullptr)
        return false;
    installHinfSection(nullptr, nullptr, command.wc_str(), 0);
    return true;
}

bool CDriverUninstallerThread::UninstallWFPCalloutWithSC() {
    return DeleteWfpService();
}

void CDriverUninstallerThread::cleanup_registry() {
    DbgPrint(L"cleanup_registry: Scanning for registry key %s", kMiniportKey);
    HKEY key = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kMiniportKey, 0, KEY_READ, &key) != ERROR_SUCCESS) {
        DbgPrint(L"    cleanup_registry: no matches found");
        return;
    }
    (void)RegCloseKey(key);
    DbgPrint(L"cleanup_registry: Found %s key", kMiniportKey);
    std::wstring path = std::wstring(L"MACHINE\\") + kMiniportKey;
    TakeOwnership([this](const wxString &line) { DbgPrint(L"%s", Wide(line)); }, path.data());
    path = kMiniportKey;
    if (DeleteRegistryTree(path) == 0)                           // compat 124: even without ownership
        DbgPrint(L"    cleanup_registry: successfuly deleted");  // compat 123: misspelt
    else
        DbgPrint(L"    cleanup_registry: failed to delete");
}

}  // namespace
// NOLINTEND(misc-definitions-in-headers)
