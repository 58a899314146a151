// The installation of the drivers, as the installer thread does it. Only WindowsDriverInstaller.cpp includes this.
#pragma once

#include <array>

#include <windows.h>
#include <netcfgn.h>
#include <setupapi.h>
#include <wx/filename.h>
#include <wx/msw/registry.h>

#include "DeviceClasses.h"
#include "DriverFilesRemoval.h"
#include "DriverInstallerThread.h"
#include "DriverRemoval.h"
#include "ServiceControl.h"

// NOLINTBEGIN(misc-definitions-in-headers): the definitions are that one file's
namespace {

constexpr char kFilterServiceKey[] = "System\\CurrentControlSet\\Services\\qbimvta";
/// Where a driver without a signature that the system accepts is explained.
constexpr wchar_t kSigningArticle[] = L"https://support.quillon.example/articles/signed-drivers";
/// SetupCopyOEMInf's answer to such a driver.
constexpr unsigned long kDriverNotSigned = 0x800F0247;
constexpr int kMaxInstallAttempts = 3;
/// The filter driver's INF files. compat 80: the predecessor's two at the end are never copied
constexpr std::array<const wchar_t *, 5> kInfFiles{L"netqbimvta.inf", L"netqbimvtam.inf", L"netqbimvtap.inf",
                                                   L"netrxwim.inf", L"netrxwip.inf"};
constexpr std::size_t kCopiedInfFiles = 3;

CDriverInstallerThread::~CDriverInstallerThread() {
    if (stepFinished == nullptr)
        return;
    (void)SetEvent(stepFinished);
    (void)CloseHandle(stepFinished);
    stepFinished = nullptr;
}

void CDriverInstallerThread::Run() {
    wxLog *const oldTarget = wxLog::SetThreadActiveTarget(logTarget);
    // compat 75: removes in every installation, twice for an upgrade; the second result counts
    succeeded = UninstallDriver();
    if (upgradeNeeded) {
        succeeded = UninstallDriver();
        if (succeeded && !rebootRequired)
            WaitForDriverToUnload();
    }
    // compat 76: a reboot request skips the installation; the removal's result stands
    if (installNeeded && succeeded && !rebootRequired) {
        succeeded = InstallDriver();
        WriteServiceValues();
    }
    (void)wxLog::SetThreadActiveTarget(oldTarget);
}

/// compat 77: waits half a minute at most; nothing follows from a driver that is still loaded then
void CDriverInstallerThread::WaitForDriverToUnload() {
    StartStep(EnsuringDriverUnloaded, 60);
    for (int pass = 0; pass < 60; ++pass) {
        wxThread::Sleep(500);
        DriverVersion version;
        if (!GetDriverVersion(*dom, version))
            break;
        DbgPrint(L"Driver version %d.%d.%d.%d is still loaded", version.major, version.minor, version.build,
                 version.revision);
    }
    EndStep(EnsuringDriverUnloaded);
}

/// What the filter driver reads at its start. compat 78: written after a failure, too; its own failure is no result
void CDriverInstallerThread::WriteServiceValues() {
    wxRegKey key(wxRegKey::HKLM, kFilterServiceKey);
    if (!key.Exists())
        return;
    const std::array<std::pair<wxString, wxString>, 2> values{
        {{"ConfigBinary", dom->GetPluginFileWx("filter", "config.bin")},
         {"EndpointRoot", dom->GetWxString("app.path.bin")}}};
    for (const auto &[name, value] : values) {
        if (!key.Open(wxRegKey::Write) || !key.SetValue(name, value))
            DbgPrint(L"Unable to write HKLM\\%s\\%s",
                     static_cast<const wchar_t *>(wxString(kFilterServiceKey).wc_str()),
                     static_cast<const wchar_t *>(name.wc_str()));
    }
}

bool CDriverInstallerThread::InstallDriver() {
    // compat 79: installs the filter driver even if the callout fails
    if (!InstallWFPCallout())
        wxLogError("InstallWFPCallout() failed.");
    else if (!StartWFPCallout(true))
        wxLogError("StartWFPCallout() failed.");
    DbgPrint(L"Checking if %ls is installed.", kFilterComponent);
    if (IsFilterComponentPresent() == S_FALSE) {
        DbgPrint(L"Checking for orphaned QBIMVTA_MP bindings");
        (void)CleanUpOrphans();
    }
    const HRESULT hr = InstallFromInf(ndisDriverDir.wc_str());
    if (hr == NETCFG_S_REBOOT)
        rebootRequired = true;
    return hr == S_OK || hr == NETCFG_S_REBOOT;
}

bool CDriverInstallerThread::InstallWFPCallout() {
    StartStep(InstallingWfpCalloutDriver, 300);
    const bool result = InstallWFPCalloutWithInstallHinfSection();
    EndStep(InstallingWfpCalloutDriver);
    return result;
}

bool CDriverInstallerThread::InstallWFPCalloutWithInstallHinfSection() {
    return RunWfpInfSection("DefaultInstall 128 ");
}

HRESULT CDriverInstallerThread::InstallFromInf(const wchar_t *directory) {
    DbgPrint(L"Trying to install '%ls'...", kFilterComponent);
    if (directory == nullptr || *directory == L'\0') {
        NoteFailedStep();
        return E_INVALIDARG;
    }
    HRESULT hr = CopyInfFiles(directory);
    if (hr != S_OK)
        return hr;
    INetCfg *netCfg = nullptr;
    hr = AcquireINetCfg(true, &netCfg);
    if (FAILED(hr)) {
        NoteFailedStep();
        return hr;
    }
    const HRESULT installed = InstallOnThisSystem(netCfg, directory);
    hr = installed;
    if (SUCCEEDED(installed)) {
        hr = CallInStep(ApplyingInetCfgChanges, 300, L"INetCfg::Apply", [netCfg] { return netCfg->Apply(); });
        if (hr == S_OK && installed == NETCFG_S_REBOOT)
            hr = installed;  // that the changes could be applied doesn't take back the wish for a reboot
    }
    (void)ReleaseINetCfg(true, netCfg);
    if (FAILED(hr))
        NoteFailedStep();
    return hr;
}

/// Copies each of the INF files that is there.
HRESULT CDriverInstallerThread::CopyInfFiles(const wchar_t *directory) {
    StartStep(CopyingInfFiles, 600);
    HRESULT hr = S_OK;
    for (std::size_t i = 0; i < kCopiedInfFiles; ++i) {
        const wchar_t *const inf = kInfFiles[i];
        const std::wstring path = std::wstring(directory) + inf;
        // compat 81: copies each file that is there and skips a missing one silently
        if (!wxFile::Exists(path))
            continue;
        wchar_t destination[MAX_PATH] = L"";
        if (SetupCopyOEMInfW(path.c_str(), nullptr, SPOST_PATH, 0, destination, MAX_PATH, nullptr, nullptr) == 0) {
            const DWORD error = GetLastError();
            hr = ReportCopyFailure(inf, error);
            NoteFailedStep();
            break;
        }
        DbgPrint(L"%ls -> %s", inf, destination);
    }
    EndStep(CopyingInfFiles);
    return hr;
}

/// @return the error as a result. compat 82: an error of 0 stays a success
HRESULT CDriverInstallerThread::ReportCopyFailure(const wchar_t *inf, unsigned long error) {
    constexpr unsigned long setupError = 0xE0000000;
    constexpr unsigned long codeBits = 0xFFFF;
    unsigned long result = error;
    if ((error & setupError) == setupError)
        result = 0x800F0000 + (error & codeBits);
    else if (static_cast<long>(error) > 0)
        result = 0x80070000 | (error & codeBits);
    if (result == kDriverNotSigned)
        AgentEventLog_(*dom, result, kSystemFailureEvent, L"SetupCopyOEMInf(%ls), please refer to: %s", inf,
                       kSigningArticle);
    else
        AgentEventLog_(*dom, result, kSystemFailureEvent, L"SetupCopyOEMInf(%ls)", inf);
    return static_cast<HRESULT>(result);
}

HRESULT CDriverInstallerThread::InstallOnThisSystem(INetCfg *netCfg, const wchar_t *directory) {
    OSVERSIONINFOEXW version = {};
    version.dwOSVersionInfoSize = sizeof(version);
    static_assert(sizeof(version) == 284);
    const bool isEmbedded = GetVersionExW(reinterpret_cast<OSVERSIONINFOW *>(&version)) != 0 &&
                            (version.wSuiteMask & VER_SUITE_EMBEDDEDNT) != 0;
    return isEmbedded ? InstallOnEmbeddedSystem(netCfg, directory) : InstallFilterComponent(netCfg);
}

/// Such a system looks for the driver in its own folder. No failure around the copy changes the outcome.
HRESULT CDriverInstallerThread::InstallOnEmbeddedSystem(INetCfg *netCfg, const wchar_t *directory) {
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
    StartStep(GettingINetCfgClassSetup, 10);
    ComPtr<INetCfgClassSetup> classSetup;
    HRESULT hr = netCfg->QueryNetCfgClass(&GUID_DEVCLASS_NETSERVICE, IID_INetCfgClassSetup, &classSetup);
    hr = Obtained(hr, classSetup);
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
            wxThread::Sleep(5'000);
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
    StartStep(InstallingDriver, 600);
    ComPtr<INetCfgComponent> component;
    const HRESULT hr =
        classSetup->Install(kFilterComponent, &token, NSF_POSTSYSINSTALL, 0, nullptr, nullptr, &component);
    if (FAILED(hr) && attempt == kMaxInstallAttempts)
        NoteFailedStep();
    EndStep(InstallingDriver);
    return hr;
}

}  // namespace
// NOLINTEND(misc-definitions-in-headers)
