#include <functional>

#include <windows.h>
#include <oleauto.h>

#include "FirewallTrace.h"
#include "WindowsFirewall.h"
#include "WindowsFirewallInitialize.h"
#include "common/RequireObject.h"
#include "common/Unique.h"

namespace WindowsFirewall {

namespace {

using ComText = Unique<BSTR, SysFreeString>;

/// compat 141: an empty text counts as one that there was no memory for
HRESULT MakeApplicationText(const wchar_t *text, ComText &made, const TraceLine &line) {
    made.reset(SysAllocString(text));
    const HRESULT hr = SysStringLen(made.get()) == 0 ? E_OUTOFMEMORY : S_OK;
    return TraceIfFailed(hr, "SysAllocString failed: 0x%08lx", line);
}

HRESULT GetAuthorizedApplications(INetFwProfile *profile, ComPtr<INetFwAuthorizedApplications> &applications,
                                  const TraceLine &line) {
    const HRESULT hr = profile->get_AuthorizedApplications(&applications);
    return TraceIfFailed(RequireObject(hr, applications), "get_AuthorizedApplications failed: 0x%08lx", line);
}

HRESULT WindowsFirewallAppIsEnabled(INetFwProfile *profile, const wchar_t *path, unsigned *enabled) {
    const TraceSite site(kFirewallTrace);
    *enabled = 0;
    ComPtr<INetFwAuthorizedApplications> applications;
    HRESULT hr = GetAuthorizedApplications(profile, applications, site);
    if (FAILED(hr))
        return hr;
    ComPtr<INetFwAuthorizedApplication> application;
    ComText name;
    hr = MakeApplicationText(path, name, site);
    if (FAILED(hr))
        return hr;
    if (FAILED(applications->Item(name.get(), &application)) || !application)
        return S_OK;  // not listed
    VARIANT_BOOL isEnabled = VARIANT_FALSE;
    hr = application->get_Enabled(&isEnabled);
    hr = TraceIfFailed(hr, "get_Enabled failed: 0x%08lx", site);
    // compat 142: only VARIANT_TRUE counts as enabled, while any non-zero profile switch is on
    if (SUCCEEDED(hr) && isEnabled == VARIANT_TRUE)
        *enabled = 1;
    return hr;
}

/// Fills a new entry and puts it on the list. An entry that is there already is written again.
HRESULT AddAuthorizedApplication(INetFwAuthorizedApplications *applications, const wchar_t *path,
                                 const wchar_t *displayName, const TraceSite &site) {
    ComPtr<INetFwAuthorizedApplication> application;
    HRESULT hr = CoCreateInstance(__uuidof(NetFwAuthorizedApplication), nullptr, CLSCTX_INPROC_SERVER,
                                  IID_PPV_ARGS(&application));
    hr = TraceIfFailed(RequireObject(hr, application), "CoCreateInstance failed: 0x%08lx", site);
    if (FAILED(hr))
        return hr;
    ComText file;
    ComText name;
    hr = MakeApplicationText(path, file, site);
    if (FAILED(hr))
        return hr;
    hr = application->put_ProcessImageFileName(file.get());
    if (FAILED(TraceIfFailed(hr, "put_ProcessImageFileName failed: 0x%08lx", site)))
        return hr;
    hr = MakeApplicationText(displayName, name, site);
    if (FAILED(hr))
        return hr;
    hr = application->put_Name(name.get());
    if (FAILED(TraceIfFailed(hr, "put_Name failed: 0x%08lx", site)))
        return hr;
    hr = applications->Add(application.Get());
    if (SUCCEEDED(TraceIfFailed(hr, "Add failed: 0x%08lx", site)))
        Trace(site, "Authorized application %ls is now enabled in the firewall.", path);
    return hr;
}

HRESULT DoWindowsFirewallAddApp(INetFwProfile *profile, const wchar_t *path, const wchar_t *displayName) {
    const TraceSite site(kFirewallTrace);
    unsigned enabled = 0;
    HRESULT hr = WindowsFirewallAppIsEnabled(profile, path, &enabled);
    if (FAILED(TraceIfFailed(hr, "WindowsFirewallAppIsEnabled failed: 0x%08lx", site)))
        return hr;
    if (enabled != 0)
        return S_OK;
    ComPtr<INetFwAuthorizedApplications> applications;
    hr = GetAuthorizedApplications(profile, applications, site);
    return FAILED(hr) ? hr : AddAuthorizedApplication(applications.Get(), path, displayName, site);
}

HRESULT DoWindowsFirewallRemoveApp(INetFwProfile *profile, const wchar_t *path) {
    const TraceSite site(kFirewallTrace);
    ComPtr<INetFwAuthorizedApplications> applications;
    ComText name;
    HRESULT hr = GetAuthorizedApplications(profile, applications, site);
    if (SUCCEEDED(hr))
        hr = MakeApplicationText(path, name, site);
    if (FAILED(hr))
        return hr;
    hr = applications->Remove(name.get());
    return TraceIfFailed(hr, "Remove failed: 0x%08lx", site);
}

/// Does the work on the current profile, with COM around it.
bool DoWithApplicationsOfProfile(const std::function<HRESULT(INetFwProfile *)> &work, const TraceSite &site) {
    if (!InitializeFirewallCom(site))
        return false;
    {
        ComPtr<INetFwPolicy2> policy;
        ComPtr<INetFwProfile> profile;
        HRESULT hr = WindowsFirewallInitialize(&profile, &policy);
        if (SUCCEEDED(TraceIfFailed(hr, "WindowsFirewallInitialize failed: 0x%08lx", site)))
            hr = TraceIfFailed(work(profile.Get()), "WindowsFirewallAddApp failed: 0x%08lx", site);
        if (SUCCEEDED(hr)) {
            // compat 139: both stay with the thread after a success, and so does COM
            (void)profile.Detach();
            (void)policy.Detach();
            return true;
        }
    }
    CoUninitialize();
    return false;
}

wxString FirewallApplicationText(const char *text) {
    return text == nullptr ? wxString() : wxString::FromUTF8(text);
}

}  // namespace

bool WindowsFirewallAddApp(const char *path, const char *displayName) {
    const TraceSite site(kFirewallTrace);
    const wxString file = FirewallApplicationText(path);
    const wxString name = FirewallApplicationText(displayName);
    Trace(site, "WindowsFirewallAddApp called with path = %s displayName = %s", file, name);
    return DoWithApplicationsOfProfile(
        [&](INetFwProfile *profile) { return DoWindowsFirewallAddApp(profile, file.wc_str(), name.wc_str()); }, site);
}

bool WindowsFirewallRemoveApp(const char *path) {
    const TraceSite site(kFirewallTrace);
    const wxString file = FirewallApplicationText(path);
    Trace(site, "WindowsFirewallRemoveApp called with path = %s", file);
    // compat 140: logs a failure under the add's name
    return DoWithApplicationsOfProfile(
        [&](INetFwProfile *profile) { return DoWindowsFirewallRemoveApp(profile, file.wc_str()); }, site);
}

}  // namespace WindowsFirewall
