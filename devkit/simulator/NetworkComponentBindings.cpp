#include "NetworkComponentBindings.h"

#include <utility>
#include <vector>

#include "NetworkBindingPath.h"
#include "NetworkEnumerator.h"

namespace Simulator {

NetworkComponentBindings::NetworkComponentBindings(const std::shared_ptr<Core> &core,
                                                   std::shared_ptr<NetworkEngine> engine,
                                                   std::shared_ptr<NetworkComponentObject> component)
    : ComObject(core, {"INetCfgComponentBindings::AddRef", "INetCfgComponentBindings::QueryInterface"}),
      m_engine(std::move(engine)),
      m_component(std::move(component)) {}

HRESULT NetworkComponentBindings::Provide(REFIID iid, const char *function, void **object) {
    if (iid == IID_INetCfgComponentBindings)
        return ProvideThis(function, object);
    return m_component->Provide(iid, function, object);
}

HRESULT NetworkComponentBindings::IsBoundTo(INetCfgComponent *adapter) {
    return Call("INetCfgComponentBindings::IsBoundTo", [&] { return Compare(adapter); }, adapter);
}

HRESULT NetworkComponentBindings::Compare(INetCfgComponent *adapter) {
    const auto *ours = dynamic_cast<NetworkComponentObject *>(adapter);
    if (ours == nullptr)
        return E_POINTER;
    const HRESULT enabled = m_engine->IsEnabled({ours->Key(), m_component->Key()});
    return enabled == NETCFG_E_COMPONENT_REMOVED_PENDING_REBOOT ? S_FALSE : enabled;
}

HRESULT NetworkComponentBindings::EnumBindingPaths(DWORD flags, IEnumNetCfgBindingPath **paths) {
    static constexpr char name[] = "INetCfgComponentBindings::EnumBindingPaths";
    ClearResult(paths);
    return Call(name, [&] { return Enumerate(flags, name, paths); }, flags, paths);
}

HRESULT NetworkComponentBindings::Enumerate(DWORD flags, const char *function, IEnumNetCfgBindingPath **paths) {
    if (paths == nullptr)
        return E_POINTER;
    if (flags != EBP_ABOVE && flags != EBP_BELOW)
        return E_INVALIDARG;
    std::vector<BindingEnds> bindings;
    const HRESULT ready = m_engine->BindingsOf(m_component->Key(), flags == EBP_ABOVE, bindings);
    if (FAILED(ready))
        return ready;
    BindingPathEnumerator::Items items;
    for (const BindingEnds &ends : bindings)
        items.push_back(std::make_shared<NetworkBindingPath>(TheCore(), m_engine, ends));
    *paths =
        // cppcheck-suppress accessMoved; it is moved once
        std::make_shared<BindingPathEnumerator>(TheCore(), kBindingPathEnumerator, std::move(items))->Give(function);
    return S_OK;
}

HRESULT NetworkComponentBindings::BindTo(INetCfgComponent *component) {
    return Call("INetCfgComponentBindings::BindTo", [] { return E_NOTIMPL; }, component);
}

HRESULT NetworkComponentBindings::UnbindFrom(INetCfgComponent *component) {
    return Call("INetCfgComponentBindings::UnbindFrom", [] { return E_NOTIMPL; }, component);
}

HRESULT NetworkComponentBindings::SupportsBindingInterface(DWORD flags, LPCWSTR name) {
    return Call("INetCfgComponentBindings::SupportsBindingInterface", [] { return E_NOTIMPL; }, flags, name);
}

HRESULT NetworkComponentBindings::IsBindableTo(INetCfgComponent *component) {
    return Call("INetCfgComponentBindings::IsBindableTo", [] { return E_NOTIMPL; }, component);
}

HRESULT NetworkComponentBindings::MoveBefore(INetCfgBindingPath *path, INetCfgBindingPath *other) {
    return Call("INetCfgComponentBindings::MoveBefore", [] { return E_NOTIMPL; }, path, other);
}

HRESULT NetworkComponentBindings::MoveAfter(INetCfgBindingPath *path, INetCfgBindingPath *other) {
    return Call("INetCfgComponentBindings::MoveAfter", [] { return E_NOTIMPL; }, path, other);
}

}  // namespace Simulator
