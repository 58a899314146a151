#include "NetworkBindingPath.h"

#include <utility>
#include <vector>

#include "NetworkEnumerator.h"

namespace Simulator {

NetworkBindingPath::NetworkBindingPath(const std::shared_ptr<Core> &core, std::shared_ptr<NetworkEngine> engine,
                                       const BindingEnds &ends)
    : ComObject(core, {"INetCfgBindingPath::AddRef", "INetCfgBindingPath::QueryInterface"}),
      m_engine(std::move(engine)),
      m_ends(ends) {}

HRESULT NetworkBindingPath::Provide(REFIID iid, const char *function, void **object) {
    if (iid == IID_INetCfgBindingPath || iid == IID_IUnknown)
        return ProvideThis(function, object);
    return E_NOINTERFACE;
}

HRESULT NetworkBindingPath::IsEnabled() {
    return Call("INetCfgBindingPath::IsEnabled", [this] { return m_engine->IsEnabled(m_ends); });
}

HRESULT NetworkBindingPath::Enable(BOOL enable) {
    return Call("INetCfgBindingPath::Enable", [&] { return m_engine->Enable(m_ends, enable != FALSE); }, enable);
}

HRESULT NetworkBindingPath::EnumBindingInterfaces(IEnumNetCfgBindingInterface **interfaces) {
    static constexpr char name[] = "INetCfgBindingPath::EnumBindingInterfaces";
    ClearResult(interfaces);
    return Call(name, [&] { return Enumerate(name, interfaces); }, interfaces);
}

HRESULT NetworkBindingPath::Enumerate(const char *function, IEnumNetCfgBindingInterface **interfaces) {
    if (interfaces == nullptr)
        return E_POINTER;
    std::vector<BindingEnds> interfacesOfPath;
    const HRESULT there = m_engine->InterfacesOf(m_ends, interfacesOfPath);
    if (FAILED(there))
        return there;
    BindingInterfaceEnumerator::Items items;
    for (const BindingEnds &ends : interfacesOfPath)
        items.push_back(std::make_shared<NetworkBindingInterface>(TheCore(), m_engine, m_ends, ends));
    // cppcheck-suppress accessMoved; it is moved once
    *interfaces = std::make_shared<BindingInterfaceEnumerator>(TheCore(), kBindingInterfaceEnumerator, std::move(items))
                      ->Give(function);
    return S_OK;
}

HRESULT NetworkBindingPath::IsSamePathAs(INetCfgBindingPath *path) {
    return Call("INetCfgBindingPath::IsSamePathAs", [] { return E_NOTIMPL; }, path);
}

HRESULT NetworkBindingPath::IsSubPathOf(INetCfgBindingPath *path) {
    return Call("INetCfgBindingPath::IsSubPathOf", [] { return E_NOTIMPL; }, path);
}

HRESULT NetworkBindingPath::GetPathToken(LPWSTR *token) {
    ClearResult(token);
    return Call("INetCfgBindingPath::GetPathToken", [] { return E_NOTIMPL; }, token);
}

HRESULT NetworkBindingPath::GetOwner(INetCfgComponent **component) {
    ClearResult(component);
    return Call("INetCfgBindingPath::GetOwner", [] { return E_NOTIMPL; }, component);
}

HRESULT NetworkBindingPath::GetDepth(ULONG *interfaces) {
    return Call("INetCfgBindingPath::GetDepth", [] { return E_NOTIMPL; }, interfaces);
}

NetworkBindingInterface::NetworkBindingInterface(const std::shared_ptr<Core> &core,
                                                 std::shared_ptr<NetworkEngine> engine, const BindingEnds &path,
                                                 const BindingEnds &ends)
    : ComObject(core, {"INetCfgBindingInterface::AddRef", "INetCfgBindingInterface::QueryInterface"}),
      m_engine(std::move(engine)),
      m_path(path),
      m_ends(ends) {}

HRESULT NetworkBindingInterface::Provide(REFIID iid, const char *function, void **object) {
    if (iid == IID_INetCfgBindingInterface || iid == IID_IUnknown)
        return ProvideThis(function, object);
    return E_NOINTERFACE;
}

HRESULT NetworkBindingInterface::GetUpperComponent(INetCfgComponent **component) {
    static constexpr char name[] = "INetCfgBindingInterface::GetUpperComponent";
    ClearResult(component);
    return Call(name, [&] { return GiveEnd(m_ends.component, name, component); }, component);
}

HRESULT NetworkBindingInterface::GetLowerComponent(INetCfgComponent **component) {
    static constexpr char name[] = "INetCfgBindingInterface::GetLowerComponent";
    ClearResult(component);
    return Call(name, [&] { return GiveEnd(m_ends.adapter, name, component); }, component);
}

HRESULT NetworkBindingInterface::GetName(LPWSTR *name) {
    ClearResult(name);
    return Call("INetCfgBindingInterface::GetName", [] { return E_NOTIMPL; }, name);
}

HRESULT NetworkBindingInterface::GiveEnd(unsigned key, const char *function, INetCfgComponent **component) {
    if (component == nullptr)
        return E_POINTER;
    const HRESULT there = m_engine->IsEnabled(m_path);
    if (FAILED(there))
        return there;
    *component = m_engine->GiveComponent(key, function);
    return S_OK;
}

}  // namespace Simulator
