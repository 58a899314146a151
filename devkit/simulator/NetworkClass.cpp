#include "NetworkClass.h"

#include <algorithm>
#include <utility>

#include "AnyCase.h"
#include "NetworkComponentObject.h"

namespace Simulator {

namespace {

bool IsValid(const OBO_TOKEN &token) {
    return token.Type == OBO_USER || token.Type == OBO_COMPONENT || token.Type == OBO_SOFTWARE;
}

/// @param gone  receives its id if this call removes it.
HRESULT CountRemoval(NetworkComponent *component, std::optional<std::wstring> &gone) {
    if (component == nullptr)
        return NETCFG_E_COMPONENT_REMOVED_PENDING_REBOOT;
    unsigned &left = component->deInstallsUntilGone;
    if (SUCCEEDED(component->deInstallResult) && left != 0) {
        --left;
        if (left == 0)
            gone = component->id;
    }
    component->goesAtBoot = component->goesAtBoot || component->deInstallResult == NETCFG_S_REBOOT;
    return component->deInstallResult;
}

/// The result of the next attempt.
HRESULT TakeResult(InstallableComponent &installable) {
    if (installable.results.empty())
        return S_OK;
    const HRESULT result = installable.results.front();
    installable.results.erase(installable.results.begin());
    return result;
}

unsigned InstallAndBind(NetworkState &state, const NetworkComponent &component) {
    if (const NetworkComponent *there = ComponentWithId(state, component.id))
        return there->key;
    for (const NetworkComponent &other : state.components) {
        if (other.adapter)
            state.bindings.Set({other.adapter->pnpDevNodeId, component.id, true});
    }
    return PutComponent(state, component);
}

/// @param key  receives that of the component, if it exists then.
HRESULT InstallIn(NetworkState &state, const std::wstring &id, const GUID &classGuid, unsigned &key) {
    const auto found = std::find_if(state.installable.begin(), state.installable.end(), [&](const auto &each) {
        return SameInAnyCase(each.component.id, id) && each.component.classGuid == classGuid;
    });
    if (found == state.installable.end())
        return HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
    const HRESULT result = TakeResult(*found);
    if (SUCCEEDED(result) && !found->leavesNothing)
        key = InstallAndBind(state, found->component);
    return result;
}

}  // namespace

NetworkClass::NetworkClass(const std::shared_ptr<Core> &core, std::shared_ptr<NetworkEngine> engine,
                           const GUID &classGuid)
    : ComObject(core, {"INetCfgClass::AddRef", "INetCfgClass::QueryInterface"}),
      m_engine(std::move(engine)),
      m_classGuid(classGuid) {}

HRESULT NetworkClass::Provide(REFIID iid, const char *function, void **object) {
    if (iid == IID_INetCfgClass || iid == IID_IUnknown)
        return ProvideThis(function, object);
    if (iid != IID_INetCfgClassSetup)
        return E_NOINTERFACE;
    const auto self = std::static_pointer_cast<NetworkClass>(shared_from_this());
    *object = std::make_shared<NetworkClassSetup>(TheCore(), m_engine, self)->Give(function);
    return S_OK;
}

HRESULT NetworkClass::FindComponent(LPCWSTR id, INetCfgComponent **component) {
    static constexpr char name[] = "INetCfgClass::FindComponent";
    ClearResult(component);
    return Call(name, [&] { return m_engine->Find(id, &m_classGuid, name, component); }, id, component);
}

HRESULT NetworkClass::EnumComponents(IEnumNetCfgComponent **components) {
    static constexpr char name[] = "INetCfgClass::EnumComponents";
    ClearResult(components);
    return Call(name, [&] { return m_engine->Enumerate(&m_classGuid, name, components); }, components);
}

NetworkClassSetup::NetworkClassSetup(const std::shared_ptr<Core> &core, std::shared_ptr<NetworkEngine> engine,
                                     std::shared_ptr<NetworkClass> ofClass)
    : ComObject(core, {"INetCfgClassSetup::AddRef", "INetCfgClassSetup::QueryInterface"}),
      m_engine(std::move(engine)),
      m_class(std::move(ofClass)) {}

HRESULT NetworkClassSetup::Provide(REFIID iid, const char *function, void **object) {
    if (iid == IID_INetCfgClassSetup)
        return ProvideThis(function, object);
    return m_class->Provide(iid, function, object);
}

HRESULT NetworkClassSetup::SelectAndInstall(HWND parent, OBO_TOKEN *token, INetCfgComponent **component) {
    ClearResult(component);
    return Call("INetCfgClassSetup::SelectAndInstall", [] { return E_NOTIMPL; }, parent, token, component);
}

HRESULT NetworkClassSetup::Install(LPCWSTR id, OBO_TOKEN *token, DWORD setupFlags, DWORD upgradeFromBuild,
                                   LPCWSTR answerFile, LPCWSTR answerSections, INetCfgComponent **component) {
    static constexpr char name[] = "INetCfgClassSetup::Install";
    ClearResult(component);
    return Call(
        name, [&] { return Put(id, token, name, component); }, id, token, setupFlags, upgradeFromBuild, answerFile,
        answerSections, component);
}

HRESULT NetworkClassSetup::Put(LPCWSTR id, const OBO_TOKEN *token, const char *function, INetCfgComponent **component) {
    if (id == nullptr)
        return E_POINTER;
    if (token != nullptr && !IsValid(*token))
        return E_INVALIDARG;
    unsigned key = 0;
    const HRESULT result =
        m_engine->WhenLocked([&](NetworkState &state) { return InstallIn(state, id, m_class->ClassGuid(), key); });
    if (key == 0)
        return result;
    m_engine->Network().Tell({NetworkMoment::What::Installed, id, {}, result == NETCFG_S_REBOOT});
    if (component != nullptr)
        *component = m_engine->GiveComponent(key, function);
    return result;
}

HRESULT NetworkClassSetup::DeInstall(INetCfgComponent *component, OBO_TOKEN *token, LPWSTR *references) {
    ClearResult(references);
    return Call("INetCfgClassSetup::DeInstall", [&] { return Remove(component, token); }, component, token, references);
}

HRESULT NetworkClassSetup::Remove(INetCfgComponent *component, const OBO_TOKEN *token) {
    const auto *ours = dynamic_cast<NetworkComponentObject *>(component);
    if (ours == nullptr)
        return E_POINTER;
    if (token != nullptr && !IsValid(*token))
        return E_INVALIDARG;
    std::optional<std::wstring> gone;
    const HRESULT result = m_engine->WhenLocked(
        [&](NetworkState &state) { return CountRemoval(ComponentWithKey(state, ours->Key()), gone); });
    if (!gone)
        return result;
    m_engine->Network().Remove(ours->Key());
    m_engine->Network().Tell({NetworkMoment::What::Removed, *gone, {}, result == NETCFG_S_REBOOT});
    return result;
}

}  // namespace Simulator
