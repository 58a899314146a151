// Owner of a handle of the system.
#pragma once

#include <memory>
#include <type_traits>

#include <windows.h>

#include "CallScope.h"

namespace Simulator {

struct HandleCloser {
    void operator()(HANDLE handle) const {
        const InsideSimulator inside;
        CloseHandle(handle);
    }
};
using UniqueHandle = std::unique_ptr<std::remove_pointer_t<HANDLE>, HandleCloser>;

/// Kills the thread, and waits for its end. Called inside the simulator.
/// @param thread  may be killed and waited for.
inline void KillThread(HANDLE thread) {
    constexpr DWORD patienceMs = 5'000;
    if (TerminateThread(thread, 0))
        (void)WaitForSingleObject(thread, patienceMs);
}

}  // namespace Simulator
