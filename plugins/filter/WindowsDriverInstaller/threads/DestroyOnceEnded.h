// The end of a driver thread's object.
#pragma once

#include <memory>

#include "CDriverUninstallerThread.h"

namespace {

using UniqueThread = std::unique_ptr<CDriverUninstallerThread>;

/// Destroys the object as soon as its thread has ended: one that still runs would work on freed memory. Where nobody
/// can tell the object stays.
void DestroyOnceEnded(UniqueThread thread);

}  // namespace
