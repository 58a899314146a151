// The simulated firewall's list of authorised applications, and its entries.
#pragma once

#include <memory>
#include <string>

#include <windows.h>
#include <netfw.h>

#include "AutomationObject.h"
#include "Firewall.h"

namespace Simulator {

/// A separate entry: changes of it reach no list before it is added.
class FirewallApplicationObject final : public AutomationObject<INetFwAuthorizedApplication> {
public:
    FirewallApplicationObject(const std::shared_ptr<Core> &core, FirewallApplication values);

    /// A copy; the program may change it meanwhile on another thread.
    [[nodiscard]] FirewallApplication Values();

    HRESULT STDMETHODCALLTYPE get_Name(BSTR *name) override;
    HRESULT STDMETHODCALLTYPE put_Name(BSTR name) override;
    HRESULT STDMETHODCALLTYPE get_ProcessImageFileName(BSTR *imageFileName) override;
    HRESULT STDMETHODCALLTYPE put_ProcessImageFileName(BSTR imageFileName) override;
    HRESULT STDMETHODCALLTYPE get_Enabled(VARIANT_BOOL *enabled) override;
    HRESULT STDMETHODCALLTYPE put_Enabled(VARIANT_BOOL enabled) override;

    // E_NOTIMPL
    HRESULT STDMETHODCALLTYPE get_IpVersion(NET_FW_IP_VERSION *ipVersion) override {
        return NotThere("get_IpVersion", ipVersion);
    }
    HRESULT STDMETHODCALLTYPE put_IpVersion(NET_FW_IP_VERSION ipVersion) override {
        return NotThere("put_IpVersion", ipVersion);
    }
    HRESULT STDMETHODCALLTYPE get_Scope(NET_FW_SCOPE *scope) override { return NotThere("get_Scope", scope); }
    HRESULT STDMETHODCALLTYPE put_Scope(NET_FW_SCOPE scope) override { return NotThere("put_Scope", scope); }
    HRESULT STDMETHODCALLTYPE get_RemoteAddresses(BSTR *remoteAddrs) override {
        return NotThere("get_RemoteAddresses", remoteAddrs);
    }
    HRESULT STDMETHODCALLTYPE put_RemoteAddresses(BSTR remoteAddrs) override {
        return NotThere("put_RemoteAddresses", remoteAddrs);
    }

private:
    HRESULT GetText(const char *function, const std::wstring FirewallApplication::*member, BSTR *text);
    HRESULT PutText(const char *function, std::wstring FirewallApplication::*member, const wchar_t *text);

    Lock m_lock;
    FirewallApplication m_values;
};

class FirewallApplicationList final : public AutomationObject<INetFwAuthorizedApplications> {
public:
    FirewallApplicationList(const std::shared_ptr<Core> &core, std::shared_ptr<Firewall> firewall);

    HRESULT STDMETHODCALLTYPE get_Count(LONG *count) override;
    /// Replaces the entry of that path if there is one. E_INVALIDARG for an entry without a path, and for an object
    /// that is not the simulated machine's.
    HRESULT STDMETHODCALLTYPE Add(INetFwAuthorizedApplication *app) override;
    /// Returns FirewallState's result for an unlisted application.
    HRESULT STDMETHODCALLTYPE Remove(BSTR imageFileName) override;
    /// Returns an entry with a copy of the values; the error ERROR_FILE_NOT_FOUND if there is none.
    HRESULT STDMETHODCALLTYPE Item(BSTR imageFileName, INetFwAuthorizedApplication **app) override;

    // E_NOTIMPL
    HRESULT STDMETHODCALLTYPE get__NewEnum(IUnknown **newEnum) override { return NotThere("get__NewEnum", newEnum); }

private:
    const std::shared_ptr<Firewall> m_firewall;
};

}  // namespace Simulator
