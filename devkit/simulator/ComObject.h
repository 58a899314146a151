// Simulated COM objects: their references, and the passage of their methods through journal and faults.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include <windows.h>
#include <objbase.h>

#include "ArgumentText.h"
#include "Balance.h"
#include "CallScope.h"
#include "Function.h"
#include "Lock.h"

namespace Simulator {

namespace Kind {
inline constexpr char kComReference[] = "COM reference";  ///< One item per reference; its value is the object.
inline constexpr char kComMemory[] = "COM memory";
}  // namespace Kind

/// A text for the caller to free with CoTaskMemFree; counted as COM memory.
/// @param function  what returns it; stays valid for the life of the process.
[[nodiscard]] wchar_t *MakeComText(const std::wstring &text, const char *function);

/// COM sets output pointers to null before anything can fail.
template <class T>
void ClearResult(T **result) {
    if (result != nullptr)
        *result = nullptr;
}

/// While one is alive, the journal has the Release calls of simulated objects, too: INTERFACE::Release, with the number
/// of references that are left. There are many of them, so that they are left out otherwise.
class NotedReleases {
public:
    NotedReleases() { ++s_alive; }
    ~NotedReleases() { --s_alive; }
    NotedReleases(const NotedReleases &) = delete;
    NotedReleases &operator=(const NotedReleases &) = delete;

    [[nodiscard]] static bool AreWanted() { return s_alive != 0; }

private:
    inline static std::atomic<int> s_alive{0};
};

/// An object with one interface besides IUnknown. The program's references are counted one by one, also in the balance,
/// under the call that returned them; the simulator itself holds it by shared_ptr, uncounted. Its memory is not in the
/// balance. It may outlive the simulation: its methods then return RPC_E_DISCONNECTED. Any thread.
template <class Interface>
class ComObject : public Interface, public std::enable_shared_from_this<ComObject<Interface>> {
public:
    /// Names of calls, such as "INetCfg::AddRef".
    struct Names {
        const char *addRef;
        const char *queryInterface;
    };

    ComObject(const ComObject &) = delete;
    ComObject &operator=(const ComObject &) = delete;

    /// A reference for the program. @param function  the call that returns it.
    Interface *Give(const char *function) {
        (void)Refer(function);
        return this;
    }

    ULONG STDMETHODCALLTYPE AddRef() final {
        const InsideSimulator inside;
        return Refer(m_names.addRef);
    }

    ULONG STDMETHODCALLTYPE Release() final {
        const InsideSimulator inside;
        std::shared_ptr<ComObject> last;  // destroyed after the lock
        Balance::Instance().Closed(Kind::kComReference, Address());
        const LockGuard guard(m_lock);
        if (m_references == 0)
            return 0;
        if (--m_references == 0)
            last.swap(m_self);
        NoteRelease();
        return m_references;
    }

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void **object) final {
        ClearResult(object);
        return Call(
            m_names.queryInterface,
            [&] { return object == nullptr ? E_POINTER : Provide(iid, m_names.queryInterface, object); }, iid, object);
    }

    /// Implements QueryInterface, also within a call of another name.
    /// @param object  not null; receives null on failure.
    virtual HRESULT Provide(REFIID iid, const char *function, void **object) = 0;

protected:
    ComObject(std::shared_ptr<Core> core, const Names &names) : m_core(std::move(core)), m_names(names) {}
    virtual ~ComObject() = default;

    /// Calls a method: records it in the journal, and applies the fault plans. A planned failure is returned unchanged,
    /// even if its code is a success.
    /// @param name  such as "INetCfg::FindComponent".
    /// @param body  does the work; runs inside the simulator, and must block only by the clock.
    template <class Body, class... Args>
    HRESULT Call(const char *name, Body body, Args... arguments) {
        const DWORD lastError = GetLastError();
        const InsideSimulator inside;
        if (m_core->journal.Wants(name))
            m_core->journal.Add(name, ArgumentText(arguments...));
        const PlannedFailure failure = m_core->Enter(name, true);
        SetLastError(lastError);
        if (m_core->ended)
            return RPC_E_DISCONNECTED;
        if (failure.fails)
            return static_cast<HRESULT>(failure.code);
        return body();
    }

    /// Supports the interface itself.
    HRESULT ProvideThis(const char *function, void **object) {
        *object = Give(function);
        return S_OK;
    }

    [[nodiscard]] const std::shared_ptr<Core> &TheCore() const { return m_core; }

private:
    [[nodiscard]] std::uintptr_t Address() { return reinterpret_cast<std::uintptr_t>(static_cast<Interface *>(this)); }

    void NoteRelease() {
        Journal &journal = m_core->journal;
        if (m_core->ended || !NotedReleases::AreWanted())
            return;
        const std::string_view addRef = m_names.addRef;
        const std::string name = std::string(addRef.substr(0, addRef.rfind(':') + 1)) + "Release";
        if (journal.Wants(name))
            journal.Add(name, std::to_string(m_references));
    }

    ULONG Refer(const char *function) {
        if (!m_core->ended)
            Balance::Instance().Opened(Kind::kComReference, Address(), function);
        const LockGuard guard(m_lock);
        if (m_references == 0)
            m_self = this->shared_from_this();
        return ++m_references;
    }

    const std::shared_ptr<Core> m_core;
    const Names m_names;
    Lock m_lock;
    ULONG m_references = 0;
    std::shared_ptr<ComObject> m_self;  ///< Keeps it alive while the program holds references.
};

}  // namespace Simulator
