// Faults of starting and killing driver threads.
#pragma once

#include "Simulation.h"
#include "WindowsFunctions.h"

namespace ThreadFaults {

/// These two functions are redirected from now on.
inline void Redirect(Simulator::Simulation &simulation) {
    simulation.Functions().PassThrough<Simulator::System::TerminateThread>();
    simulation.Functions().PassThrough<Simulator::System::ResumeThread>();
}

/// A thread that hangs although it was killed gets no time to end. Waits for anything else keep theirs.
inline void GiveNoTimeToEnd(Simulator::Simulation &simulation) {
    simulation.Functions().Put<Simulator::System::WaitForSingleObject>(
        [&faults = simulation.GetFaults()](const auto &next, HANDLE handle, DWORD ms) {
            const DWORD thread = ms == 5'000 ? GetThreadId(handle) : 0;
            return next(handle, thread != 0 && faults.Hangs(thread) ? 0 : ms);
        });
}

}  // namespace ThreadFaults
