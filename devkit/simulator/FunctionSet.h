// The simulated functions, and the modules that they are attached to.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Function.h"
#include "ImportTable.h"

namespace Simulator {

/// A plain replacement, without journal and faults.
struct SimulatedFunction {
    std::string library;
    std::string name;
    void *replacement = nullptr;
};

/// To redirect one function with a custom model:
///     SIMULATOR_FUNCTION(GetSystemMetrics, "USER32.dll", ReturnsZero);              // in a header or .cpp
///     functions.Put<GetSystemMetrics>([&machine](const auto &next, int index) {
///         return index == SM_REMOTESESSION ? machine.remoteSession : next(index);
///     });
/// and to have it only in the journal and the fault plans: functions.PassThrough<GetSystemMetrics>().
///
/// Once per process at a time. GetProcAddress is simulated from the start: a module in which it is redirected gets the
/// replacements from it. Use it from one thread, except for the replaced functions themselves.
class FunctionSet {
public:
    /// @throws std::logic_error  if there is another.
    explicit FunctionSet(std::shared_ptr<Core> core);
    /// Restores all import tables.
    ~FunctionSet();
    FunctionSet(const FunctionSet &) = delete;
    FunctionSet &operator=(const FunctionSet &) = delete;

    /// Journal and faults, then the real function or its layers.
    template <class F>
    void PassThrough() {
        if (Knows(F::name))
            return;
        const InsideSimulator inside;
        F::Begin(m_core);
        Add({F::library, F::name, reinterpret_cast<void *>(&F::Replacement)}, &F::End);
    }
    /// Adds a layer to the function, around existing ones of the same depth.
    /// @param layer  is called with a `const Next &next` and the arguments, in any thread; runs inside the simulator,
    ///   its `next` outside. Must block only in `next` or by the clock; the simulation may have ended when a blocking
    ///   `next` returns.
    template <class F, class Layer>
    void Put(Layer layer, Depth depth = Depth::Machine) {
        PassThrough<F>();
        const InsideSimulator inside;
        F::Add(depth, std::move(layer));
    }
    /// @throws std::logic_error  if that name is already in use.
    void Add(SimulatedFunction function);

    [[nodiscard]] bool Knows(std::string_view name) const;
    [[nodiscard]] std::set<std::string> Names() const;

    /// Redirects the functions in the module's import table, by name, and again after it was unloaded and reloaded. A
    /// function that is added later is redirected then. Do not attach the C runtime, or other system libraries, without
    /// naming functions.
    /// @param names  only these; empty for all.
    /// @return the number of entries that lead to replacements now.
    std::size_t Attach(HMODULE module, const std::set<std::string> &names = {});
    /// Attaches a module whenever it is loaded from now on, before its constructors run.
    /// @param baseName  such as L"fc.dll".
    void AttachWhenLoaded(const std::wstring &baseName);
    /// Called for every module before it is attached, under the loader lock if it was awaited. One at most.
    void OnAttach(std::function<void(HMODULE)> observer) { m_onAttach = std::move(observer); }
    /// Restores the module's entries.
    void Detach(HMODULE module);
    /// Keeps these functions redirected beyond this object's destruction; the replacements must support that.
    void Abandon(const std::set<std::string> &names);

private:
    struct Entry {
        SimulatedFunction function;
        void (*end)();
    };
    struct Attached {
        std::set<std::string> wanted;
        std::map<void **, SlotRedirection> slots;
    };
    void Add(SimulatedFunction function, void (*end)());
    [[nodiscard]] bool IsAwaited(const std::wstring &baseName) const;
    [[nodiscard]] FARPROC ReplacementFor(HMODULE library, const char *name, FARPROC real) const;
    void PutGetProcAddress();

    mutable Lock m_lock;
    std::shared_ptr<Core> m_core;
    std::map<std::string, Entry, std::less<>> m_functions;
    std::map<HMODULE, Attached> m_modules;
    std::set<std::wstring> m_whenLoaded;  ///< In lower case.
    std::function<void(HMODULE)> m_onAttach;
    void *m_loadNotification = nullptr;

    friend struct LoadNotification;
};

}  // namespace Simulator
