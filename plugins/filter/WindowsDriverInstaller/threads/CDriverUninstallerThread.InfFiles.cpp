// The removal of the INF files that the system has copied. Compiled as a part of WindowsDriverInstaller.cpp.
#include "CDriverUninstallerThread.h"

#include <string>

#include <windows.h>
#include <setupapi.h>

#include "WindowsDriverInstaller/cleanup/InfFile.h"
#include "WindowsDriverInstaller/cleanup/InfFolders.h"
#include "common/Unique.h"

namespace {

/// A search for files.
using UniqueSearch = Unique<HANDLE, FindClose>;

HRESULT CDriverUninstallerThread::RemoveOemInfFiles(UninstallOemInf uninstallOemInf) {
    StartStep(RemovingInfFiles);
    InfFolders folders;
    const HRESULT status = FindInfFolders(folders);
    bool isLeftToBoot = false;
    WIN32_FIND_DATAW found = {};
    UniqueSearch search(UniqueHandleOrNull(FindFirstFileW((folders.inf + L"oem*.inf").c_str(), &found)));
    if (search) {
        do {
            // None of the drivers' INF files is empty, or 4 GiB or more.
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
                isLeftToBoot = RemoveInfByHand(folders, found.cFileName) || isLeftToBoot;
        } while (FindNextFileW(search.get(), &found) != 0);
    }
    // not reached: clang counts nothing after a block with a continue
    search.reset();  // in the step, whose limit is for this call, too
    EndStep(RemovingInfFiles);
    return isLeftToBoot ? NETCFG_S_REBOOT : status;  // compat 120: a file that can't be removed is no failure
}

void CDriverUninstallerThread::UninstallInf(UninstallOemInf uninstallOemInf, const wchar_t *name) {
    if (uninstallOemInf(name, SUOI_FORCEDELETE, nullptr) != 0) {
        DbgPrint(L"SetupUninstallOEMInf('%s') succeeded", name);
    } else {
        const DWORD error = GetLastError();
        DbgPrint(L"SetupUninstallOEMInf('%s') returned %#lx", name, error);
    }
}

/// @return whether one of its files is left to the next boot.
bool CDriverUninstallerThread::RemoveInfByHand(const InfFolders &folders, const wchar_t *name) {
    const bool isCompiledLeft = RemoveInfWithExtension(folders.inf + name, L".pnf");
    const bool isSourceLeft = RemoveInfWithExtension(folders.inf + name, L".inf");
    const bool isCatalogLeft = RemoveInfWithExtension(folders.catalogs + name, L".cat");
    return isCompiledLeft || isSourceLeft || isCatalogLeft;
}

/// @return whether the file is left to the next boot.
bool CDriverUninstallerThread::RemoveInfWithExtension(std::wstring path, const wchar_t *extension) {
    const std::size_t dot = path.rfind(L'.');
    // not reached: the search was for oem*.inf, so the name has a dot
    if (dot == path.npos)
        return false;
    path.replace(dot, path.npos, extension);
    (void)SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
    if (DeleteFileW(path.c_str()) != 0)
        return false;
    if (MoveFileExW(path.c_str(), nullptr, MOVEFILE_DELAY_UNTIL_REBOOT) != 0)
        return true;  // compat 119: also for a missing file
    const DWORD error = GetLastError();
    DbgPrint(L"Unable to delete file '%s': %#lx", path.c_str(), error);
    return false;
}

}  // namespace
