// COM on the simulated machine: the models of the threads, and the simulated classes.
#pragma once

#include <atomic>
#include <functional>

#include <windows.h>
#include <objbase.h>

namespace Simulator {

class FunctionSet;

namespace Kind {
inline constexpr char kComInitialisation[] = "COM initialisation";  ///< Its value is the thread's number.
}

struct ComLibrary {
    /// Threads already have a single-threaded apartment, made by other code: CoInitializeEx returns RPC_E_CHANGED_MODE
    /// for the multithreaded model, and S_FALSE for the other.
    std::atomic<bool> threadsHaveApartments{false};

    /// Whether the calling thread has a model. What another thread has initialised does not count.
    [[nodiscard]] bool IsInitialised() const;
};

/// Adds these functions to journal and faults:
/// - CoInitializeEx and CoUninitialize, which are real except for what ComLibrary says. Each success counts until it is
///   undone.
/// - CoCreateInstance, which is real for classes that are not simulated. A planned failure does not change its output.
/// - CoTaskMemAlloc and CoTaskMemFree, whose memory counts, like that which simulated objects return.
/// - SysAllocString and SysFreeString, whose texts count in the same way, and SysStringLen.
/// @param library  outlives the set.
void InstallCom(FunctionSet &functions, ComLibrary &library);

/// Creates an object, and returns the requested interface with a reference. @param function  the call that returns it.
using ComFactory = std::function<HRESULT(REFIID iid, const char *function, void **object)>;

/// Simulates an in-process class. CoCreateInstance fails for it with CO_E_NOTINITIALIZED in a thread without a model,
/// with CLASS_E_NOAGGREGATION, and with REGDB_E_CLASSNOTREG if another context is requested.
void PutComClass(FunctionSet &functions, const ComLibrary &library, const CLSID &id, ComFactory factory);

}  // namespace Simulator
