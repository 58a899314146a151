#include "FirewallApplicationObjects.h"

#include <optional>
#include <utility>

namespace Simulator {

FirewallApplicationObject::FirewallApplicationObject(const std::shared_ptr<Core> &core, FirewallApplication values)
    : AutomationObject(core, "INetFwAuthorizedApplication",
                       {"INetFwAuthorizedApplication::AddRef", "INetFwAuthorizedApplication::QueryInterface"}),
      m_values(std::move(values)) {}

FirewallApplication FirewallApplicationObject::Values() {
    const LockGuard guard(m_lock);
    return m_values;
}

HRESULT FirewallApplicationObject::GetText(const char *function, const std::wstring FirewallApplication::*member,
                                           BSTR *text) {
    ClearResult(text);
    return Call(
        function,
        [&] {
            if (text == nullptr)
                return E_POINTER;
            *text = MakeBstr(Values().*member, function);
            return *text == nullptr ? E_OUTOFMEMORY : S_OK;
        },
        text);
}

HRESULT FirewallApplicationObject::PutText(const char *function, std::wstring FirewallApplication::*member,
                                           const wchar_t *text) {
    return Call(
        function,
        [&] {
            if (text == nullptr || *text == L'\0')
                return E_INVALIDARG;
            const LockGuard guard(m_lock);
            m_values.*member = text;
            return S_OK;
        },
        text);
}

HRESULT FirewallApplicationObject::get_Name(BSTR *name) {
    return GetText("INetFwAuthorizedApplication::get_Name", &FirewallApplication::name, name);
}

HRESULT FirewallApplicationObject::put_Name(BSTR name) {
    return PutText("INetFwAuthorizedApplication::put_Name", &FirewallApplication::name, name);
}

HRESULT FirewallApplicationObject::get_ProcessImageFileName(BSTR *imageFileName) {
    return GetText("INetFwAuthorizedApplication::get_ProcessImageFileName", &FirewallApplication::path, imageFileName);
}

HRESULT FirewallApplicationObject::put_ProcessImageFileName(BSTR imageFileName) {
    return PutText("INetFwAuthorizedApplication::put_ProcessImageFileName", &FirewallApplication::path, imageFileName);
}

HRESULT FirewallApplicationObject::get_Enabled(VARIANT_BOOL *enabled) {
    return Call(
        "INetFwAuthorizedApplication::get_Enabled",
        [&] {
            if (enabled == nullptr)
                return E_POINTER;
            *enabled = Values().enabled;
            return S_OK;
        },
        enabled);
}

HRESULT FirewallApplicationObject::put_Enabled(VARIANT_BOOL enabled) {
    return Call(
        "INetFwAuthorizedApplication::put_Enabled",
        [&] {
            const LockGuard guard(m_lock);
            m_values.enabled = enabled;
            return S_OK;
        },
        enabled);
}

FirewallApplicationList::FirewallApplicationList(const std::shared_ptr<Core> &core, std::shared_ptr<Firewall> firewall)
    : AutomationObject(core, "INetFwAuthorizedApplications",
                       {"INetFwAuthorizedApplications::AddRef", "INetFwAuthorizedApplications::QueryInterface"}),
      m_firewall(std::move(firewall)) {}

HRESULT FirewallApplicationList::get_Count(LONG *count) {
    return Call(
        "INetFwAuthorizedApplications::get_Count",
        [&] {
            if (count == nullptr)
                return E_POINTER;
            *count = static_cast<LONG>(m_firewall->Read().applications.size());
            return S_OK;
        },
        count);
}

HRESULT FirewallApplicationList::Add(INetFwAuthorizedApplication *app) {
    return Call(
        "INetFwAuthorizedApplications::Add",
        [&] {
            auto *ours = dynamic_cast<FirewallApplicationObject *>(app);
            const FirewallApplication added = ours == nullptr ? FirewallApplication{} : ours->Values();
            if (added.path.empty())
                return E_INVALIDARG;
            m_firewall->Use([&](FirewallState &state) {
                FirewallApplication *listed = ApplicationWithPath(state, added.path);
                if (listed != nullptr)
                    *listed = added;
                else
                    state.applications.push_back(added);
            });
            return S_OK;
        },
        app);
}

HRESULT FirewallApplicationList::Remove(BSTR imageFileName) {
    const wchar_t *const path = imageFileName;
    return Call(
        "INetFwAuthorizedApplications::Remove",
        [&] {
            return m_firewall->Use([&](FirewallState &state) -> HRESULT {
                if (path == nullptr || *path == L'\0')
                    return E_INVALIDARG;
                const FirewallApplication *listed = ApplicationWithPath(state, path);
                if (listed == nullptr)
                    return state.removeMissingResult;
                state.applications.erase(state.applications.begin() + (listed - state.applications.data()));
                return S_OK;
            });
        },
        path);
}

HRESULT FirewallApplicationList::Item(BSTR imageFileName, INetFwAuthorizedApplication **app) {
    static constexpr char name[] = "INetFwAuthorizedApplications::Item";
    const wchar_t *const path = imageFileName;
    ClearResult(app);
    return Call(
        name,
        [&]() -> HRESULT {
            if (app == nullptr)
                return E_POINTER;
            if (path == nullptr || *path == L'\0')
                return E_INVALIDARG;
            const auto found = m_firewall->Use([&](FirewallState &state) {
                const FirewallApplication *listed = ApplicationWithPath(state, path);
                return listed == nullptr ? std::nullopt : std::optional(*listed);
            });
            if (!found)
                return HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
            *app = std::make_shared<FirewallApplicationObject>(TheCore(), *found)->Give(name);
            return S_OK;
        },
        path, app);
}

}  // namespace Simulator
