// One system function that can be redirected: its replacement, and the layers below.
//
// A call of a redirected function is recorded in the journal, meets the fault plans, and then runs through the
// function's layers from the outermost on; each decides whether to call the next. Below the last is the real function.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <map>
#include <memory>
#include <string_view>
#include <type_traits>
#include <utility>

#include "ArgumentText.h"
#include "CallScope.h"
#include "Clock.h"
#include "FailureValues.h"
#include "Faults.h"
#include "Journal.h"
#include "Layers.h"

namespace Simulator {

#if defined(_UCRT) || defined(_MSC_VER)
inline constexpr char kCRuntime[] = "ucrtbase.dll";
#else
inline constexpr char kCRuntime[] = "msvcrt.dll";
#endif

/// What the plans have for a call.
struct PlannedFailure {
    bool fails = false;
    DWORD code = ERROR_SUCCESS;
};

/// What all calls share. Threads that are inside a call keep it alive.
struct Core {
    Journal journal;
    Faults faults;
    Clock clock;
    std::atomic<bool> ended{false};

    /// Counts the call, hangs and delays it as planned. @return whether it should fail, and with what.
    PlannedFailure Enter(const char *function, bool canFail);
    /// Releases all that hang or wait; from now on calls reach the real functions.
    void End();
};

template <std::size_t N>
struct FixedText {
    consteval FixedText(const char (&source)[N]) { std::copy_n(source, N, text.data()); }
    std::array<char, N> text{};
};

/// The function of a library, which is loaded if necessary; null if there is none. Keeps the last error.
[[nodiscard]] FARPROC FindRealFunction(const char *library, const char *function);

/// The names of all functions that this program could put in a FunctionSet, and whether a plan can make them fail.
[[nodiscard]] std::map<std::string_view, bool> &ReplaceableFunctions();

template <FixedText Name, FixedText Library, class Signature, class FailureValue>
class Function;

/// Everything is static: a replacement in an import table has no object. At most one simulation at a time holds the
/// state.
template <FixedText Name, FixedText Library, class FailureValue, class R, class... Args>
class Function<Name, Library, R(Args...), FailureValue> {
public:
    using Failure = FailureValue;

    static constexpr const char *name = Name.text.data();
    static constexpr const char *library = Library.text.data();

    /// The real function, called from outside the simulator; fails with ERROR_PROC_NOT_FOUND if the system lacks it.
    static R Real(Args... args) {
        const OutsideSimulator outside;
        return CallReal(args...);
    }

    static R WINAPI Replacement(Args... args) {
        const std::shared_ptr<const Layers> layers = Holder().ForCall();
        if (!layers)
            return CallReal(args...);
        const DWORD lastError = GetLastError();
        const InsideSimulator inside;
        if (layers->core->journal.Wants(name))
            layers->core->journal.Add(name, ArgumentText(args...));
        const PlannedFailure failure = layers->core->Enter(name, Failure::canFail);
        SetLastError(lastError);
        if (layers->core->ended)
            return Real(args...);
        if (failure.fails)
            return Failure::template Fail<R>(failure.code);
        return Next<R(Args...)>(*layers, layers->stack.size(), &Real)(args...);
    }

    /// Used by FunctionSet.
    static void Begin(const std::shared_ptr<Core> &core) {
        (void)isListed;
        Holder().Begin(core);
    }
    template <class Body>
    static void Add(Depth depth, Body body) {
        Holder().Add(std::unique_ptr<AnyLayer>(new BodyLayer<R(Args...), Body>(depth, std::move(body))));
    }
    static void End() { Holder().End(); }

private:
    /// Set before main, in every program that contains Begin.
    inline static const bool isListed = ReplaceableFunctions().emplace(name, Failure::canFail).second;

    /// Never destroyed: replacements may be called while the process ends.
    static LayersHolder &Holder() {
        static LayersHolder &holder = *new LayersHolder;
        return holder;
    }
    static R CallReal(Args... args) {
        static std::atomic<FARPROC> real{nullptr};
        if (real == nullptr)
            real = FindRealFunction(library, name);
        if (real == nullptr)
            return Failure::template Fail<R>(ERROR_PROC_NOT_FOUND);
        return reinterpret_cast<R(WINAPI *)(Args...)>(reinterpret_cast<void *>(real.load()))(args...);
    }
};

/// A function's signature, without the attributes that a compiler gives to known functions.
template <class R, class... Args>
auto PlainSignature(R(WINAPI *function)(Args...)) -> std::type_identity<R(Args...)>;

/// Describes a function of a library under its own name:
///     SIMULATOR_FUNCTION(RegCloseKey, "ADVAPI32.dll", ReturnsStatus);
/// declares `RegCloseKey` in the namespace around it.
#define SIMULATOR_FUNCTION(name, library, failure)                                                  \
    using name = /* NOLINT(bugprone-macro-parentheses): a declaration's name */                     \
        ::Simulator::Function<#name, library, decltype(::Simulator::PlainSignature(&::name))::type, \
                              ::Simulator::failure>

}  // namespace Simulator
