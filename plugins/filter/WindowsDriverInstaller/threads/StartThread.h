// Starts the installer's threads.
#pragma once

#include "vta_core.h"

/// How long a new thread gets before it is watched.
constexpr unsigned long kThreadStartMs = 100;
constexpr int kAnyProcessor = -1;
constexpr unsigned kNormalPriority = 50;
constexpr unsigned kDefaultStackSize = 0;

// @return true when the thread runs.

inline bool MakeAndStartThread(VtaCore::CRunnable &thread) {
    return thread.start(kNormalPriority, /*create=*/true, kDefaultStackSize);
}

/// @param thread  wxThread::Create was called for it.
inline bool StartMadeThread(VtaCore::CRunnable &thread) {
    return thread.start(kNormalPriority, /*create=*/false, kDefaultStackSize);
}
