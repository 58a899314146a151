// The installation of the filter driver from its INF files, which are copied. Compiled as a part of
// WindowsDriverInstaller.cpp.
#include "CDriverInstallerThread.h"

#include <array>
#include <string>

#include <windows.h>
#include <setupapi.h>
#include <wx/file.h>

#include "WindowsDriverInstaller/reports/AgentEventLog.h"

namespace {

/// The support article on drivers whose signature Windows does not accept.
constexpr wchar_t kSigningArticle[] = L"https://support.quillon.example/articles/signed-drivers";
/// SetupCopyOEMInf's error for such a driver.
constexpr unsigned long kDriverNotSigned = 0x800F0247;
/// The filter driver's INF files. compat 80: the predecessor's two at the end are never copied
constexpr std::array<const wchar_t *, 5> kInfFiles{L"netqbimvta.inf", L"netqbimvtam.inf", L"netqbimvtap.inf",
                                                   L"netrxwim.inf", L"netrxwip.inf"};
constexpr std::size_t kCopiedInfFiles = 3;

HRESULT CDriverInstallerThread::CopyInfFiles(const wchar_t *directory) {
    StartStep(CopyingInfFiles);
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
            hr = ReportInfCopyFailure(inf, error);
            NoteFailedStep();
            break;
        }
        DbgPrint(L"%ls -> %s", inf, destination);
    }
    EndStep(CopyingInfFiles);
    return hr;
}

/// @return the error as a result. compat 82: an error of 0 stays a success
HRESULT CDriverInstallerThread::ReportInfCopyFailure(const wchar_t *inf, unsigned long error) {
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

HRESULT CDriverInstallerThread::InstallFromInf(const wchar_t *directory) {
    DbgPrint(L"Trying to install '%ls'...", kFilterComponent);
    if (directory == nullptr || *directory == L'\0') {
        NoteFailedStep();
        return E_INVALIDARG;
    }
    HRESULT hr = CopyInfFiles(directory);
    if (hr != S_OK)
        return hr;
    {
        const NetCfgSession netCfg(*this, NetCfgSession::Access::Write);
        hr = netCfg.Result();
        if (SUCCEEDED(hr)) {
            const HRESULT installed = InstallComponentOnThisSystem(netCfg.Get(), directory);
            hr = installed;
            if (SUCCEEDED(installed))
                hr = CallInStep(ApplyingInetCfgChanges, L"INetCfg::Apply", [&netCfg] { return netCfg.Get()->Apply(); });
            if (hr == S_OK && installed == NETCFG_S_REBOOT)
                hr = installed;  // the reboot request is kept even if Apply succeeds
        }
    }
    if (FAILED(hr))
        NoteFailedStep();
    return hr;
}

}  // namespace
