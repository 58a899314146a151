// The installation of the filter driver's network component. Compiled as a part of WindowsDriverInstaller.cpp.
#include "CDriverInstallerThread.h"

#include <string>

#include <windows.h>
#include <netcfgn.h>
#include <wx/log.h>

#include "NetCfgSession.h"
#include "WindowsDriverInstaller/adapters/DeviceClasses.h"
#include "WindowsDriverInstaller/reports/AgentEventLog.h"
#include "common/RequireObject.h"
#include "common/WindowsVersion.h"

namespace {

constexpr int kMaxInstallAttempts = 3;
/// Gives others time to close the old service.
constexpr unsigned long kMarkedForDeletePauseMs = 5'000;

HRESULT CDriverInstallerThread::InstallComponentOnThisSystem(INetCfg *netCfg, const wchar_t *directory) {
    OSVERSIONINFOEXW version = {};
    const bool isEmbedded = QueryWindowsVersion(version) && (version.wSuiteMask & VER_SUITE_EMBEDDEDNT) != 0;
    return isEmbedded ? InstallComponentOnEmbeddedSystem(netCfg, directory) : InstallFilterComponent(netCfg);
}

/// Such a system searches its own folder for the driver. A failed copy does not change the outcome.
HRESULT CDriverInstallerThread::InstallComponentOnEmbeddedSystem(INetCfg *netCfg, const wchar_t *directory) {
    wchar_t windows[MAX_PATH] = L"";
    if (GetWindowsDirectoryW(windows, MAX_PATH) == 0) {
        const DWORD error = GetLastError();
        AgentEventLog_(*dom, error, kSystemFailureEvent, L"GetWindowsDirectory()");
        return InstallFilterComponent(netCfg);
    }
    const std::wstring source = std::wstring(directory) + L"qbimvta.sys";
    const std::wstring destination = std::wstring(windows) + L"\\qbimvta.sys";
    DbgPrint(L"Copying '%s.sys' to '%s'", kFilterComponent, destination.c_str());
    if (CopyFileW(source.c_str(), destination.c_str(), FALSE) == 0) {
        const DWORD error = GetLastError();
        AgentEventLog_(*dom, error, kSystemFailureEvent, L"CopyFile('%s', '%s')", source.c_str(), destination.c_str());
    }
    const HRESULT hr = InstallFilterComponent(netCfg);
    // compat 83: deletes a file that was there before, too
    DbgPrint(L"Deleting '%s'", destination.c_str());
    if (DeleteFileW(destination.c_str()) == 0) {
        const DWORD error = GetLastError();
        AgentEventLog_(*dom, error, kSystemFailureEvent, L"DeleteFile('%s')", destination.c_str());
    }
    return hr;
}

HRESULT CDriverInstallerThread::InstallFilterComponent(INetCfg *netCfg) {
    StartStep(GettingINetCfgClassSetup);
    ComPtr<INetCfgClassSetup> classSetup;
    HRESULT hr = netCfg->QueryNetCfgClass(&GUID_DEVCLASS_NETSERVICE, IID_INetCfgClassSetup, &classSetup);
    hr = RequireObject(hr, classSetup);
    if (FAILED(hr))
        NoteFailedStep();
    EndStep(GettingINetCfgClassSetup);
    if (FAILED(hr)) {
        const wxString guid = VtaCore::toString(GUID_DEVCLASS_NETSERVICE);
        AgentEventLog_(*dom, static_cast<unsigned long>(hr), kSystemFailureEvent, L"INetCfg::QueryNetCfgClass(%s)",
                       static_cast<const wchar_t *>(guid.wc_str()));
        return hr;
    }
    const auto isMarkedForDelete = [&hr] { return HRESULT_CODE(hr) == ERROR_SERVICE_MARKED_FOR_DELETE; };
    for (int attempt = 1; attempt <= kMaxInstallAttempts; ++attempt) {
        hr = AttemptInstall(classSetup.Get(), attempt);
        if (hr == S_OK)
            return hr;
        if (attempt == 1)  // compat 85: reports only the first failure
            AgentEventLog_(*dom, static_cast<unsigned long>(hr), kSystemFailureEvent, L"INetCfgClassSetup::Install()");
        if (isMarkedForDelete())  // compat 86: also after the last attempt
            wxThread::Sleep(kMarkedForDeletePauseMs);
    }
    if (isMarkedForDelete())
        rebootRequired = true;
    return hr;
}

/// compat 84: only S_OK ends the attempts; a reboot request counts as a failed attempt
HRESULT CDriverInstallerThread::AttemptInstall(INetCfgClassSetup *classSetup, int attempt) {
    OBO_TOKEN token = {};
    token.Type = OBO_USER;
    DbgPrint(L"Attempt #%d at installing %ls", attempt, kFilterComponent);
    StartStep(InstallingDriver);
    ComPtr<INetCfgComponent> component;
    const HRESULT hr =
        classSetup->Install(kFilterComponent, &token, NSF_POSTSYSINSTALL, 0, nullptr, nullptr, &component);
    if (FAILED(hr) && attempt == kMaxInstallAttempts)
        NoteFailedStep();
    EndStep(InstallingDriver);
    return hr;
}

}  // namespace
