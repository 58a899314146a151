// What goes wrong when a driver thread is started, or killed.
#pragma once

#include "Simulation.h"
#include "WindowsFunctions.h"

namespace ThreadFaults {

/// From now on these two are redirected.
inline void Redirect(Simulator::Simulation &simulation) {
    simulation.Functions().PassThrough<Simulator::System::TerminateThread>();
    simulation.Functions().PassThrough<Simulator::System::ResumeThread>();
}

/// A thread that hangs although somebody tried to kill it gets no time to end. Waits for anything else keep theirs.
inline void GiveNoTimeToEnd(Simulator::Simulation &simulation) {
    simulation.Functions().Put<Simulator::System::WaitForSingleObject>(
        [&faults = simulation.GetFaults()](const auto &next, HANDLE handle, DWORD ms) {
            const DWORD thread = ms == 5'000 ? GetThreadId(handle) : 0;
            return next(handle, thread != 0 && faults.Hangs(thread) ? 0 : ms);
        });
}

}  // namespace ThreadFaults
