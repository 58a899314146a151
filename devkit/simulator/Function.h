// One system function that can be redirected: its replacement, and the layers below.
//
// A call of a redirected function is recorded in the journal, meets the fault plans, and then runs through the
// function's layers from the outermost on; each decides whether to call the next. Below the last is the real function.
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "ArgumentText.h"
#include "CallScope.h"
#include "Clock.h"
#include "FailureValues.h"
#include "Faults.h"
#include "Journal.h"
#include "Lock.h"

namespace Simulator {

#if defined(_UCRT) || defined(_MSC_VER)
inline constexpr char kCRuntime[] = "ucrtbase.dll";
#else
inline constexpr char kCRuntime[] = "msvcrt.dll";
#endif

/// What all calls share. Threads that are inside a call keep it alive.
struct Core {
    Journal journal;
    Faults faults;
    Clock clock;
    std::atomic<bool> ended{false};

    /// Counts the call, hangs and delays it as planned. @return whether it should fail, and with what.
    Verdict Enter(const std::string &function, bool canFail);
    /// Releases all that hang or wait; from now on calls reach the real functions.
    void End();
};

/// The position of a layer: those that watch (count, for example) enclose those that simulate the machine.
enum class Depth { Machine, Watch };

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
    using Call = std::function<R(Args...)>;
    /// @param next  the layer below.
    using Layer = std::function<R(const Call &next, Args...)>;

    static constexpr const char *name = Name.text.data();
    static constexpr const char *library = Library.text.data();

    /// The real function, called from outside the simulator; fails with ERROR_PROC_NOT_FOUND if the system lacks it.
    static R Real(Args... args) {
        const OutsideSimulator outside;
        return CallReal(args...);
    }

    static R WINAPI Replacement(Args... args) {
        const std::shared_ptr<State> state = InsideSimulator::Here() ? nullptr : Current();
        if (!state)
            return CallReal(args...);
        const DWORD lastError = GetLastError();
        const InsideSimulator inside;
        if (state->core->journal.Wants(name))
            state->core->journal.Add(name, ArgumentText(args...));
        const Verdict verdict = state->core->Enter(name, Failure::canFail);
        SetLastError(lastError);
        if (state->core->ended)
            return Real(args...);
        if (verdict.fails)
            return Failure::template Fail<R>(verdict.code);
        return state->call(args...);
    }

    /// Used by FunctionSet.
    static void Begin(const std::shared_ptr<Core> &core) {
        (void)isListed;
        auto state = std::make_shared<State>();
        state->core = core;
        state->call = &Real;
        Exchange(std::move(state));
    }
    static void Add(Depth depth, Layer layer) {
        auto state = std::make_shared<State>(*Current());
        const auto deeper = [depth](const auto &other) { return other.first <= depth; };
        const auto place = std::find_if_not(state->layers.begin(), state->layers.end(), deeper);
        state->layers.insert(place, {depth, std::move(layer)});
        state->call = &Real;
        for (const auto &entry : state->layers) {
            state->call = [layer = entry.second, next = state->call](Args... args) -> R {
                return layer(next, args...);
            };
        }
        Exchange(std::move(state));
    }
    static void End() { Exchange(nullptr); }

private:
    struct State {
        std::shared_ptr<Core> core;
        std::vector<std::pair<Depth, Layer>> layers;  ///< Innermost first.
        Call call;
    };
    struct Slot {
        Lock lock;
        std::shared_ptr<State> state;
    };

    /// Set before main, in every program that contains Begin.
    inline static const bool isListed = ReplaceableFunctions().emplace(name, Failure::canFail).second;

    /// Never destroyed: replacements may be called while the process ends.
    static Slot &TheSlot() {
        static Slot &slot = *new Slot;
        return slot;
    }
    static std::shared_ptr<State> Current() {
        const LockGuard guard(TheSlot().lock);
        return TheSlot().state;
    }
    static void Exchange(std::shared_ptr<State> state) {
        const LockGuard guard(TheSlot().lock);
        TheSlot().state.swap(state);
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
