#include "NetworkEngine.h"

#include <algorithm>
#include <utility>

#include "ComLibrary.h"
#include "NetworkClass.h"
#include "NetworkComponentObject.h"
#include "NetworkEnumerator.h"

namespace Simulator {

NetworkEngine::NetworkEngine(const std::shared_ptr<Core> &core, std::shared_ptr<NetworkConfiguration> network)
    : ComObject(core, {"INetCfg::AddRef", "INetCfg::QueryInterface"}), m_network(std::move(network)) {}

std::shared_ptr<NetworkEngine> NetworkEngine::Self() {
    return std::static_pointer_cast<NetworkEngine>(shared_from_this());
}

HRESULT NetworkEngine::Provide(REFIID iid, const char *function, void **object) {
    if (iid == IID_INetCfg || iid == IID_IUnknown)
        return ProvideThis(function, object);
    if (iid != IID_INetCfgLock)
        return E_NOINTERFACE;
    *object = std::make_shared<NetworkLock>(TheCore(), Self())->Give(function);
    return S_OK;
}

HRESULT NetworkEngine::Initialize(PVOID reserved) {
    return Call(
        "INetCfg::Initialize",
        [this] {
            return m_network->Use([this](const NetworkState &state) -> HRESULT {
                if (m_initialized)
                    return NETCFG_E_ALREADY_INITIALIZED;
                m_initialized = SUCCEEDED(state.initializeResult);
                return state.initializeResult;
            });
        },
        reserved);
}

HRESULT NetworkEngine::Uninitialize() {
    return Call("INetCfg::Uninitialize", [this] {
        return WhenInitialized([this](const NetworkState &) {
            m_initialized = false;
            m_changed.clear();
            return S_OK;
        });
    });
}

HRESULT NetworkEngine::Apply() {
    return Call("INetCfg::Apply", [this] {
        std::vector<NetworkBinding> applied;
        const HRESULT result = WhenLocked([&](NetworkState &state) {
            if (SUCCEEDED(state.applyResult))
                applied = Commit(state);
            return state.applyResult;
        });
        using What = NetworkMoment::What;
        for (const NetworkBinding &binding : applied)
            m_network->Tell(
                {binding.enabled ? What::BindingEnabled : What::BindingDisabled, binding.component, binding.adapter});
        return result;
    });
}

HRESULT NetworkEngine::Cancel() {
    return Call("INetCfg::Cancel", [this] {
        return WhenLocked([this](const NetworkState &) {
            m_changed.clear();
            return S_OK;
        });
    });
}

HRESULT NetworkEngine::EnumComponents(const GUID *classGuid, IEnumNetCfgComponent **components) {
    static constexpr char name[] = "INetCfg::EnumComponents";
    ClearResult(components);
    return Call(name, [&] { return Enumerate(classGuid, name, components); }, classGuid, components);
}

HRESULT NetworkEngine::FindComponent(LPCWSTR id, INetCfgComponent **component) {
    static constexpr char name[] = "INetCfg::FindComponent";
    ClearResult(component);
    return Call(name, [&] { return Find(id, nullptr, name, component); }, id, component);
}

HRESULT NetworkEngine::QueryNetCfgClass(const GUID *classGuid, REFIID iid, void **object) {
    static constexpr char name[] = "INetCfg::QueryNetCfgClass";
    ClearResult(object);
    return Call(
        name,
        [&]() -> HRESULT {
            if (classGuid == nullptr || object == nullptr)
                return E_POINTER;
            const HRESULT ready = WhenInitialized([](const NetworkState &) { return S_OK; });
            if (FAILED(ready))
                return ready;
            return std::make_shared<NetworkClass>(TheCore(), Self(), *classGuid)->Provide(iid, name, object);
        },
        classGuid, iid, object);
}

HRESULT NetworkEngine::Find(LPCWSTR id, const GUID *classGuid, const char *function, INetCfgComponent **component) {
    if (id == nullptr)
        return E_POINTER;
    unsigned key = 0;
    const HRESULT found = WhenInitialized([&](NetworkState &state) {
        const NetworkComponent *first = ComponentWithId(state, id);
        if (first == nullptr || (classGuid != nullptr && first->classGuid != *classGuid))
            return S_FALSE;
        key = first->key;
        return S_OK;
    });
    if (found == S_OK && component != nullptr)
        *component = GiveComponent(key, function);
    return found;
}

HRESULT NetworkEngine::Enumerate(const GUID *classGuid, const char *function, IEnumNetCfgComponent **components) {
    if (components == nullptr)
        return E_POINTER;
    std::vector<unsigned> keys;
    const HRESULT ready = WhenInitialized([&](const NetworkState &state) {
        for (const NetworkComponent &component : state.components) {
            if (classGuid == nullptr || component.classGuid == *classGuid)
                keys.push_back(component.key);
        }
        return S_OK;
    });
    if (FAILED(ready))
        return ready;
    ComponentEnumerator::Items items;
    for (const unsigned key : keys)
        items.push_back(std::make_shared<NetworkComponentObject>(TheCore(), Self(), key));
    *components =
        // cppcheck-suppress accessMoved; it is moved once
        std::make_shared<ComponentEnumerator>(TheCore(), kComponentEnumerator, std::move(items))->Give(function);
    return S_OK;
}

INetCfgComponent *NetworkEngine::GiveComponent(unsigned key, const char *function) {
    return std::make_shared<NetworkComponentObject>(TheCore(), Self(), key)->Give(function);
}

bool NetworkEngine::HasLock(const NetworkState &state) const {
    return m_mayWrite && state.lock && state.lock->inThisProcess;
}

DWORD NetworkEngine::LockWait(DWORD timeoutMs) {
    return m_network->Use(
        [&](const NetworkState &state) { return state.lock ? std::min(state.lockWaitMs, timeoutMs) : 0; });
}

HRESULT NetworkEngine::TakeLock(LPCWSTR description, std::wstring &holder) {
    return m_network->Use([&](NetworkState &state) {
        const bool held = state.lock.has_value();
        if (held)
            holder = state.lock->description;
        else
            state.lock = {description, true};
        m_mayWrite = state.lock->inThisProcess;
        return held ? S_FALSE : S_OK;
    });
}

HRESULT NetworkEngine::ReleaseLock() {
    return m_network->Use([this](NetworkState &state) -> HRESULT {
        if (!HasLock(state))
            return NETCFG_E_NO_WRITE_LOCK;
        m_mayWrite = false;
        state.lock.reset();
        return S_OK;
    });
}

void InstallNetwork(FunctionSet &functions, const std::shared_ptr<Core> &core, const ComLibrary &library,
                    const std::shared_ptr<NetworkConfiguration> &network) {
    PutComClass(functions, library, CLSID_CNetCfg, [core, network](REFIID iid, const char *function, void **object) {
        return std::make_shared<NetworkEngine>(core, network)->Provide(iid, function, object);
    });
}

}  // namespace Simulator
