#include <utility>

#include "NetworkEngine.h"

namespace Simulator {

NetworkLock::NetworkLock(const std::shared_ptr<Core> &core, std::shared_ptr<NetworkEngine> engine)
    : ComObject(core, {"INetCfgLock::AddRef", "INetCfgLock::QueryInterface"}), m_engine(std::move(engine)) {}

HRESULT NetworkLock::Provide(REFIID iid, const char *function, void **object) {
    if (iid == IID_INetCfgLock)
        return ProvideThis(function, object);
    return m_engine->Provide(iid, function, object);
}

HRESULT NetworkLock::AcquireWriteLock(DWORD timeoutMs, LPCWSTR description, LPWSTR *lockedBy) {
    static constexpr char name[] = "INetCfgLock::AcquireWriteLock";
    ClearResult(lockedBy);
    return Call(
        name,
        [&]() -> HRESULT {
            if (description == nullptr)
                return E_POINTER;
            const DWORD waitMs = m_engine->LockWait(timeoutMs);
            if (waitMs != 0)
                TheCore()->clock.SleepFor(waitMs);
            if (TheCore()->ended)
                return RPC_E_DISCONNECTED;
            std::wstring holder;
            const HRESULT result = m_engine->TakeLock(description, holder);
            if (result == S_FALSE && lockedBy != nullptr)
                *lockedBy = MakeComText(holder, name);
            return result;
        },
        timeoutMs, description, lockedBy);
}

HRESULT NetworkLock::ReleaseWriteLock() {
    return Call("INetCfgLock::ReleaseWriteLock", [this] { return m_engine->ReleaseLock(); });
}

HRESULT NetworkLock::IsWriteLocked(LPWSTR *lockedBy) {
    static constexpr char name[] = "INetCfgLock::IsWriteLocked";
    ClearResult(lockedBy);
    return Call(
        name,
        [&] {
            const std::optional<NetworkLockHolder> lock = m_engine->Network().Read().lock;
            if (lock && lockedBy != nullptr)
                *lockedBy = MakeComText(lock->description, name);
            return lock ? S_OK : S_FALSE;
        },
        lockedBy);
}

}  // namespace Simulator
