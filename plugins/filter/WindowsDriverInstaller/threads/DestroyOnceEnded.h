// The end of a driver thread's object.
#pragma once

#include <memory>

#include "CDriverUninstallerThread.h"

namespace {

using UniqueThread = std::unique_ptr<CDriverUninstallerThread>;

/// Destroys the object as soon as its thread has ended: a running thread would use freed memory. Leaks the object if
/// the end can't be known.
void DestroyOnceEnded(UniqueThread thread);

}  // namespace
