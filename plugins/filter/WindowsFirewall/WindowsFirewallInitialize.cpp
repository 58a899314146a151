#include "WindowsFirewallInitialize.h"

#include "FirewallTrace.h"
#include "FirewallVersionRecord.h"
#include "common/RequireObject.h"

namespace WindowsFirewall {

bool InitializeFirewallCom(const TraceLine &line) {
    const HRESULT hr = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED | COINIT_DISABLE_OLE1DDE);
    if (SUCCEEDED(hr) || hr == RPC_E_CHANGED_MODE)
        return true;
    Trace(line, "CoInitializeEx failed: 0x%08lx", static_cast<unsigned long>(hr));
    return false;
}

HRESULT WindowsFirewallInitialize(INetFwProfile **profile, INetFwPolicy2 **policy) {
    const TraceSite site(kFirewallTrace);
    *profile = nullptr;
    *policy = nullptr;
    if (IsRecordedVersionVistaOrLater()) {
        ComPtr<INetFwPolicy2> made;
        HRESULT hr = CoCreateInstance(__uuidof(NetFwPolicy2), nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&made));
        hr = TraceIfFailed(RequireObject(hr, made), "CoCreateInstance(NetFwPolicy2) failed: 0x%08lx", site);
        if (FAILED(hr))
            return hr;
        *policy = made.Detach();
    }
    // compat 158: needs the legacy manager on new systems, too
    ComPtr<INetFwMgr> manager;
    HRESULT hr = CoCreateInstance(__uuidof(NetFwMgr), nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&manager));
    hr = TraceIfFailed(RequireObject(hr, manager), "CoCreateInstance(NetFwMgr) failed: 0x%08lx", site);
    if (FAILED(hr))
        return hr;
    ComPtr<INetFwPolicy> localPolicy;
    hr = manager->get_LocalPolicy(&localPolicy);
    hr = TraceIfFailed(RequireObject(hr, localPolicy), "get_LocalPolicy failed: 0x%08lx", site);
    if (FAILED(hr))
        return hr;
    ComPtr<INetFwProfile> current;
    hr = localPolicy->get_CurrentProfile(&current);
    hr = TraceIfFailed(RequireObject(hr, current), "get_CurrentProfile failed: 0x%08lx", site);
    *profile = current.Detach();
    return hr;
}

}  // namespace WindowsFirewall
