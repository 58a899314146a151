#include "NetworkClass.h"

#include <utility>

#include "NetworkComponentObject.h"

namespace Simulator {

namespace {

bool IsValid(const OBO_TOKEN &token) {
    return token.Type == OBO_USER || token.Type == OBO_COMPONENT || token.Type == OBO_SOFTWARE;
}

/// @param gone  receives whether this is the removal that takes it away.
HRESULT CountRemoval(NetworkComponent *component, bool &gone) {
    if (component == nullptr)
        return NETCFG_E_COMPONENT_REMOVED_PENDING_REBOOT;
    unsigned &left = component->deInstallsUntilGone;
    gone = SUCCEEDED(component->deInstallResult) && left != 0 && --left == 0;
    return component->deInstallResult;
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
    return Call(
        name, [&] { return m_engine->Find(id, &m_classGuid, name, component); }, id, component);
}

HRESULT NetworkClass::EnumComponents(IEnumNetCfgComponent **components) {
    ClearResult(components);
    return Call(
        "INetCfgClass::EnumComponents", [] { return E_NOTIMPL; }, components);
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
    return Call(
        "INetCfgClassSetup::SelectAndInstall", [] { return E_NOTIMPL; }, parent, token, component);
}

HRESULT NetworkClassSetup::Install(LPCWSTR id, OBO_TOKEN *token, DWORD setupFlags, DWORD upgradeFromBuild,
                                   LPCWSTR answerFile, LPCWSTR answerSections, INetCfgComponent **component) {
    ClearResult(component);
    return Call(
        "INetCfgClassSetup::Install", [] { return E_NOTIMPL; }, id, token, setupFlags, upgradeFromBuild, answerFile,
        answerSections, component);
}

HRESULT NetworkClassSetup::DeInstall(INetCfgComponent *component, OBO_TOKEN *token, LPWSTR *references) {
    ClearResult(references);
    return Call(
        "INetCfgClassSetup::DeInstall", [&] { return Remove(component, token); }, component, token, references);
}

HRESULT NetworkClassSetup::Remove(INetCfgComponent *component, const OBO_TOKEN *token) {
    const auto *ours = dynamic_cast<NetworkComponentObject *>(component);
    if (ours == nullptr)
        return E_POINTER;
    if (token != nullptr && !IsValid(*token))
        return E_INVALIDARG;
    bool gone = false;
    const HRESULT result = m_engine->WhenLocked(
        [&](NetworkState &state) { return CountRemoval(ComponentWithKey(state, ours->Key()), gone); });
    if (gone)
        m_engine->Network().Remove(ours->Key());
    return result;
}

}  // namespace Simulator
